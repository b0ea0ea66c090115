#include "render/camera.h"

#include <cmath>

#include "irradiance/irradiance_map_header.h"

namespace LUtils {

namespace {

constexpr float kTwoPi = 6.2831855f;

Vector offsetAlong(const Vector& right, const Vector& up, float a, float b) {
  return right * a + up * b;
}

}  // namespace

void PinholeCamera::setImage(float width, float height, float fov) {
  imageWidth = width;
  imageHeight = height;
  fieldOfView = fov;
  pixelSizeX = 2.0f * std::tan(fov * 0.5f) * (width / height) / width;
  pixelSizeY = -pixelSizeX;
}

void PinholeCamera::lensPoint(float lensU, float lensV, float& lx, float& ly) const {
  const float radial = apertureParameter == 1.0f ? lensV : std::pow(lensV, apertureParameter);
  const float dist = std::sqrt(std::fmax(radial, 0.0f));
  if (bladesOn == 0) {
    const float angle = kTwoPi * lensU;
    lx = dist * std::cos(angle);
    ly = dist * std::sin(angle);
  } else {
    const int k = bladeCount < 3 ? 3 : bladeCount;
    const float s = lensU * static_cast<float>(k);
    const float j = std::floor(s);
    const float f = s - j;
    const float a0 = kTwoPi * j / static_cast<float>(k) + bladeRotation;
    const float a1 = kTwoPi * (j + 1.0f) / static_cast<float>(k) + bladeRotation;
    lx = dist * ((1.0f - f) * std::cos(a0) + f * std::cos(a1));
    ly = dist * ((1.0f - f) * std::sin(a0) + f * std::sin(a1));
  }
  lx *= aperture;
  ly *= aperture;
  if (anisotropy <= 0.0f) {
    const float q = 1.0f / (anisotropy + 1.0f);
    lx /= q;
    ly *= q;
  } else {
    const float q = 1.0f / (1.0f - anisotropy);
    lx *= q;
    ly /= q;
  }
}

bool PinholeCamera::getScreenRayExt(ScreenRayExt& r) const {
  float lx = 0.0f, ly = 0.0f;
  lensPoint(r.lensU, r.lensV, lx, ly);
  r.lensX = lx;
  r.lensY = ly;

  const Vector lensOffset = offsetAlong(right, up, lx, ly);
  r.ray.origin = {position.x + lensOffset.x, position.y + lensOffset.y, position.z + lensOffset.z};

  // From the lens point to the point on the plane in focus.
  const float fx = (r.x - imageWidth * 0.5f) * pixelSizeX * focalDistance - lx;
  const float fy = (r.y - imageHeight * 0.5f) * pixelSizeY * focalDistance - ly;
  const Vector toFocus = right * fx + up * fy + forward * focalDistance;
  const float len = length(toFocus);
  if (!(len > 0.0f) || !std::isfinite(len)) return false;
  const Vector dir = toFocus / len;
  r.ray.direction = dir;
  r.focusDistance = len;

  // d(v / |v|) = (dv - dir (dir . dv)) / |v| for a pixel step dv of the unnormalised direction.
  const Vector stepX = right * (pixelSizeX * focalDistance);
  const Vector stepY = up * (pixelSizeY * focalDistance);
  r.differentials.originDx = {};
  r.differentials.originDy = {};
  r.differentials.directionDx = (stepX - dir * dot(dir, stepX)) / len;
  r.differentials.directionDy = (stepY - dir * dot(dir, stepY)) / len;
  return true;
}

bool PinholeCamera::getScreenRay(float x, float y, float lensU, float lensV, ScreenRay& ray,
                                 RayDifferentials* differentials) const {
  ScreenRayExt r;
  r.x = x;
  r.y = y;
  r.lensU = lensU;
  r.lensV = lensV;
  const bool ok = getScreenRayExt(r);
  ray = r.ray;
  if (differentials != nullptr) *differentials = r.differentials;
  return ok;
}

bool PinholeCamera::getScreenRays(ScreenRayRequest* requests, uint32_t count,
                                  RayDifferentials* differentials) const {
  bool all = true;
  for (uint32_t i = 0; i < count; ++i) {
    ScreenRayRequest& q = requests[i];
    if (!getScreenRay(q.x, q.y, q.lensU, q.lensV, q.ray,
                      differentials != nullptr ? &differentials[i] : nullptr)) {
      all = false;
    }
  }
  return all;
}

void PinholeCamera::lookAt(const Vector& eye, const Vector& target, const Vector& upHint) {
  position = {eye.x, eye.y, eye.z};
  forward = normalizeNewton(target - eye);
  right = normalizeNewton(cross(forward, upHint));
  up = normalizeNewton(cross(right, forward));
}

void PinholeCamera::setFrame(const Vector& pos, const Vector& fwd, const Vector& upAxis,
                             const Vector& rightAxis) {
  position = {pos.x, pos.y, pos.z};
  forward = fwd;
  up = upAxis;
  right = rightAxis;
}

void PinholeCamera::setLens(bool flag, float a, float b) {
  lensFlag = flag;
  lensA = a;
  lensB = b;
}

float PinholeCamera::getDepth(const Vector& p) const {
  const Vector d = p - positionF();
  return static_cast<float>(static_cast<double>(d.x) * forward.x +
                            static_cast<double>(d.y) * forward.y +
                            static_cast<double>(d.z) * forward.z);
}

Vector PinholeCamera::project(const Vector& p) const {
  const Vector d{static_cast<float>(p.x - position.x), static_cast<float>(p.y - position.y),
                 static_cast<float>(p.z - position.z)};
  const float cx = dot(d, right);
  const float cy = dot(d, up);
  const float cz = dot(d, forward);
  return {imageWidth * 0.5f + cx / (pixelSizeX * cz), imageHeight * 0.5f + cy / (pixelSizeY * cz),
          1.0f / cz};
}

float setCameraFromStoredView(PinholeCamera& camera, const StoredView& view, float width,
                              float height, const Vector& orbitCentre) {
  camera.position = view.position;
  camera.right = view.axes[0];
  camera.up = view.axes[1];
  camera.forward = -view.axes[2];
  camera.setImage(width, height, view.fieldOfView);
  float distance = view.orbitDistance;
  if (!(distance > 1e-6f)) {
    const Vector d = orbitCentre - camera.positionF();
    distance = length(d);
  }
  camera.aperture = 0.0f;
  camera.focalDistance = distance;
  camera.apertureParameter = 1.0f;
  camera.bladesOn = 0;
  camera.bladeCount = 6;
  camera.bladeRotation = 0.0f;
  camera.anisotropy = 0.0f;
  return distance;
}

StoredView storedViewOf(const IrradianceMapHeader& header) {
  StoredView view;
  view.position = {header.cameraPosition[0], header.cameraPosition[1], header.cameraPosition[2]};
  for (int axis = 0; axis < 3; ++axis) {
    const float* row = &header.cameraRotation[axis * 3];
    view.axes[axis] = {row[0], row[1], row[2]};
  }
  view.fieldOfView = header.cameraFov;
  view.orbitDistance = header.cameraTarget;
  return view;
}

}  // namespace LUtils
