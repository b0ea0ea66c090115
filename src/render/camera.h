// The viewer's camera: an abstract camera interface and the pinhole camera with an optional thin
// lens that the rasterizers, sample drawing and navigation share. It also generates primary rays
// with differentials for renderer-side code.
#pragma once

#include <cstdint>

#include "io/vector.h"

struct IrradianceMapHeader;

namespace LUtils {

// A point in double precision (the camera position).
struct DVector {
  double x = 0.0, y = 0.0, z = 0.0;
};

// A primary ray: origin in double precision, unit direction.
struct ScreenRay {
  DVector origin;
  Vector direction;
};

// Derivatives of a ray with respect to one pixel step in x and in y.
struct RayDifferentials {
  Vector originDx, originDy;
  Vector directionDx, directionDy;
};

// One entry of a batch for getScreenRays: image point and lens sample in, ray out.
struct ScreenRayRequest {
  float x = 0.0f, y = 0.0f;
  float lensU = 0.0f, lensV = 0.0f;
  ScreenRay ray;
};

// The longer form of ray generation: besides the ray and its differentials it reports where on
// the (scaled, stretched) aperture the ray starts and how far along it the plane in focus lies.
struct ScreenRayExt {
  float x = 0.0f, y = 0.0f;
  float lensU = 0.0f, lensV = 0.0f;
  ScreenRay ray;
  RayDifferentials differentials;
  float lensX = 0.0f, lensY = 0.0f;
  float focusDistance = 0.0f;  // along the ray to the plane in focus
};

// The abstract camera. The order of the virtual operations is part of the interface. Cameras are
// owned and destroyed through their concrete type.
class Camera {
 public:
  // Image point (x, y) in pixels and a lens sample in [0, 1)^2; fills the ray and, when
  // `differentials` is not null, its differentials.
  virtual bool getScreenRay(float x, float y, float lensU, float lensV, ScreenRay& ray,
                            RayDifferentials* differentials) const = 0;                 // 0
  // Calls getScreenRay for every request; `differentials`, when given, has `count` entries.
  virtual bool getScreenRays(ScreenRayRequest* requests, uint32_t count,
                             RayDifferentials* differentials) const = 0;                // 1
  virtual bool getScreenRayExt(ScreenRayExt& request) const = 0;                        // 2
  virtual void reserved3() {}                                                           // 3
  virtual void lookAt(const Vector& eye, const Vector& target, const Vector& up) = 0;   // 4
  virtual void setFrame(const Vector& position, const Vector& forward, const Vector& up,
                        const Vector& right) = 0;                                       // 5
  virtual void setLens(bool flag, float a, float b) = 0;                                // 6
  // Distance of p along the view direction.
  virtual float getDepth(const Vector& p) const = 0;                                    // 7
  // Screen x and y in pixels (y downward) and 1 / depth; a point behind the camera gives a
  // negative third value, one in the camera plane non-finite values.
  virtual Vector project(const Vector& p) const = 0;                                    // 8
  // The eye, the unit axes and the horizontal field of view (radians) that the rasterizers draw
  // with; false for a camera without a single such frame.
  virtual bool drawingFrame(Vector& eye, Vector& right, Vector& up, Vector& forward,
                            float& fieldOfView) const {
    (void)eye, (void)right, (void)up, (void)forward, (void)fieldOfView;
    return false;
  }

 protected:
  ~Camera() = default;
};

// A pinhole camera with an optional thin lens. The fields are public: navigation and the
// rasterizers read and set them directly.
class PinholeCamera final : public Camera {
 public:
  DVector position;
  Vector right{1.0f, 0.0f, 0.0f};
  Vector up{0.0f, 1.0f, 0.0f};
  Vector forward{0.0f, 0.0f, -1.0f};
  // Stored by setLens for renderer-side callers; ray generation does not read them.
  bool lensFlag = false;
  float lensA = 0.0f, lensB = 0.0f;
  float fieldOfView = 0.78539819f;  // horizontal, radians
  float pixelSizeX = 0.0f;          // world units per pixel at unit distance
  float pixelSizeY = 0.0f;          // negative: image rows grow downward
  float imageWidth = 800.0f, imageHeight = 600.0f;
  float aperture = 0.0f;  // lens radius; 0 is a pinhole
  float focalDistance = 1.0f;
  // Shapes the radial distribution of lens samples: the distance from the aperture centre is
  // sqrt(lensV ^ apertureParameter), so 1 is uniform over the aperture, larger values gather
  // samples towards the centre.
  float apertureParameter = 1.0f;
  int32_t bladesOn = 0;
  int32_t bladeCount = 6;
  float bladeRotation = 0.0f;
  float anisotropy = 0.0f;

  PinholeCamera() { setImage(imageWidth, imageHeight, fieldOfView); }

  bool getScreenRay(float x, float y, float lensU, float lensV, ScreenRay& ray,
                    RayDifferentials* differentials) const override;
  bool getScreenRays(ScreenRayRequest* requests, uint32_t count,
                     RayDifferentials* differentials) const override;
  bool getScreenRayExt(ScreenRayExt& request) const override;
  void lookAt(const Vector& eye, const Vector& target, const Vector& upHint) override;
  void setFrame(const Vector& pos, const Vector& fwd, const Vector& upAxis,
                const Vector& rightAxis) override;
  void setLens(bool flag, float a, float b) override;
  float getDepth(const Vector& p) const override;
  Vector project(const Vector& p) const override;
  bool drawingFrame(Vector& eye, Vector& rightAxis, Vector& upAxis, Vector& forwardAxis,
                    float& fov) const override {
    eye = positionF();
    rightAxis = right;
    upAxis = up;
    forwardAxis = forward;
    fov = fieldOfView;
    return true;
  }

  // Image size and horizontal field of view, with the matching pixel sizes:
  // pixel size x = 2 tan(fov / 2) (width / height) / width, pixel size y = -pixel size x.
  void setImage(float width, float height, float fov);

  Vector positionF() const {
    return {static_cast<float>(position.x), static_cast<float>(position.y),
            static_cast<float>(position.z)};
  }

  // The point on the aperture (before the eye offset) for a lens sample, scaled by the aperture
  // and stretched by the anisotropy.
  void lensPoint(float lensU, float lensV, float& lx, float& ly) const;
};

// The view an irradiance map was rendered from, as its settings block stores it: a position, a
// frame whose third axis points backwards, a horizontal field of view and an orbit distance.
struct StoredView {
  DVector position;
  Vector axes[3];
  float fieldOfView = 0.0f;
  float orbitDistance = 0.0f;
};

// The camera "From file": sets `camera` to the stored view for an image of width x height
// pixels. When the stored orbit distance is not above 1e-6 the focal distance is the distance
// from the stored position to `orbitCentre`. Returns the focal distance used (the viewer puts
// its orbit centre at position + forward x that distance).
float setCameraFromStoredView(PinholeCamera& camera, const StoredView& view, float width,
                              float height, const Vector& orbitCentre);

// The stored view of a settings block: the axes are the rows of its rotation, the orbit distance
// its target distance. Meaningful only when the block says it has a camera.
StoredView storedViewOf(const IrradianceMapHeader& header);

}  // namespace LUtils
