#include "viewer/navigation.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "render/view_projection.h"

namespace LUtils {
namespace {

void expectNear(const Vector& a, const Vector& b, float tolerance = 1e-5f) {
  EXPECT_NEAR(a.x, b.x, tolerance);
  EXPECT_NEAR(a.y, b.y, tolerance);
  EXPECT_NEAR(a.z, b.z, tolerance);
}

float distance(const Navigation& nav) {
  return length(nav.eye() - nav.orbitCentre());
}

MouseInput at(int x, int y) {
  MouseInput input;
  input.x = x;
  input.y = y;
  return input;
}

// A view looking obliquely at a box that does not contain the origin.
Navigation obliqueView() {
  Navigation nav;
  nav.setSceneBounds({-3, 1, 0}, {5, 2, 10});
  nav.reset();
  nav.orbit(37, -21);
  nav.pan(12, 5);
  return nav;
}

TEST(Navigation, MouseDrivesEveryDragModeAndZoomScalesByPowersOfTheBase) {
  Navigation nav = obliqueView();
  const Vector centre = nav.orbitCentre();
  const Vector forward = nav.camera().forward;
  const float start = distance(nav);

  // Zoom: 0.99^69 = 0.4998 moves halfway in, the same drag downward back out.
  EXPECT_EQ(nav.buttonDown(MouseButton::kRight, at(400, 300)), MouseResult::kNone);
  EXPECT_TRUE(nav.moving());
  EXPECT_EQ(nav.motion(at(400, 300)), MouseResult::kNone);
  EXPECT_EQ(distance(nav), start);
  EXPECT_EQ(nav.motion(at(410, 231)), MouseResult::kRepaint);
  EXPECT_NEAR(distance(nav) / start, 0.4998f, 1e-3f);
  expectNear(nav.camera().forward, forward);
  expectNear(nav.orbitCentre(), centre);
  EXPECT_EQ(nav.buttonDown(MouseButton::kLeft, at(410, 231)), MouseResult::kNone);  // ignored
  EXPECT_EQ(nav.dragMode(), DragMode::kZoom);
  nav.motion(at(410, 300));
  EXPECT_NEAR(distance(nav) / start, 1.0f, 1e-5f);
  nav.buttonUp(MouseButton::kRight, at(410, 300));
  EXPECT_EQ(nav.dragMode(), DragMode::kNone);

  // Pan: the scene follows the cursor, eye and centre move together by distance x 0.002 / pixel.
  const Vector eye = nav.eye();
  const Vector right = nav.camera().right;
  nav.buttonDown(MouseButton::kMiddle, at(100, 100));
  nav.motion(at(110, 100));
  nav.buttonUp(MouseButton::kMiddle, at(110, 100));
  const Vector shift = right * (-distance(nav) * 0.002f * 10.0f);
  expectNear(nav.eye(), eye + shift, 1e-4f);
  expectNear(nav.orbitCentre(), centre + shift, 1e-4f);

  // Left drags: orbit, Shift pans, Ctrl selects, Alt overrides Ctrl.
  MouseInput press = at(50, 60);
  nav.buttonDown(MouseButton::kLeft, press);
  EXPECT_EQ(nav.dragMode(), DragMode::kOrbit);
  nav.buttonUp(MouseButton::kLeft, press);
  press.shift = true;
  nav.buttonDown(MouseButton::kLeft, press);
  EXPECT_EQ(nav.dragMode(), DragMode::kPan);
  EXPECT_EQ(nav.wrapCursor({0, 500}, 1920, 1080), (Pixel{1915, 500}));
  nav.buttonUp(MouseButton::kLeft, press);
  press.ctrl = true;
  EXPECT_EQ(nav.buttonDown(MouseButton::kLeft, press), MouseResult::kStartRectangle);
  nav.buttonUp(MouseButton::kLeft, press);
  press.shift = false;
  EXPECT_EQ(nav.buttonDown(MouseButton::kLeft, press), MouseResult::kStartRectangleAfterClearing);
  EXPECT_EQ(nav.buttonDown(MouseButton::kMiddle, press), MouseResult::kNone);
  EXPECT_EQ(nav.motion(at(80, 90)), MouseResult::kDragRectangle);
  EXPECT_FALSE(nav.wrapCursor({0, 0}, 1920, 1080));  // a rubber band never jumps
  EXPECT_EQ(nav.dragStart(), (Pixel{50, 60}));
  EXPECT_EQ(nav.buttonUp(MouseButton::kLeft, at(80, 90)), MouseResult::kFinishRectangle);
  press.alt = true;
  nav.buttonDown(MouseButton::kLeft, press);
  EXPECT_EQ(nav.dragMode(), DragMode::kOrbit);
  nav.buttonUp(MouseButton::kLeft, press);

  // With the paint tool active a plain left drag paints wherever the cursor moves.
  nav.setSelectionTool(true, SelectionShape::kPaint);
  EXPECT_EQ(nav.buttonDown(MouseButton::kLeft, at(5, 6)), MouseResult::kStartPaint);
  EXPECT_FALSE(nav.moving());
  EXPECT_EQ(nav.motion(at(5, 6)), MouseResult::kNone);
  EXPECT_EQ(nav.motion(at(7, 6)), MouseResult::kPaint);
  nav.buttonUp(MouseButton::kLeft, at(7, 6));
  EXPECT_EQ(nav.dragMode(), DragMode::kNone);
}

TEST(Navigation, StandardViewsLookAtTheMiddleAndLookingAlongTheStoredUpFallsBack) {
  Navigation nav = obliqueView();
  const float start = distance(nav);
  const Vector middle{1.0f, 1.5f, 5.0f};

  nav.showView(StandardView::kLeft);
  expectNear(nav.camera().forward, {1, 0, 0}, 0.0f);
  expectNear(nav.orbitCentre(), middle, 0.0f);
  expectNear(nav.eye(), {middle.x - start, middle.y, middle.z}, 1e-5f);

  // Center after a pan keeps direction and distance; a fast dolly moves both by far / 10.
  nav.pan(40, -30);
  const Vector offset = nav.eye() - nav.orbitCentre();
  nav.center();
  expectNear(nav.orbitCentre(), middle, 0.0f);
  expectNear(nav.eye() - nav.orbitCentre(), offset, 1e-4f);
  nav.dolly(true, true);
  expectNear(nav.orbitCentre(), middle + Vector(nav.farDistance() / 10.0f, 0, 0), 1e-4f);

  // Top with Z up looks along the stored up: right = normalise(0, f.z, -f.y).
  nav.showView(StandardView::kTop);
  expectNear(nav.camera().forward, {0, 0, -1}, 0.0f);
  expectNear(nav.camera().right, {0, -1, 0}, 0.0f);
  expectNear(nav.camera().up, {1, 0, 0}, 0.0f);
  expectNear(nav.storedUp(), {1, 0, 0}, 0.0f);
  // Pitching from there onto the x axis, the new stored up, still leaves a usable frame.
  nav.orbit(0, 360);
  expectNear(nav.camera().forward, {-1, 0, 0});
  EXPECT_NEAR(length(nav.camera().right), 1.0f, 1e-6f);
  EXPECT_NEAR(length(nav.camera().up), 1.0f, 1e-6f);

  nav.setUpAxes(true, {0, 1, 0}, {0, 1, 0});
  nav.showView(StandardView::kBottom);
  expectNear(nav.camera().right, {0, 0, -1}, 0.0f);
  expectNear(nav.storedUp(), {1, 0, 0}, 0.0f);
}

TEST(Navigation, OrbitKeepsTheDistanceAndAWrappedDragMatchesAnUnwrappedOne) {
  Navigation nav = obliqueView();
  const Vector centre = nav.orbitCentre();
  const float start = distance(nav);
  std::mt19937 random(7);
  std::uniform_int_distribution<int> step(-60, 60);
  nav.buttonDown(MouseButton::kLeft, at(400, 300));
  int x = 400, y = 300;
  for (int i = 0; i < 500; ++i) {
    x += step(random);
    y += step(random);
    nav.motion(at(x, y));
    ASSERT_NEAR(distance(nav) / start, 1.0f, 1e-4f) << "drag " << i;
    ASSERT_NEAR(dot(nav.camera().right, nav.camera().forward), 0.0f, 1e-5f);
  }
  expectNear(nav.orbitCentre(), centre, 0.0f);
  EXPECT_EQ(nav.buttonUp(MouseButton::kLeft, at(x, y)), MouseResult::kNone);

  // Motions lost while the window was busy: the release still takes the camera to where the
  // drag ended.
  Navigation lost = obliqueView(), seen = obliqueView();
  lost.buttonDown(MouseButton::kLeft, at(100, 100));
  seen.buttonDown(MouseButton::kLeft, at(100, 100));
  seen.motion(at(160, 70));
  EXPECT_EQ(lost.buttonUp(MouseButton::kLeft, at(160, 70)), MouseResult::kRepaint);
  expectNear(lost.eye(), seen.eye(), 0.0f);

  // Window at the screen's origin, screen 200 x 150. Only the last step crosses the edges.
  Navigation wrapped = obliqueView(), straight = obliqueView();
  wrapped.buttonDown(MouseButton::kLeft, at(100, 100));
  straight.buttonDown(MouseButton::kLeft, at(100, 100));
  EXPECT_FALSE(wrapped.wrapCursor({195, 145}, 200, 150));  // on the margin is not beyond it
  for (const Pixel& p : {Pixel{190, 120}, Pixel{196, 146}}) {
    wrapped.motion(at(p.x, p.y));
    straight.motion(at(p.x, p.y));
  }
  EXPECT_EQ(wrapped.wrapCursor({196, 146}, 200, 150), (Pixel{5, 5}));
  EXPECT_EQ(wrapped.previousPosition(), (Pixel{5, 5}));
  wrapped.motion(at(30, 20));
  straight.motion(at(196 + 25, 146 + 15));
  expectNear(wrapped.eye(), straight.eye(), 0.0f);
  expectNear(wrapped.camera().up, straight.camera().up, 0.0f);
  EXPECT_EQ(wrapped.wrapCursor({4, 3}, 200, 150), (Pixel{195, 145}));
  EXPECT_EQ(wrapped.previousPosition(), (Pixel{30 + 191, 20 + 142}));
}

// Every corner of the box inside the image, both as the camera projects it and as drawn (the
// depth is left to the far plane, which a very tall canvas puts inside the box).
void expectBoxInView(const Navigation& nav, const Vector& min, const Vector& max) {
  const PinholeCamera& camera = nav.camera();
  const Matrix4 drawn = viewProjection(cameraFrame(&camera), nav.canvasWidth(), nav.canvasHeight(),
                                       nav.farDistance());
  for (int corner = 0; corner < 8; ++corner) {
    const Vector p{(corner & 1) ? max.x : min.x, (corner & 2) ? max.y : min.y,
                   (corner & 4) ? max.z : min.z};
    const Vector s = camera.project(p);
    EXPECT_GT(s.z, 0.0f);
    EXPECT_TRUE(s.x >= 0 && s.x <= camera.imageWidth && s.y >= 0 && s.y <= camera.imageHeight)
        << "corner " << corner << " at " << s.x << ", " << s.y;
    double clip[4];
    for (int row = 0; row < 4; ++row) {
      clip[row] =
          drawn.m[row] * p.x + drawn.m[4 + row] * p.y + drawn.m[8 + row] * p.z + drawn.m[12 + row];
    }
    for (int axis = 0; axis < 2; ++axis) {
      EXPECT_LE(std::abs(clip[axis]), clip[3]) << "corner " << corner << " axis " << axis;
    }
  }
}

TEST(Navigation, ResetShowsTheWholeBoxAndTheUpAxisToggleAlternates) {
  const Vector min{-3, 1, 0}, max{5, 2, 10};
  Navigation nav = obliqueView();
  EXPECT_STREQ(nav.upAxisMenuText().label, "Make the Y axis point up.\tu");

  const UpAxisMenuText& toY = nav.toggleUpAxis();
  EXPECT_STREQ(toY.label, "Make the Z axis point up.\tu");
  EXPECT_STREQ(toY.help, "Suitable for lumaps created in Autodesk 3ds Max.");
  expectNear(nav.worldUp(), {0, 1, 0}, 0.0f);
  expectNear(nav.camera().forward, {0, 0, -1}, 0.0f);
  expectBoxInView(nav, min, max);
  nav.setCanvasSize(300, 900);
  nav.reset();
  expectBoxInView(nav, min, max);
  nav.setCanvasSize(800, 600);

  const UpAxisMenuText& toZ = nav.toggleUpAxis();
  EXPECT_STREQ(toZ.label, "Make the Y axis point up.\tu");
  EXPECT_STREQ(toZ.help, "Suitable for lumaps created in Autodesk Maya.");
  expectNear(nav.storedUp(), {0, 0, 1}, 0.0f);
  expectNear(nav.camera().forward, {0, 1, 0}, 0.0f);
  expectBoxInView(nav, min, max);
  EXPECT_FLOAT_EQ(nav.farDistance(), 4.0f * length(max - min));

  // No stored view: the same as Reset. A stored one puts the centre at its orbit distance.
  const Vector resetEye = nav.eye();
  nav.orbit(10, 10);
  nav.fromFile(std::nullopt);
  expectNear(nav.eye(), resetEye, 0.0f);
  StoredView stored;
  stored.position = {1, 2, 3};
  stored.axes[0] = {1, 0, 0};
  stored.axes[1] = {0, 0, 1};
  stored.axes[2] = {0, -1, 0};  // looking along +y
  stored.fieldOfView = 0.6f;
  stored.orbitDistance = 5.0f;
  nav.fromFile(stored);
  expectNear(nav.orbitCentre(), {1, 7, 3}, 0.0f);
  nav.orbit(25, -40);
  EXPECT_NEAR(distance(nav), 5.0f, 1e-5f);

  // No samples: a finite view of the origin from distance 1.
  nav.setSceneBounds({1, 1, 1}, {-1, -1, -1});
  nav.reset();
  expectNear(nav.orbitCentre(), {0, 0, 0}, 0.0f);
  EXPECT_FLOAT_EQ(distance(nav), 1.0f);
  EXPECT_TRUE(std::isfinite(nav.camera().right.x) && std::isfinite(nav.camera().up.z));
}

}  // namespace
}  // namespace LUtils
