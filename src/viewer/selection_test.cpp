// Picking on a known layout: two stacked layers of discs seen from the front, picked off screen
// through OpenGL (every depth mode) and the software rasterizer (visible samples only), and the
// similar-normals rule and the drag rectangle's rules on their own.
#include "viewer/selection.h"

#include <gtest/gtest.h>

#include <random>
#include <set>

#include "irradiance/def_irradiance_map.h"
#include "render/camera.h"
#include "render/gl/gl_test_support.h"
#include "render/rasterizer_sw.h"
#include "synth/synth_room.h"

namespace LUtils {
namespace {

constexpr int kSize = 200;
constexpr uint32_t kPerLayer = 25;  // 5 x 5, the front layer first
// Across the middle row, its ends well inside discs 11 and 13 and clear of the rows above and
// below (discs are about 33 pixels wide, 21 apart).
constexpr PickRect kRect{80, 98, 120, 102};

// Front layer at z = 0, back layer at z = -1 right behind it; discs of radius 0.8 one unit
// apart, so that the front layer hides the back one wherever it is.
struct TwoLayers {
  DefIrradianceMap map;
  PinholeCamera camera;
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  TwoLayers() {
    for (float z : {0.0f, -1.0f}) {
      for (int j = 0; j < 5; ++j) {
        for (int i = 0; i < 5; ++i) {
          IrradSample s{};
          s.position = {static_cast<float>(i - 2), static_cast<float>(j - 2), z};
          s.normal = {0, 0, 1};
          s.packNormal();
          s.drawRadius2 = 16.0f;  // disc radius 0.2 x 4
          s.colour[0] = s.colour[1] = s.colour[2] = 64;
          s.exponent = 128;
          map.appendSample(s);
        }
      }
    }
    camera.setImage(kSize, kSize, 0.9f);
    camera.lookAt({0, 0, 10}, {0, 0, 0}, {0, 1, 0});
    edits.reset(2 * kPerLayer);
  }
  DrawScene scene() { return {{&map, nullptr}, &options, &edits, &view, nullptr, nullptr}; }

  std::set<uint32_t> pick(Rasterizer3D& r, int32_t mode, float depth = 1.0f) {
    r.setCamera(&camera);
    r.setFarDistance(100.0f);
    edits.clearSelection();
    SelectionSettings settings;
    settings.depthMode = mode;
    settings.specifiedDepth = depth;
    runSelection(r, scene(), edits, settings, kRect);
    std::set<uint32_t> picked;
    for (uint32_t i = 0; i < 2 * kPerLayer; ++i) {
      if (edits.selected(i)) picked.insert(i);
    }
    return picked;
  }
};

TEST(Selection, DepthModesOnTwoStackedLayers) {
  TwoLayers layers;
  RasterizerGL gl;
  CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, kSize, kSize);
  const std::set<uint32_t> visible = layers.pick(gl, kDepthVisible);
  EXPECT_EQ(visible, (std::set<uint32_t>{11, 12, 13}));
  const std::set<uint32_t> full = layers.pick(gl, kDepthFull);
  EXPECT_EQ(full, (std::set<uint32_t>{11, 12, 13, 36, 37, 38}));
  // The layers are about 9e-4 of the depth range apart: a depth of 1 (5e-5) keeps the front
  // one, a depth of 40 (2e-3) reaches the back one.
  EXPECT_EQ(layers.pick(gl, kDepthSpecified, 1.0f), visible);
  EXPECT_EQ(layers.pick(gl, kDepthSpecified, 40.0f), full);
  EXPECT_TRUE(layers.edits.hasSelection());

  // The software rasterizer picks visible samples only, whatever the mode, and sees the same.
  RasterizerSW sw;
  sw.resize(kSize, kSize);
  EXPECT_EQ(layers.pick(sw, kDepthVisible), visible);
  EXPECT_EQ(layers.pick(sw, kDepthFull), visible);

  // With compiled geometry the picks are the same, replayed from the cache.
  GeometryCache cache(layers.options, layers.edits);
  cache.setRasterizer(&gl);
  layers.options.setUseDisplayLists(true);
  DrawScene cached = layers.scene();
  cached.cache = &cache;
  SelectionSettings settings;
  for (int round = 0; round < 2; ++round) {
    layers.edits.clearSelection();
    settings.depthMode = round == 0 ? kDepthVisible : kDepthFull;
    runSelection(gl, cached, layers.edits, settings, kRect);
    EXPECT_EQ(layers.edits.selected(12 + kPerLayer), round == 1);
    EXPECT_TRUE(layers.edits.selected(12));
  }
  EXPECT_NE(cache.samples, 0u);
  EXPECT_NE(cache.picking, 0u);
}

// The synthesised room in an off-screen OpenGL context, with what a pick of it needs.
struct RoomToPick {
  static constexpr int kWidth = 320, kHeight = 240;
  SynthRoom room;
  RasterizerGL gl;
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  GeometryCache cache{options, edits};

  explicit RoomToPick(uint32_t samples) : room(samples, kWidth, kHeight) {
    edits.reset(static_cast<uint32_t>(room.map.numSamples()));
  }
  // False when there is no off-screen OpenGL context here.
  bool open() {
    if (!testing::makeOffscreen(gl, kWidth, kHeight)) return false;
    gl.setCamera(&room.camera);
    gl.setFarDistance(room.farDistance);
    cache.setRasterizer(&gl);
    return true;
  }
  DrawScene scene() { return {room.drawn(), &options, &edits, &view, nullptr, nullptr}; }
};

// A pick draws only the samples that can reach its rectangle. Compiled geometry holds every
// sample and is replayed whole, so picks through it are the reference: on the synthesised room,
// rectangles of every size (single pixels and the whole window among them) find the same
// samples in each depth mode either way.
TEST(Selection, PicksNearTheirRectangleFindWhatWholeGeometryFinds) {
  RoomToPick r(20000);
  if (!r.open()) GTEST_SKIP() << "No off-screen OpenGL context here";
  constexpr int kWidth = RoomToPick::kWidth, kHeight = RoomToPick::kHeight;
  auto& [room, gl, options, edits, view, cache] = r;
  const DrawScene near = r.scene();
  DrawScene whole = near;
  whole.cache = &cache;

  std::mt19937 random(3);
  std::vector<PickRect> rects{{0, 0, kWidth - 1, kHeight - 1}, {160, 120, 160, 120},
                              {0, 0, 0, 0}, {kWidth - 1, kHeight - 1, kWidth - 1, kHeight - 1}};
  for (int i = 0; i < 10; ++i) {
    const int x = std::uniform_int_distribution<int>(0, kWidth - 1)(random);
    const int y = std::uniform_int_distribution<int>(0, kHeight - 1)(random);
    const int size = std::uniform_int_distribution<int>(0, 60)(random);
    rects.push_back({x, y, std::min(x + size, kWidth - 1), std::min(y + size / 2, kHeight - 1)});
  }
  const auto picked = [&](const DrawScene& scene, const SelectionSettings& settings,
                          const PickRect& rect) {
    options.setUseDisplayLists(scene.cache != nullptr);
    edits.clearSelection();
    runSelection(gl, scene, edits, settings, rect);
    if (scene.cache != nullptr) {
      // Turning the lists on or off drops them: each reference pick compiles them afresh.
      EXPECT_NE(settings.depthMode == kDepthVisible ? cache.picking : cache.samples, 0u);
    }
    std::vector<uint32_t> indices;
    for (uint32_t i = 0; i < static_cast<uint32_t>(room.map.numSamples()); ++i) {
      if (edits.selected(i)) indices.push_back(i);
    }
    return indices;
  };
  size_t found = 0;
  for (const int32_t mode : {kDepthVisible, kDepthSpecified, kDepthFull}) {
    SelectionSettings settings;
    settings.depthMode = mode;
    settings.specifiedDepth = 20.0f;
    for (const PickRect& rect : rects) {
      const std::vector<uint32_t> reference = picked(whole, settings, rect);
      EXPECT_EQ(picked(near, settings, rect), reference)
          << "mode " << mode << ", " << rect.x0 << "," << rect.y0 << " - " << rect.x1 << ","
          << rect.y1;
      found += reference.size();
    }
  }
  EXPECT_GT(found, 1000u);  // the rectangles do find samples
}

// A pick through names runs as several select passes into one buffer and stops drawing once the
// buffer has overflowed. A whole-window pick of a room with more samples than the buffer has
// records for must leave the buffer as one pass over every sample leaves it (compiled geometry),
// report the overflow, and select nothing.
TEST(Selection, AnOverflowingPickWritesTheBufferAsOnePassWould) {
  RoomToPick r(400000);
  if (!r.open()) GTEST_SKIP() << "No off-screen OpenGL context here";
  auto& [room, gl, options, edits, view, cache] = r;
  DrawScene scene = r.scene();
  const PickRect window{0, 0, RoomToPick::kWidth - 1, RoomToPick::kHeight - 1};

  const auto pick = [&](bool wholeGeometry) {
    options.setUseDisplayLists(wholeGeometry);
    scene.cache = wholeGeometry ? &cache : nullptr;
    EXPECT_TRUE(gl.beginSelection(window.x0, window.y0, window.x1, window.y1, -1.0f));
    gl.setDepthTest(true);
    drawSamplePass(gl, scene, &window);
    DummySelectionCb done;
    EXPECT_EQ(gl.endSelection(done), -1);
    return std::vector<uint32_t>(gl.selectBuffer(),
                                 gl.selectBuffer() + RasterizerGL::kSelectBufferSize);
  };
  const std::vector<uint32_t> stretched = pick(false);
  EXPECT_EQ(stretched, pick(true));
  EXPECT_EQ(stretched[0], 1u);  // records of one name each

  SelectionSettings full;
  full.depthMode = kDepthFull;
  scene.cache = nullptr;
  options.setUseDisplayLists(false);
  EXPECT_EQ(runSelection(gl, scene, edits, full, window), 0u);
  EXPECT_TRUE(gl.pickOverflowed());  // the viewer says why nothing was selected
  EXPECT_GT(runSelection(gl, scene, edits, full, {0, 0, 9, 9}), 0u);
  EXPECT_FALSE(gl.pickOverflowed());
}

TEST(Selection, SimilarNormalsKeepOppositeFacingAndDropTheRest) {
  SampleBits selected;
  selected.clear(8);
  // Decoded normals: up, down (opposite: |dot| = 1), and sideways.
  const Vector up = SampleNormals::decodePacked(65535, 32768);
  EXPECT_NEAR(up.z, 1.0f, 1e-4f);
  DefIrradianceMap map;
  for (const Vector& n : {Vector{0, 0, 1}, Vector{0, 0, -1}, Vector{1, 0, 0}}) {
    IrradSample s{};
    s.normal = n;
    s.packNormal();
    map.appendSample(s);
  }
  const SampleNormals normals({&map, nullptr});
  PreSelectionCb<IrradSample> pre(normals);
  pre.hit(0);
  pre.hit(0);
  pre.hit(7);  // past the map: no normal
  EXPECT_EQ(pre.count, 2);
  EXPECT_NEAR(pre.reference().z, 1.0f, 1e-4f);
  SetSelectionCb<IrradSample> set(selected, 3, &normals, pre.reference(), 0.3);
  for (uint32_t i : {0u, 1u, 2u, 0xFFFFFFu}) set.hit(i);
  EXPECT_TRUE(selected.test(0) && selected.test(1));
  EXPECT_FALSE(selected.test(2));
  // Nothing gathered: the reference is zero and rejects everything.
  PreSelectionCb<IrradSample> none(normals);
  SampleBits other;
  SetSelectionCb<IrradSample> rejectAll(other, 3, &normals, none.reference(), 0.3);
  rejectAll.hit(0);
  EXPECT_FALSE(other.any());
}

TEST(Selection, DragRectangleWheelAndPaintSquare) {
  // Corners ordered; a zero width or height widened by the radius on both sides.
  const PickRect r = rectangleFromDrag(50, 40, 10, 40, 5);
  EXPECT_EQ((std::vector<int>{r.x0, r.y0, r.x1, r.y1}), (std::vector<int>{10, 35, 50, 45}));
  const PickRect click = rectangleFromDrag(7, 8, 7, 8, 3);
  EXPECT_EQ((std::vector<int>{click.x0, click.y0, click.x1, click.y1}), (std::vector<int>{4, 5, 10, 11}));
  const PickRect dab = paintSquare(20, 30, 4);
  EXPECT_EQ((std::vector<int>{dab.x0, dab.y0, dab.x1, dab.y1}), (std::vector<int>{16, 26, 24, 34}));
  SelectionSettings s;
  s.wheelRadius(+1000, 800, 600);
  EXPECT_EQ(s.paintRadius, 299);
  s.wheelRadius(-1000, 800, 600);
  EXPECT_EQ(s.paintRadius, 0);
  s.wheelDepth(2);
  EXPECT_FLOAT_EQ(s.specifiedDepth, 1.0f / 0.8f / 0.8f);
  s.wheelDepth(-2);
  EXPECT_NEAR(s.specifiedDepth, 1.0f, 1e-6f);
}

}  // namespace
}  // namespace LUtils
