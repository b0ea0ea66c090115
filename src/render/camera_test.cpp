#include "render/camera.h"

#include <gtest/gtest.h>

#include <cmath>

#include "irradiance/irradiance_map_header.h"

namespace LUtils {
namespace {

void expectNear(const Vector& a, const Vector& b, float tolerance = 1e-6f) {
  EXPECT_NEAR(a.x, b.x, tolerance);
  EXPECT_NEAR(a.y, b.y, tolerance);
  EXPECT_NEAR(a.z, b.z, tolerance);
}

TEST(Camera, LookAtBuildsRightHandedFrame) {
  PinholeCamera camera;
  // Eye on +z looking at the origin with y up: forward -z, right +x, up +y.
  camera.lookAt({0, 0, 5}, {0, 0, 0}, {0, 1, 0});
  EXPECT_EQ(camera.position.z, 5.0);
  expectNear(camera.forward, {0, 0, -1});
  expectNear(camera.right, {1, 0, 0});
  expectNear(camera.up, {0, 1, 0});

  // An oblique view with a tilted up hint: the stored up is re-orthogonalised.
  camera.lookAt({1, 2, 3}, {1, 2 + 3, 3 + 4}, {0, 0, 1});
  expectNear(camera.forward, {0, 0.6f, 0.8f});
  expectNear(camera.right, {1, 0, 0});      // forward x (0,0,1) = (0.6, 0, 0) normalised
  expectNear(camera.up, {0, -0.8f, 0.6f});  // right x forward

  // Looking along the up hint leaves no right axis.
  camera.lookAt({0, 0, 0}, {0, 5, 0}, {0, 1, 0});
  EXPECT_FALSE(std::isfinite(camera.right.x));
}

TEST(Camera, ProjectAndDepthMatchHandValues) {
  PinholeCamera camera;
  camera.setImage(800, 600, 1.5707964f);  // 90 degrees: pixel size x = 2 * 1 * (4/3) / 800
  EXPECT_FLOAT_EQ(camera.pixelSizeX, 2.0f * (800.0f / 600.0f) / 800.0f);
  EXPECT_FLOAT_EQ(camera.pixelSizeY, -camera.pixelSizeX);
  camera.lookAt({0, 0, 10}, {0, 0, 0}, {0, 1, 0});

  EXPECT_FLOAT_EQ(camera.getDepth({3, -2, 4}), 6.0f);
  EXPECT_FLOAT_EQ(camera.getDepth({0, 0, 12}), -2.0f);

  // (1, 1, 8): camera coordinates (1, 1, 2); pixel size 1/300.
  const Vector p = camera.project({1, 1, 8});
  EXPECT_NEAR(p.x, 550.0f, 1e-2f);
  EXPECT_NEAR(p.y, 150.0f, 1e-2f);  // rows grow downward
  EXPECT_FLOAT_EQ(p.z, 0.5f);

  // Behind the camera: negative inverse depth; in the camera plane: division by zero.
  EXPECT_LT(camera.project({0, 0, 11}).z, 0.0f);
  EXPECT_FALSE(std::isfinite(camera.project({1, 0, 10}).x));
}

TEST(Camera, RaysAndDifferentialsMatchFiniteDifferencesSinglyAndInBatches) {
  PinholeCamera camera;
  camera.setImage(640, 480, 1.0f);
  camera.lookAt({1, 2, 3}, {4, -1, 7}, {0, 0, 1});
  ScreenRay centre;
  RayDifferentials diff;
  ASSERT_TRUE(camera.getScreenRay(320, 240, 0.3f, 0.7f, centre, &diff));
  expectNear(centre.direction, camera.forward);
  EXPECT_DOUBLE_EQ(centre.origin.x, 1.0);  // a pinhole: every ray starts at the eye
  expectNear(diff.originDx, {});
  expectNear(diff.originDy, {});

  for (const auto& [x, y] : {std::pair{320.0f, 240.0f}, {10.0f, 470.0f}, {600.0f, 33.0f}}) {
    ScreenRay r, rx, ry;
    RayDifferentials d;
    ASSERT_TRUE(camera.getScreenRay(x, y, 0, 0, r, &d));
    ASSERT_TRUE(camera.getScreenRay(x + 0.01f, y, 0, 0, rx, nullptr));
    ASSERT_TRUE(camera.getScreenRay(x, y + 0.01f, 0, 0, ry, nullptr));
    expectNear(d.directionDx, (rx.direction - r.direction) / 0.01f, 2e-5f);
    expectNear(d.directionDy, (ry.direction - r.direction) / 0.01f, 2e-5f);
    EXPECT_NEAR(length(r.direction), 1.0f, 1e-6f);
  }
  // A step right moves the ray right, a step down moves it down.
  EXPECT_GT(dot(diff.directionDx, camera.right), 0.0f);
  EXPECT_LT(dot(diff.directionDy, camera.up), 0.0f);

  // A batch gives each request the single call's ray and fails when any ray fails.
  ScreenRayRequest requests[2];
  requests[0].x = 10;
  requests[1].x = 700;
  RayDifferentials diffs[2];
  EXPECT_TRUE(camera.getScreenRays(requests, 2, diffs));
  ScreenRay single;
  camera.getScreenRay(700, 0, 0, 0, single, &diff);
  expectNear(requests[1].ray.direction, single.direction);
  expectNear(diffs[1].directionDx, diff.directionDx);
  camera.focalDistance = 0.0f;  // no plane in focus: no direction
  EXPECT_FALSE(camera.getScreenRays(requests, 2, nullptr));
}

TEST(Camera, LensRaysConvergeOnTheFocalPlane) {
  PinholeCamera camera;
  camera.setImage(100, 100, 0.8f);
  camera.lookAt({0, 0, 0}, {0, 0, -1}, {0, 1, 0});
  camera.aperture = 0.5f;
  camera.focalDistance = 4.0f;
  for (int blades : {0, 1}) {
    camera.bladesOn = blades;
    camera.bladeCount = 5;
    camera.bladeRotation = 0.3f;
    for (float u : {0.1f, 0.45f, 0.9f}) {
      ScreenRayExt r;
      r.x = 30;
      r.y = 70;
      r.lensU = u;
      r.lensV = 0.8f;
      ASSERT_TRUE(camera.getScreenRayExt(r));
      // The lens point lies within the aperture, the ray starts there.
      EXPECT_LE(std::hypot(r.lensX, r.lensY), 0.5f * std::sqrt(0.8f) + 1e-6f);
      EXPECT_NEAR(r.ray.origin.x, r.lensX, 1e-6);
      // Every lens point reaches the same point of the plane in focus (z = -4).
      const float t = 4.0f / -r.ray.direction.z;
      EXPECT_NEAR(r.ray.origin.x + t * r.ray.direction.x, (30 - 50) * camera.pixelSizeX * 4, 1e-4);
      EXPECT_NEAR(r.ray.origin.y + t * r.ray.direction.y, (70 - 50) * camera.pixelSizeY * 4, 1e-4);
      EXPECT_NEAR(r.focusDistance, t, 1e-4f);
    }
  }
  // Anisotropy stretches the aperture: positive widens x, negative narrows it.
  camera.bladesOn = 0;
  float lx0, ly0, lx1, ly1;
  camera.lensPoint(0.0f, 1.0f, lx0, ly0);  // (0.5, 0)
  camera.anisotropy = 0.5f;
  camera.lensPoint(0.0f, 1.0f, lx1, ly1);
  EXPECT_NEAR(lx1, 2.0f * lx0, 1e-6f);
  camera.anisotropy = -0.5f;
  camera.lensPoint(0.0f, 1.0f, lx1, ly1);
  EXPECT_NEAR(lx1, 0.5f * lx0, 1e-6f);
}

TEST(Camera, FromFileUsesStoredFrameAndOrbitDistance) {
  IrradianceMapHeader header;
  header.cameraFlags = IrradianceMapHeader::kCameraPresent;
  const float rotation[9] = {0, 0, -1, 0, 1, 0, 1, 0, 0};  // right -z, up +y, back +x
  std::copy(rotation, rotation + 9, header.cameraRotation);
  header.cameraPosition[0] = 7.0;
  header.cameraFov = 1.2f;
  header.cameraTarget = 0.0f;  // no stored orbit distance

  // Lens settings of an earlier view are reset to a pinhole.
  PinholeCamera camera;
  camera.aperture = 3.0f;
  camera.bladesOn = 1;
  camera.bladeCount = 3;
  camera.anisotropy = 0.5f;
  const float distance =
      setCameraFromStoredView(camera, storedViewOf(header), 800, 600, {1, 0, 0});
  EXPECT_FLOAT_EQ(distance, 6.0f);
  expectNear(camera.forward, {-1, 0, 0});
  expectNear(camera.right, {0, 0, -1});
  EXPECT_DOUBLE_EQ(camera.position.x, 7.0);
  EXPECT_FLOAT_EQ(camera.pixelSizeX, 2.0f * std::tan(0.6f) * (800.0f / 600.0f) / 800.0f);
  EXPECT_EQ(camera.aperture, 0.0f);
  EXPECT_EQ(camera.bladesOn, 0);
  EXPECT_EQ(camera.bladeCount, 6);
  EXPECT_EQ(camera.anisotropy, 0.0f);
  EXPECT_EQ(camera.focalDistance, 6.0f);

  header.cameraTarget = 2.5f;
  EXPECT_FLOAT_EQ(setCameraFromStoredView(camera, storedViewOf(header), 400, 400, {1, 0, 0}), 2.5f);
}

}  // namespace
}  // namespace LUtils
