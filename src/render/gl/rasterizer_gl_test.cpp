#include "render/gl/rasterizer_gl.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "render/camera.h"
#include "render/disc_scene.h"
#include "render/gl/gl_test_support.h"

namespace LUtils {
namespace {

using testing::RecordingSelection;

constexpr int kSize = 200;

// Camera on +z looking at the origin; far 100, so the near plane is at 0.1.
class GLPick : public ::testing::Test {
 protected:
  void SetUp() override {
    CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl_, kSize, kSize);
    camera_.setImage(kSize, kSize, 0.9f);
    camera_.lookAt({0, 0, 10}, {0, 0, 0}, {0, 1, 0});
    gl_.setCamera(&camera_);
    gl_.setFarDistance(100.0f);
    gl_.setClearColor({0, 0, 0});
    gl_.beginFrame();
  }

  void quad(uint32_t name, float x0, float y0, float x1, float y1, float z) {
    const Vector points[4] = {{x0, y0, z}, {x1, y0, z}, {x1, y1, z}, {x0, y1, z}};
    gl_.loadPickName(name);
    gl_.drawQuadOrPolygon(points, 4, {1, 1, 1});
  }

  // Names 10, 11, 12 are stacked over the centre at distances 10, 10.5 and 15; 13 is off to
  // the right (outside a small rectangle around the centre).
  void drawLayout() {
    quad(12, -3, -3, 3, 3, -5.0f);
    quad(10, -1, -1, 1, 1, 0.0f);
    quad(11, -1.5f, -1.5f, 1.5f, 1.5f, -0.5f);
    quad(13, 3, -0.5f, 4, 0.5f, 0.0f);
  }

  RasterizerGL gl_;
  PinholeCamera camera_;
};

// One pick of the layout: the rectangle and depth given to beginSelection and what every end of
// it reports. Each case ends the pick twice (the second walks the stored records again) and
// once more with a callback that declines at start and gets nothing more.
struct PickCase {
  const char* what;
  int x0, y0, x1, y1;
  float depth;
  bool wantNearest;
  int count;
  int nearestCalls;  // the nearest is always name 10, after all `count` records are examined
  std::vector<uint32_t> hits;  // sorted
};

TEST_F(GLPick, EachPickModeReportsItsRecords) {
  // Window depths: 0.99099 at distance 10, 0.99147 at 10.5, 0.99433 at 15.
  const PickCase cases[] = {
      {"single point: only the nearest record", 100, 100, 100, 100, 1e-6f, true, 3, 1, {10}},
      {"rectangle: records within the depth tolerance", 90, 90, 110, 110, 0.001f, true, 3, 1,
       {10, 11}},
      // Right to left and bottom to top: the pick size is clamped to one pixel, centred between.
      {"all depths, nearest declined", 110, 110, 90, 90, -1.0f, false, 3, 0, {10, 11, 12}},
      // Also the side quad; the nearest is the first of the two at distance 10.
      {"all depths, wide", 20, 60, 190, 140, -1.0f, true, 4, 1, {10, 11, 12, 13}},
      {"nothing under the pick", 5, 5, 5, 5, 1e-6f, true, 0, 0, {}},
  };
  for (const PickCase& c : cases) {
    SCOPED_TRACE(c.what);
    gl_.beginFrame();
    ASSERT_TRUE(gl_.beginSelection(c.x0, c.y0, c.x1, c.y1, c.depth));
    drawLayout();
    for (int end = 0; end < 2; ++end) {
      RecordingSelection cb;
      cb.nearestAnswer = c.wantNearest;
      EXPECT_EQ(gl_.endSelection(cb), c.count);
      EXPECT_EQ(cb.starts, c.count != 0 ? 1 : 0);
      EXPECT_EQ(cb.nearestCalls, c.nearestCalls);
      if (cb.nearestCalls != 0) {
        EXPECT_EQ(cb.nearestName, 10u);
        EXPECT_EQ(cb.recordsExamined, static_cast<uint32_t>(c.count));
      }
      std::sort(cb.hits.begin(), cb.hits.end());
      EXPECT_EQ(cb.hits, c.hits);
    }
    RecordingSelection declining;
    declining.startAnswer = false;
    EXPECT_EQ(gl_.endSelection(declining), c.count);
    EXPECT_EQ(declining.nearestCalls, 0);
    EXPECT_TRUE(declining.hits.empty());
  }
}

TEST_F(GLPick, OverflowedBufferReportsOnlyTheNearest) {
  // Each record takes four entries: 300,000 named quads overflow the 1,048,576 entries.
  auto drawMany = [&] {
    for (uint32_t i = 0; i < 300000; ++i) quad(1000 + i, -1, -1, 1, 1, -static_cast<float>(i % 7));
  };
  ASSERT_TRUE(gl_.beginSelection(98, 98, 102, 102, -1.0f));
  drawMany();
  RecordingSelection allDepths;
  EXPECT_EQ(gl_.endSelection(allDepths), -1);
  EXPECT_EQ(allDepths.starts, 1);
  EXPECT_EQ(allDepths.nearestCalls, 1);
  EXPECT_TRUE(allDepths.hits.empty());

  gl_.beginFrame();
  ASSERT_TRUE(gl_.beginSelection(100, 100, 100, 100, 0.5f));
  drawMany();
  RecordingSelection single;
  EXPECT_EQ(gl_.endSelection(single), -1);
  EXPECT_EQ(single.nearestName, 1000u);  // distance 10, first of its depth
  EXPECT_EQ(single.hits, std::vector<uint32_t>{1000});
}

TEST_F(GLPick, PickingFrameRestoresTheViewport) {
  ASSERT_TRUE(gl_.beginSelection(10, 20, 50, 40, 0.0f));
  GLint viewport[4];
  glGetIntegerv(GL_VIEWPORT, viewport);
  EXPECT_EQ(viewport[2], 40);
  EXPECT_EQ(viewport[3], 20);
  DummySelectionCb dummy;
  EXPECT_EQ(gl_.endSelection(dummy), 0);
  glGetIntegerv(GL_VIEWPORT, viewport);
  EXPECT_EQ(viewport[2], kSize);
  EXPECT_EQ(viewport[3], kSize);
  EXPECT_EQ(gl_.selectBuffer(), nullptr);  // no select pass, no buffer
}

TEST_F(GLPick, FillModeCacheStartsUnset) {
  // The context starts in fill mode; a first setFillMode(0) must reach GL, and setFillMode(1)
  // then too, even though fill is the default.
  glPolygonMode(GL_FRONT_AND_BACK, GL_LINE);
  gl_.setFillMode(1);
  GLint mode[2];
  glGetIntegerv(GL_POLYGON_MODE, mode);
  EXPECT_EQ(mode[0], GL_FILL);
  gl_.setFillMode(0);
  glGetIntegerv(GL_POLYGON_MODE, mode);
  EXPECT_EQ(mode[0], GL_LINE);
  glPolygonMode(GL_FRONT_AND_BACK, GL_FILL);
  gl_.setFillMode(0);  // cached: no call
  glGetIntegerv(GL_POLYGON_MODE, mode);
  EXPECT_EQ(mode[0], GL_FILL);
}

TEST_F(GLPick, PrimitiveCountsAndPackedColours) {
  const Vector points[5] = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}, {-1.2f, 0, 0}};
  gl_.drawPolygon(points, 2, {1, 0, 0});       // fewer than 3 points: nothing
  gl_.drawPolygonRGBA(points, 2, 0xFF0000FFu);  // likewise
  std::vector<uint32_t> pixels;
  int w = 0, h = 0;
  ASSERT_TRUE(gl_.readPixels(pixels, w, h));
  EXPECT_EQ(pixels[100 * kSize + 100] & 0xFFFFFFu, 0u);

  gl_.drawPolygonRGBA(points, 4, 0x00563412u);  // bytes R 0x12, G 0x34, B 0x56
  ASSERT_TRUE(gl_.readPixels(pixels, w, h));
  EXPECT_EQ(pixels[100 * kSize + 100] & 0xFFFFFFu, 0x563412u);

  gl_.drawQuadOrPolygon(points, 5, {0, 1, 0});  // five points: a fan
  ASSERT_TRUE(gl_.readPixels(pixels, w, h));
  EXPECT_EQ(pixels[100 * kSize + 100] & 0xFFFFFFu, 0x00FF00u);
}

// Discs that cover no pixel centre are not sent to OpenGL, nor the triangles of a small disc's
// fan that cover none. On a dense room of small discs, where many fall between pixel centres,
// frames and picking frames (a rectangle of the window) come out pixel for pixel as when every
// disc is drawn whole: quads and fans, colours and index colours.
TEST(GLPolygonsBetweenPixels, AreSkippedWithoutChangingAPixel) {
  constexpr int kWidth = 200, kHeight = 150;
  RasterizerGL gl;
  CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, kWidth, kHeight);
  PinholeCamera camera;
  lookIntoRoom(camera, kWidth, kHeight);
  gl.setCamera(&camera);
  gl.setFarDistance(50.0f);
  gl.setClearColor({1, 1, 1});
  const std::vector<Disc> room = makeRoomScene(60000, 1, 0.3f);
  for (const int sides : {4, 6}) {
    for (const bool indexColours : {false, true}) {
      const auto picture = [&](bool skip, bool pick) {
        gl.setSkipsPolygonsBetweenPixels(skip);
        gl.beginFrame();
        gl.setFillMode(1);
        if (pick) gl.beginSelection(37, 20, 161, 97, 0.0f);
        drawDiscs(gl, room.data(), room.size(), sides, indexColours);
        std::vector<uint32_t> pixels;
        if (pick) {
          gl.readPickIndices(37, 20, 161, 97, pixels);
          DummySelectionCb done;
          gl.endSelection(done);
        } else {
          int w = 0, h = 0;
          gl.readPixels(pixels, w, h);
        }
        return pixels;
      };
      for (const bool pick : {false, true}) {
        const uint64_t before = gl.skippedPolygons();
        const uint64_t trianglesBefore = gl.skippedTriangles();
        const std::vector<uint32_t> skipping = picture(true, pick);
        EXPECT_GT(gl.skippedPolygons() - before, room.size() / 10) << sides << " sides";
        // Of the 4 triangles of each hexagon, over one in eight is left out.
        if (sides == 6) {
          EXPECT_GT(gl.skippedTriangles() - trianglesBefore, room.size() / 2);
        }
        EXPECT_EQ(skipping, picture(false, pick))
            << sides << " sides, index colours " << indexColours << ", pick " << pick;
      }
    }
  }
}

}  // namespace
}  // namespace LUtils
