#include "render/view_projection.h"

#include <algorithm>
#include <cmath>

#include "render/camera.h"

namespace LUtils {

CameraFrame cameraFrame(const Camera* camera) {
  CameraFrame frame;
  if (camera == nullptr) return frame;
  CameraFrame f;
  if (!camera->drawingFrame(f.eye, f.right, f.up, f.forward, f.fieldOfView)) return frame;
  f.valid = true;
  return f;
}

double verticalFovDegrees(float horizontalFov, int width, int height) {
  const double w = width > 0 ? width : 1;
  const double h = height > 0 ? height : 1;
  return static_cast<double>(horizontalFov) * h / w * 180.0 / 3.1415927;
}

Matrix4 Matrix4::operator*(const Matrix4& o) const {
  Matrix4 r;
  for (int col = 0; col < 4; ++col) {
    for (int row = 0; row < 4; ++row) {
      double sum = 0.0;
      for (int k = 0; k < 4; ++k) sum += m[k * 4 + row] * o.m[col * 4 + k];
      r.m[col * 4 + row] = sum;
    }
  }
  return r;
}

Matrix4 perspectiveMatrix(double fovyDegrees, double aspect, double zNear, double zFar) {
  const double radians = fovyDegrees / 2.0 * 3.14159265358979323846 / 180.0;
  const double cotangent = std::cos(radians) / std::sin(radians);
  const double depth = zFar - zNear;
  Matrix4 p;
  p.m[0] = cotangent / aspect;
  p.m[5] = cotangent;
  p.m[10] = -(zFar + zNear) / depth;
  p.m[11] = -1.0;
  p.m[14] = -2.0 * zNear * zFar / depth;
  p.m[15] = 0.0;
  return p;
}

Matrix4 lookAtMatrix(const Vector& eye, const Vector& centre, const Vector& up) {
  // Single precision like GLU: side = normalise(forward x up), up' = side x forward.
  Vector forward = centre - eye;
  forward = forward / std::sqrt(dot(forward, forward));
  Vector side = cross(forward, up);
  side = side / std::sqrt(dot(side, side));
  const Vector u = cross(side, forward);
  Matrix4 r;
  r.m[0] = side.x;
  r.m[4] = side.y;
  r.m[8] = side.z;
  r.m[1] = u.x;
  r.m[5] = u.y;
  r.m[9] = u.z;
  r.m[2] = -forward.x;
  r.m[6] = -forward.y;
  r.m[10] = -forward.z;
  Matrix4 t;
  t.m[12] = -static_cast<double>(eye.x);
  t.m[13] = -static_cast<double>(eye.y);
  t.m[14] = -static_cast<double>(eye.z);
  return r * t;
}

Matrix4 viewProjection(const CameraFrame& frame, int width, int height, float farDistance) {
  const double w = width > 0 ? width : 1;
  const double h = height > 0 ? height : 1;
  const double farPlane = farDistance;
  const Matrix4 projection =
      perspectiveMatrix(verticalFovDegrees(frame.fieldOfView, width, height), w / h,
                        static_cast<double>(farDistance * 0.001f), farPlane);
  if (!frame.valid) return projection;
  return projection * lookAtMatrix(frame.eye, frame.eye + frame.forward, frame.up);
}

void windowRowLengths(const double* m, double rowLength[4]) {
  for (int r = 0; r < 4; ++r) {
    rowLength[r] = std::sqrt(m[r] * m[r] + m[4 + r] * m[4 + r] + m[8 + r] * m[8 + r]);
  }
}

bool sphereWindowBox(const double* m, const double* rowLength, const Vector& centre, double radius,
                     WindowBox& box) {
  const double x = centre.x, y = centre.y, z = centre.z;
  const double wx = m[0] * x + m[4] * y + m[8] * z + m[12];
  const double wy = m[1] * x + m[5] * y + m[9] * z + m[13];
  const double cz = m[2] * x + m[6] * y + m[10] * z + m[14];
  const double cw = m[3] * x + m[7] * y + m[11] * z + m[15];
  const double r = radius;
  const double dz = rowLength[2] * r, dw = rowLength[3] * r;
  if (!(cw - dw > 1e-6) || !(r >= 0.0) || !(std::fabs(cz) + dz < 0.999 * (cw - dw))) return false;
  // Window x of a point of the sphere is (wx + a) / (cw + b) with |a| <= dx and |b| <= dw.
  const double dx = rowLength[0] * r, dy = rowLength[1] * r;
  const double near = 1.0 / (cw - dw), far = 1.0 / (cw + dw);
  box.loX = std::min((wx - dx) * near, (wx - dx) * far);
  box.hiX = std::max((wx + dx) * near, (wx + dx) * far);
  box.loY = std::min((wy - dy) * near, (wy - dy) * far);
  box.hiY = std::max((wy + dy) * near, (wy + dy) * far);
  return true;
}

}  // namespace LUtils
