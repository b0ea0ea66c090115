// The view and projection that both back ends set up from the camera: a perspective whose
// vertical angle scales the camera's horizontal angle linearly with the viewport's aspect, and a
// look-at along the camera's forward axis. The software back end builds the same matrices that
// the OpenGL back end asks GLU for.
#pragma once

#include "io/vector.h"

namespace LUtils {

class Camera;

// The part of a camera that drawing needs. `valid` is false without a pinhole camera; the view
// then stays at the origin looking down -z.
struct CameraFrame {
  bool valid = false;
  Vector eye;
  Vector right{1.0f, 0.0f, 0.0f};
  Vector up{0.0f, 1.0f, 0.0f};
  Vector forward{0.0f, 0.0f, -1.0f};
  float fieldOfView = 0.78539819f;  // horizontal, radians
};

CameraFrame cameraFrame(const Camera* camera);

// Vertical field of view in degrees: horizontal angle x height / width x 180 / 3.1415927. The
// angle itself is scaled, not its tangent.
double verticalFovDegrees(float horizontalFov, int width, int height);

// Column-major 4x4 matrices, as OpenGL stores them.
struct Matrix4 {
  double m[16] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
  Matrix4 operator*(const Matrix4& o) const;
};

Matrix4 perspectiveMatrix(double fovyDegrees, double aspect, double zNear, double zFar);
Matrix4 lookAtMatrix(const Vector& eye, const Vector& centre, const Vector& up);

// Projection x look-at for a viewport of width x height and the given far distance (the near
// plane at 0.001 x far).
Matrix4 viewProjection(const CameraFrame& frame, int width, int height, float farDistance);

// The window box of a sphere under a window transform `m` (column-major: window x and y times w,
// clip z, clip w), given the lengths of its rows' linear parts: x in [loX, hiX], y in [loY, hiY].
// False when the sphere reaches within `radius` of the near or far plane or is not finite: then
// the box is unbounded and the caller lets the polygon decide.
struct WindowBox {
  double loX, hiX, loY, hiY;
};
bool sphereWindowBox(const double* m, const double* rowLength, const Vector& centre, double radius,
                     WindowBox& box);
// The lengths of the linear parts of m's four rows, as sphereWindowBox() takes them.
void windowRowLengths(const double* m, double rowLength[4]);

}  // namespace LUtils
