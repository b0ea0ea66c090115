#include "synth/sampling.h"

#include <cmath>

namespace synth::detail {

namespace {

constexpr int kHemisphereRays = 6;
constexpr float kEscapeDistance = 100.0f;  // distance counted for a ray that leaves the room
constexpr float kRayOffset = 1e-4f;

const Color kLightRadiance{9.0f, 8.4f, 7.2f};
const Color kSkyRadiance{1.5f, 2.1f, 3.1f};
const Color kBounce{0.10f, 0.09f, 0.075f};

// Cosine-weighted direction about n.
Vector cosineDirection(const Vector& n, float r1, float r2) {
  const float sign = std::copysign(1.0f, n.z);
  const float a = -1.0f / (sign + n.z);
  const float b = n.x * n.y * a;
  const Vector t1{1.0f + sign * n.x * n.x * a, sign * b, -sign * n.x};
  const Vector t2{b, sign + n.y * n.y * a, -n.y};
  const float phi = 6.2831853f * r1;
  const float r = std::sqrt(r2);
  const float z = std::sqrt(std::max(0.0f, 1.0f - r2));
  return t1 * (r * std::cos(phi)) + t2 * (r * std::sin(phi)) + n * z;
}

// Light arriving at p from a rectangular emitter on a room face, with `rays` shadow rays.
Color emitterIrradiance(const Scene& scene, const FaceRect& rect, HitKind kind,
                        const Color& radiance, const Vector& p, const Vector& n, int rays,
                        Rng& rng) {
  const int axis = rect.face >> 1;
  const float inward = rect.face & 1 ? 1.0f : -1.0f;  // emitter faces against this sign
  const float coord = scene.faceCoord(rect.face);
  const Vector origin = p + n * kRayOffset;
  const int cols = rays >= 4 ? 2 : rays;
  const int rows = rays / cols;
  float sum = 0;
  for (int i = 0; i < rays; ++i) {
    // Stratified over a cols x rows grid of the rectangle.
    const float sx = (static_cast<float>(i % cols) + rng.uniform()) / static_cast<float>(cols);
    const float sy = (static_cast<float>(i / cols) + rng.uniform()) / static_cast<float>(rows);
    const Vector q = rect.pointAt(sx, sy, coord);
    const Vector w = q - origin;
    const float dist2 = dot(w, w);
    const Vector dir = w * (1.0f / std::sqrt(dist2));
    const float cosP = dot(n, dir);
    const float cosL = dir[axis] * inward;
    if (cosP <= 0.0f || cosL <= 0.0f) continue;
    if (scene.trace(origin, dir).kind != kind) continue;
    sum += cosP * cosL / std::max(dist2, 0.05f);
  }
  return radiance * (sum * rect.area() / static_cast<float>(rays));
}

}  // namespace

Frame makeFrame(const Params& p) {
  Frame f;
  f.eye = p.view.eye;
  f.forward = LUtils::normalizeNewton(p.view.target - p.view.eye);
  f.right = LUtils::normalizeNewton(cross(f.forward, p.view.up));
  f.up = LUtils::normalizeNewton(cross(f.right, f.forward));
  f.tanX = std::tan(p.view.fovX * 0.5f);
  f.tanY = f.tanX * static_cast<float>(p.imageHeight) / static_cast<float>(p.imageWidth);
  return f;
}

float harmonicDistance(const Scene& scene, const Vector& p, const Vector& n, Rng& rng) {
  float inverseSum = 0;
  const Vector origin = p + n * kRayOffset;
  for (int i = 0; i < kHemisphereRays; ++i) {
    const float r1 = rng.uniform();
    const float r2 = (static_cast<float>(i) + rng.uniform()) / kHemisphereRays;
    const Hit h = scene.trace(origin, cosineDirection(n, r1, r2));
    const float d = h.kind == HitKind::kSky || h.kind == HitKind::kNone ? kEscapeDistance
                                                                        : std::max(h.t, kRayOffset);
    inverseSum += 1.0f / d;
  }
  return kHemisphereRays / inverseSum;
}

Lighting lightingAt(const Scene& scene, const Vector& p, const Vector& n, float harmonic,
                    Rng& rng) {
  Lighting l;
  l.bounce = kBounce * (0.3f + 0.7f * harmonic / (harmonic + 0.4f));
  l.light = emitterIrradiance(scene, scene.light(), HitKind::kLight, kLightRadiance, p, n, 4, rng);
  l.sky = emitterIrradiance(scene, scene.window(), HitKind::kSky, kSkyRadiance, p, n, 2, rng);
  return l;
}

}  // namespace synth::detail
