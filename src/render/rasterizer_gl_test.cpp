#include "render/rasterizer_gl.h"

#include <GL/gl.h>
#include <gtest/gtest.h>

#include "render/camera.h"
#include "render/render_test_support.h"

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
    gl_.loadName(name);
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

TEST_F(GLPick, SinglePointReportsOnlyTheNearestRecord) {
  ASSERT_TRUE(gl_.beginSelection(100, 100, 100, 100, 1e-6f));
  drawLayout();
  RecordingSelection first;
  EXPECT_EQ(gl_.endSelection(first), 3);
  EXPECT_EQ(first.starts, 1);
  EXPECT_EQ(first.nearestCalls, 1);
  EXPECT_EQ(first.nearestName, 10u);
  EXPECT_EQ(first.recordsExamined, 3u);
  EXPECT_EQ(first.hits, std::vector<uint32_t>{10});

  // A second end walks the stored records again.
  RecordingSelection second;
  EXPECT_EQ(gl_.endSelection(second), 3);
  EXPECT_EQ(second.hits, std::vector<uint32_t>{10});

  // A callback that declines at start gets nothing more.
  RecordingSelection declining;
  declining.startAnswer = false;
  gl_.endSelection(declining);
  EXPECT_EQ(declining.nearestCalls, 0);
  EXPECT_TRUE(declining.hits.empty());
}

TEST_F(GLPick, RectangleKeepsRecordsWithinTheDepthTolerance) {
  // Window depths: 0.99099 at distance 10, 0.99147 at 10.5, 0.99433 at 15.
  ASSERT_TRUE(gl_.beginSelection(90, 90, 110, 110, 0.001f));
  drawLayout();
  RecordingSelection cb;
  EXPECT_EQ(gl_.endSelection(cb), 3);
  EXPECT_EQ(cb.nearestName, 10u);
  EXPECT_EQ(cb.hitSet(), (std::set<uint32_t>{10, 11}));

  RecordingSelection again;
  gl_.endSelection(again);
  EXPECT_EQ(again.hitSet(), (std::set<uint32_t>{10, 11}));
}

TEST_F(GLPick, AllDepthsReportsEveryRecord) {
  // Right to left and bottom to top: the pick size is clamped to one pixel, centred between.
  ASSERT_TRUE(gl_.beginSelection(110, 110, 90, 90, -1.0f));
  drawLayout();
  RecordingSelection declinesNearest;
  declinesNearest.nearestAnswer = false;
  EXPECT_EQ(gl_.endSelection(declinesNearest), 3);
  EXPECT_EQ(declinesNearest.nearestCalls, 0);
  EXPECT_EQ(declinesNearest.hitSet(), (std::set<uint32_t>{10, 11, 12}));

  // A wide rectangle reaches the side quad too; the nearest is asked for first when wanted.
  gl_.beginFrame();
  ASSERT_TRUE(gl_.beginSelection(20, 60, 190, 140, -1.0f));
  drawLayout();
  RecordingSelection cb;
  EXPECT_EQ(gl_.endSelection(cb), 4);
  EXPECT_EQ(cb.nearestCalls, 1);
  EXPECT_EQ(cb.nearestName, 10u);  // the first of the two at distance 10
  EXPECT_EQ(cb.hitSet(), (std::set<uint32_t>{10, 11, 12, 13}));
  RecordingSelection again;
  again.nearestAnswer = false;
  gl_.endSelection(again);
  EXPECT_EQ(again.hits.size(), 4u);
}

TEST_F(GLPick, NothingUnderThePickReportsNothing) {
  ASSERT_TRUE(gl_.beginSelection(5, 5, 5, 5, 1e-6f));
  drawLayout();
  RecordingSelection cb;
  EXPECT_EQ(gl_.endSelection(cb), 0);
  EXPECT_EQ(cb.starts, 0);
}

TEST_F(GLPick, OverflowedBufferReportsOnlyTheNearest) {
  // Each record takes four entries: 300,000 named quads overflow the 1,048,576 entries.
  ASSERT_TRUE(gl_.beginSelection(98, 98, 102, 102, -1.0f));
  for (uint32_t i = 0; i < 300000; ++i) quad(1000 + i, -1, -1, 1, 1, -static_cast<float>(i % 7));
  RecordingSelection allDepths;
  EXPECT_EQ(gl_.endSelection(allDepths), -1);
  EXPECT_EQ(allDepths.starts, 1);
  EXPECT_EQ(allDepths.nearestCalls, 1);
  EXPECT_TRUE(allDepths.hits.empty());

  gl_.beginFrame();
  ASSERT_TRUE(gl_.beginSelection(100, 100, 100, 100, 0.5f));
  for (uint32_t i = 0; i < 300000; ++i) quad(1000 + i, -1, -1, 1, 1, -static_cast<float>(i % 7));
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

}  // namespace
}  // namespace LUtils
