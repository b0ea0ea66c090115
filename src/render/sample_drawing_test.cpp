#include "render/sample_drawing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>

#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "render/camera.h"
#include "render/rasterizer_sw.h"
#include "render/render_test_support.h"
#include "synth/synth_room.h"

namespace LUtils {
namespace {

// Records what the drawing code asks of a software-like rasterizer, from any thread.
class SpyRasterizer final : public Rasterizer3D {
 public:
  struct Polygon {
    std::vector<Vector> points;
    Color colour;
    uint32_t index = 0;
  };
  std::mutex mutex;
  std::set<std::thread::id> threads;
  std::vector<Polygon> polygons;

  void setFillMode(int) override {}
  bool setBackfaceCulling(bool on) override { return on; }
  void setDepthTest(bool) override {}
  bool beginSelection(int, int, int, int, float) override { return true; }
  int endSelection(SelectionCb&) override { return 0; }
  void resize(int, int) override {}
  void setClearColor(const Color&) override {}
  void beginFrame() override {}
  void setCamera(Camera* c) override { Rasterizer3D::setCamera(c); }
  void drawLine(const Vector&, const Vector&, const Color&) override {}
  void drawLitLine(const Vector&, const Vector&, const Vector&, const Vector&,
                   const Color&) override {}
  void drawLitTriangle(const Vector&, const Vector&, const Vector&, const Vector&, const Vector&,
                       const Vector&, const Color&) override {}
  void drawTriangle(const Vector&, const Vector&, const Vector&, const Color&) override {}
  void drawPolygon(const Vector* p, unsigned n, const Color& c) override { record(p, n, c, 0); }
  void drawPolygonRGBA(const Vector* p, unsigned n, uint32_t rgba) override {
    record(p, n, {}, rgba);
  }
  void drawQuadOrPolygon(const Vector* p, unsigned n, const Color& c) override {
    record(p, n, c, 0);
  }
  bool drawsInBands() const override { return true; }
  void readPickIndices(int, int, int, int, std::vector<uint32_t>& indices) override { indices.clear(); }
  // Compiled geometry, counted: each handle is a number, deleting one records it.
  bool canCacheGeometry() const override { return cacheable; }
  uint32_t beginGeometry() override { return ++lastHandle; }
  void deleteGeometry(uint32_t handle) override {
    if (handle != 0) deleted.push_back(handle);
  }
  bool cacheable = false;
  uint32_t lastHandle = 0;
  std::vector<uint32_t> deleted;

  // The indices of the polygons drawn since the last call, in drawing order.
  std::vector<uint32_t> takeIndices() {
    std::vector<uint32_t> indices;
    for (const Polygon& p : polygons) indices.push_back(p.index);
    polygons.clear();
    return indices;
  }

 private:
  void record(const Vector* p, unsigned n, const Color& c, uint32_t index) {
    std::lock_guard<std::mutex> lock(mutex);
    threads.insert(std::this_thread::get_id());
    polygons.push_back({{p, p + n}, c, index});
  }
};

IrradSample sampleAt(const Vector& p, float drawRadius2 = 0.01f) {
  IrradSample s{};
  s.position = p;
  s.normal = {0, 0, 1};
  s.drawRadius2 = drawRadius2;
  s.colour[0] = s.colour[1] = s.colour[2] = 64;
  s.exponent = 135;
  return s;
}

struct DrawingTest : ::testing::Test {
  void SetUp() override {
    camera.setImage(800, 600, 1.2f);
    camera.lookAt({0, 0, 10}, {0, 0, 0}, {0, 1, 0});
    spy.setCamera(&camera);
    spy.setFarDistance(100.0f);
    computeFrustum(&camera, 100.0f, 800, 600, view.frustum);
  }
  DrawScene scene(DrawnMap map, ThreadManager* threads = nullptr) {
    return {map, &options, &edits, &view, nullptr, threads};
  }
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  PinholeCamera camera;
  SpyRasterizer spy;
};

// Maps under 100 samples, and managers of one worker, draw on the calling thread; larger maps
// go to the workers in runs, each run split among them: every index once, and within a run each
// worker draws its share in order.
TEST_F(DrawingTest, ThreadedDrawingOnlyForLargeMapsAndSeveralWorkersInRuns) {
  DefThreadManager threads;
  const uint32_t large = 2 * kThreadedRunSamples + 7;
  struct Case {
    uint32_t count;
    int workers;
    bool threaded;
  };
  for (const Case c : {Case{99, 3, false}, Case{100, 3, true}, Case{100, 1, false},
                       Case{large, 3, true}}) {
    SCOPED_TRACE(::testing::Message() << c.count << " samples, " << c.workers << " workers");
    threads.setThreadCount(c.workers);
    DefIrradianceMap map;
    for (uint32_t i = 0; i < c.count; ++i) map.appendSample(sampleAt({(i % 500) * 0.01f, 0, 0}));
    spy.threads.clear();
    const DrawScene drawn = scene({&map, nullptr}, &threads);
    const DrawPass pass(spy, drawn, true);
    const uint32_t used = drawSamples<1>(pass, drawn);
    EXPECT_EQ(used, c.threaded ? 3u : 1u);
    EXPECT_EQ(spy.threads.count(std::this_thread::get_id()), c.threaded ? 0u : 1u);
    std::vector<uint32_t> indices = spy.takeIndices(), expected(c.count);
    if (c.threaded) {
      // The polygons of one run come before any of the next.
      for (size_t i = 1; i < indices.size(); ++i) {
        ASSERT_LE(indices[i - 1] / kThreadedRunSamples, indices[i] / kThreadedRunSamples);
      }
    }
    std::sort(indices.begin(), indices.end());
    std::iota(expected.begin(), expected.end(), 0u);
    EXPECT_EQ(indices, expected);
  }
}

// A map of several runs drawn by the software back end on three workers gives the one-thread
// picture pixel for pixel, frame after frame, reduced frames too.
TEST(ThreadedSoftwareDrawing, RunsOfAMapGiveTheOneThreadPicture) {
  SynthRoom room(kThreadedRunSamples + kThreadedRunSamples / 2, 320, 240);
  DefThreadManager threads;
  threads.setThreadCount(3);
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  automaticBrightness(room.drawn(), options);
  auto picture = [&](bool threaded) {
    RasterizerSW sw;
    sw.resize(320, 240);
    sw.setCamera(&room.camera);
    sw.setFarDistance(room.farDistance);
    options.setMultiThreadedSoftware(threaded);
    std::vector<uint32_t> pixels;
    for (int frame = 0; frame < 3; ++frame) {
      view.sampleStride = frame == 2 ? 5 : 1;  // the last one a reduced frame
      drawFrame(sw, {room.drawn(), &options, &edits, &view, nullptr, &threads});
      pixels.insert(pixels.end(), sw.picture(), sw.picture() + 320 * 240);
    }
    return pixels;
  };
  const std::vector<uint32_t> one = picture(false);
  EXPECT_EQ(one, picture(true));
  // Not a blank frame.
  EXPECT_GT(std::count(one.begin(), one.end(), one[0]), 0);
  EXPECT_LT(std::count(one.begin(), one.end(), one[320 * 120 + 160]), 320 * 240 / 2);
}

TEST_F(DrawingTest, SevenSamplesOnThreeThreadsShareTwoTwoThreeInFullAndReducedFrames) {
  DefIrradianceMap map;
  for (int i = 0; i < 7; ++i) map.appendSample(sampleAt({i * 0.1f, 0, 0}));
  const DrawPass pass(spy, scene({&map, nullptr}), true);
  DrawSamplesCb<1> records[3];
  for (auto& r : records) r.pass = &pass;
  DrawThreaded<IrradianceMap, DrawSamplesCb<1>> job(map, records, 7);
  std::vector<std::vector<uint32_t>> drawn;
  for (int i = 0; i < 3; ++i) {
    job.run(nullptr, nullptr, i, 3);
    drawn.push_back(spy.takeIndices());
  }
  EXPECT_EQ(drawn, (std::vector<std::vector<uint32_t>>{{0, 1}, {2, 3}, {4, 5, 6}}));

  // A reduced frame jumps between the multiples of its stride, in every thread's share, and
  // still leaves out deleted samples.
  view.sampleStride = 3;
  edits.editDeleted([](SampleBits& bits) { bits.set(6); });
  const DrawPass reduced(spy, scene({&map, nullptr}), true);
  for (auto& r : records) r.pass = &reduced;
  drawn.clear();
  for (int i = 0; i < 3; ++i) {
    job.run(nullptr, nullptr, i, 3);
    drawn.push_back(spy.takeIndices());
  }
  EXPECT_EQ(drawn, (std::vector<std::vector<uint32_t>>{{0}, {3}, {}}));
}

TEST_F(DrawingTest, RadiusRuleDiffersBetweenMapKinds) {
  DefIrradianceMap map;
  map.appendSample(sampleAt({0, 0, 0}, 25.0f));  // disc radius 0.2 x 5 = 1
  LightMap light;
  LightMapSample* ls = light.insertSample();
  ls->position = {0, 0, 0};
  ls->normal = {0, 0, 1};
  ls->radiusSquared = 25.0f;  // disc radius 5
  ls->valueA[0] = std::bit_cast<uint32_t>(0.5f);
  for (const auto& [drawn, radius] : {std::pair{DrawnMap{&map, nullptr}, 1.0f},
                                      std::pair{DrawnMap{nullptr, &light}, 5.0f}}) {
    spy.polygons.clear();
    const DrawPass pass(spy, scene(drawn), true);
    drawSamples<0>(pass, scene(drawn));
    ASSERT_EQ(spy.polygons.size(), 1u);
    ASSERT_EQ(spy.polygons[0].points.size(), 6u);  // low quality
    for (const Vector& v : spy.polygons[0].points) EXPECT_NEAR(length(v), radius, 1e-5f);
  }
  // The colour arrives times the brightness, unclamped: mantissa 64 x 2^0 = 64.
  spy.polygons.clear();
  options.setBrightness(0.5f);
  const DrawPass pass(spy, scene({&map, nullptr}), true);
  drawSamples<0>(pass, scene({&map, nullptr}));
  EXPECT_FLOAT_EQ(spy.polygons[0].colour.r, 32.0f);
}

TEST_F(DrawingTest, AdaptiveSidesFrustumAndDeletedSamples) {
  options.setAdaptiveQuality(true);
  options.setSegmentsPerDisc(10);
  DefIrradianceMap map;
  const DrawPass pass(spy, scene({&map, nullptr}), true);
  EXPECT_EQ(pass.sidesFor(0.0001f, {0, 0, -80}), 4u);  // tiny and far
  EXPECT_EQ(pass.sidesFor(4.0f, {0, 0, 9}), 20u);      // large and near: at most 2N
  // At d = 1 the divisor is held at 0.2 x LOD: ceil(sqrt(0.0001) x 20 / 0.2) = 1, so 4 sides;
  // r = 0.0016 gives ceil(0.04 x 100) = 4, r = 0.0025 ceil(0.05 x 100) = 5.
  EXPECT_EQ(pass.sidesFor(0.0025f, {0, 0, 9}), 5u);
  options.setLodMultiplier(0.5f);
  EXPECT_EQ(pass.sidesFor(0.0025f, {0, 0, 9}), 10u);

  options.setAdaptiveQuality(false);
  map.appendSample(sampleAt({0, 0, 0}));
  map.appendSample(sampleAt({1, 0, 0}));
  map.appendSample(sampleAt({0, 0, 20}));  // behind the camera
  map.appendSample(sampleAt({2, 0, 0}));
  edits.editDeleted([](SampleBits& bits) { bits.set(1); });
  drawSamples<1>(pass, scene({&map, nullptr}));
  // Deleted 1 and culled 2 keep their indices.
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 3}));

  // Without the frustum test (a display list being compiled) the culled sample is drawn.
  const DrawPass compiling(spy, scene({&map, nullptr}), false);
  drawSamples<1>(compiling, scene({&map, nullptr}));
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 2, 3}));

  // A reduced frame draws the same samples every time: the indices that are multiples of the
  // stride.
  view.sampleStride = 2;
  const DrawPass reduced(spy, scene({&map, nullptr}), false);
  drawSamples<1>(reduced, scene({&map, nullptr}));
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 2}));
}

// Samples no index can place (a damaged file) keep their indices but are not drawn, picked,
// bounded or counted in the brightness.
TEST_F(DrawingTest, SamplesNoIndexCanPlaceAreLeftOutButKeepTheirIndices) {
  DefIrradianceMap map;
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  map.appendSample(sampleAt({0, 0, 0}));
  map.appendSample(sampleAt({nan, 0, 0}));
  map.appendSample(sampleAt({1, 0, 0}, inf));
  map.appendSample(sampleAt({1, 1, 0}, 0.0f));
  map.appendSample(sampleAt({2, 0, 0}));
  const DrawPass pass(spy, scene({&map, nullptr}), true);
  drawSamples<1>(pass, scene({&map, nullptr}));
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 4}));
  Vector lo, hi;
  EXPECT_EQ(boundsAndBrightness({&map, nullptr}, lo, hi, options), 2);
  EXPECT_EQ(lo.x, 0.0f);
  EXPECT_EQ(hi.x, 2.0f);
  EXPECT_EQ(hi.y, 0.0f);
  // The one pass gives what the two apart give.
  Vector lo2, hi2;
  DrawOptions apart;
  sceneBounds({&map, nullptr}, lo2, hi2);
  EXPECT_EQ(automaticBrightness({&map, nullptr}, apart), 2);
  EXPECT_EQ(std::memcmp(&lo, &lo2, sizeof lo), 0);
  EXPECT_EQ(std::memcmp(&hi, &hi2, sizeof hi), 0);
  EXPECT_EQ(apart.brightness(), options.brightness());
}

TEST_F(DrawingTest, BrightnessFromTheKeysAndTheAverageIntensity) {
  ::testing::internal::CaptureStdout();
  brightnessKey(false, options);
  brightnessKey(true, options);
  options.setLodMultiplier(2.9f);
  lodKey(true, options);  // at the top: unchanged, still printed
  options.setLodMultiplier(1.0f);
  lodKey(false, options);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Brightness set to 1.125\nBrightness set to 1\nLOD multiplier set to 2.9\n"
            "LOD multiplier set to 0.9\n");

  // The automatic brightness comes from the average intensity.
  DefIrradianceMap map;
  IrradSample s = sampleAt({0, 0, 0});
  s.colour[0] = 96;  // (96 + 64 + 64) / 3 = 74.67 x 2^0
  map.appendSample(s);
  map.appendSample(sampleAt({1, 0, 0}));  // 64
  EXPECT_EQ(automaticBrightness({&map, nullptr}, options), 2);
  EXPECT_NEAR(options.brightness(), 1.0 / (2.0 * (74.666667 + 64.0) / 2.0), 1e-6);
  DefIrradianceMap empty;
  automaticBrightness({&empty, nullptr}, options);
  EXPECT_TRUE(std::isinf(options.brightness()));
}

TEST_F(DrawingTest, OptionsAndDeletionsDropCompiledGeometryOnceEachAndNothingElseDoes) {
  spy.cacheable = true;
  DefIrradianceMap map;
  map.appendSample(sampleAt({0, 0, 0}));
  map.appendSample(sampleAt({1, 0, 0}));
  GeometryCache cache(options, edits);
  cache.setRasterizer(&spy);
  options.setUseDisplayLists(true);
  DrawScene drawn = scene({&map, nullptr});
  drawn.cache = &cache;
  // Compiles both kinds of geometry and checks what one change drops.
  auto compileThen = [&](const std::function<void()>& change) {
    drawFrame(spy, drawn);
    drawPickingPass(spy, drawn);
    const uint32_t samples = cache.samples, picking = cache.picking;
    EXPECT_NE(samples, 0u);
    EXPECT_NE(picking, 0u);
    const uint64_t before = cache.drops();
    spy.deleted.clear();
    change();
    return std::pair{cache.drops() - before, spy.deleted == std::vector<uint32_t>{samples, picking}};
  };
  const std::vector<std::pair<const char*, std::function<void()>>> changes = {
      {"OpenGL", [&] { options.setUseOpenGL(false); }},
      {"multi-threaded", [&] { options.setMultiThreadedSoftware(false); }},
      {"quality", [&] { options.setSegmentsPerDisc(16); }},
      {"LOD", [&] { options.setLodMultiplier(1.5f); }},
      {"brightness", [&] { options.setBrightness(3.0f); }},
      {"culling", [&] { options.setBackfaceCulling(true); }},
      {"axis", [&] { options.setShowAxis(true); }},
      {"colour", [&] { options.setSelectionColour({0, 1, 0}); }},
      {"delete", [&] { edits.editDeleted([](SampleBits& b) { b.set(1); }); }},
      {"undo", [&] { edits.editDeleted([](SampleBits& b) { b.reset(1); }); }},
      {"new map", [&] { edits.reset(2); }},
  };
  for (const auto& [name, change] : changes) {
    EXPECT_EQ(compileThen(change), std::pair(uint64_t{1}, true)) << name;
  }
  // Adaptive quality compiles nothing; switching it on drops the compiled lists.
  EXPECT_EQ(compileThen([&] { options.setAdaptiveQuality(true); }), std::pair(uint64_t{1}, true));
  options.setAdaptiveQuality(false);
  // Nothing else drops: the same value again, a selection, drawing, a reduced frame.
  drawFrame(spy, drawn);
  drawPickingPass(spy, drawn);
  const uint64_t before = cache.drops();
  spy.deleted.clear();
  options.setSegmentsPerDisc(16);
  options.setBrightness(3.0f);
  edits.editSelected([](SampleBits& b) { b.set(0); });
  edits.clearSelection();
  view.sampleStride = 4;
  drawFrame(spy, drawn);
  view.sampleStride = 1;
  drawFrame(spy, drawn);
  EXPECT_EQ(cache.drops(), before);
  EXPECT_TRUE(spy.deleted.empty());
  // The display-lists option itself: off drops, and nothing is compiled while it is off.
  EXPECT_EQ(compileThen([&] { options.setUseDisplayLists(false); }), std::pair(uint64_t{1}, true));
  drawFrame(spy, drawn);
  EXPECT_EQ(cache.samples, 0u);
}

}  // namespace
}  // namespace LUtils
