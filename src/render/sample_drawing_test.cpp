#include "render/sample_drawing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <mutex>
#include <numeric>
#include <set>
#include <thread>

#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "render/camera.h"
#include "render/rasterizer_sw.h"
#include "render/render_test_support.h"
#include "render/synth_room.h"

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
    computeFrustum(&camera, 100.0f, 800, 600, settings.frustum);
  }
  DrawSettings settings;
  PinholeCamera camera;
  SpyRasterizer spy;
};

TEST_F(DrawingTest, SmallMapsStayOnTheCallingThread) {
  DefThreadManager threads;
  for (uint32_t count : {99u, 100u}) {
    DefIrradianceMap map;
    for (uint32_t i = 0; i < count; ++i) map.appendSample(sampleAt({i * 0.01f, 0, 0}));
    spy.threads.clear();
    const DrawPass pass(spy, settings, true);
    const uint32_t used = drawSamples<1>(pass, {&map, nullptr}, &threads);
    if (count == 99) {
      EXPECT_EQ(used, 1u);
      EXPECT_EQ(spy.threads, std::set<std::thread::id>{std::this_thread::get_id()});
    } else {
      EXPECT_EQ(used, static_cast<uint32_t>(defaultThreadCount()));
      EXPECT_EQ(spy.threads.count(std::this_thread::get_id()), 0u);
    }
    // Every index once, whichever thread drew it.
    std::vector<uint32_t> indices = spy.takeIndices(), expected(count);
    std::sort(indices.begin(), indices.end());
    std::iota(expected.begin(), expected.end(), 0u);
    EXPECT_EQ(indices, expected);
  }
}

TEST_F(DrawingTest, SevenSamplesOnThreeThreadsShareTwoTwoThree) {
  DefIrradianceMap map;
  for (int i = 0; i < 7; ++i) map.appendSample(sampleAt({i * 0.1f, 0, 0}));
  const DrawPass pass(spy, settings, true);
  DrawSamplesCb<1> records[3];
  for (auto& r : records) r.pass = &pass;
  DrawThreaded<IrradianceMap, DrawSamplesCb<1>> job(map, records, 7);
  std::vector<std::vector<uint32_t>> drawn;
  for (int i = 0; i < 3; ++i) {
    job.run(nullptr, nullptr, i, 3);
    drawn.push_back(spy.takeIndices());
  }
  EXPECT_EQ(drawn, (std::vector<std::vector<uint32_t>>{{0, 1}, {2, 3}, {4, 5, 6}}));
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
  const DrawPass pass(spy, settings, true);
  for (const auto& [drawn, radius] : {std::pair{DrawnMap{&map, nullptr}, 1.0f},
                                      std::pair{DrawnMap{nullptr, &light}, 5.0f}}) {
    spy.polygons.clear();
    drawSamples<0>(pass, drawn, nullptr);
    ASSERT_EQ(spy.polygons.size(), 1u);
    ASSERT_EQ(spy.polygons[0].points.size(), 6u);  // low quality
    for (const Vector& v : spy.polygons[0].points) EXPECT_NEAR(length(v), radius, 1e-5f);
  }
  // The colour arrives times the brightness, unclamped: mantissa 64 x 2^0 = 64.
  spy.polygons.clear();
  settings.brightness = 0.5f;
  drawSamples<0>(pass, {&map, nullptr}, nullptr);
  EXPECT_FLOAT_EQ(spy.polygons[0].colour.r, 32.0f);
}

TEST_F(DrawingTest, AdaptiveSidesFrustumAndDeletedSamples) {
  settings.adaptiveQuality = true;
  settings.segmentsPerDisc = 10;
  const DrawPass pass(spy, settings, true);
  EXPECT_EQ(pass.sidesFor(0.0001f, {0, 0, -80}), 4u);  // tiny and far
  EXPECT_EQ(pass.sidesFor(4.0f, {0, 0, 9}), 20u);      // large and near: at most 2N
  // At d = 1 the divisor is held at 0.2 x LOD: ceil(sqrt(0.0001) x 20 / 0.2) = 1, so 4 sides;
  // r = 0.0016 gives ceil(0.04 x 100) = 4, r = 0.0025 ceil(0.05 x 100) = 5.
  EXPECT_EQ(pass.sidesFor(0.0025f, {0, 0, 9}), 5u);
  settings.lodMultiplier = 0.5f;
  EXPECT_EQ(pass.sidesFor(0.0025f, {0, 0, 9}), 10u);

  settings.adaptiveQuality = false;
  DefIrradianceMap map;
  map.appendSample(sampleAt({0, 0, 0}));
  map.appendSample(sampleAt({1, 0, 0}));
  map.appendSample(sampleAt({0, 0, 20}));  // behind the camera
  map.appendSample(sampleAt({2, 0, 0}));
  setSampleBit(settings.deletedSamples, 1);
  drawSamples<1>(pass, {&map, nullptr}, nullptr);
  // Deleted 1 and culled 2 keep their indices.
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 3}));

  // Without the frustum test (a display list being compiled) the culled sample is drawn.
  const DrawPass compiling(spy, settings, false);
  drawSamples<1>(compiling, {&map, nullptr}, nullptr);
  EXPECT_EQ(spy.takeIndices(), (std::vector<uint32_t>{0, 2, 3}));
}

TEST_F(DrawingTest, BrightnessFromTheKeysAndTheAverageIntensity) {
  ::testing::internal::CaptureStdout();
  brightnessKey(false, settings);
  brightnessKey(true, settings);
  settings.lodMultiplier = 2.9f;
  lodKey(true, settings);  // at the top: unchanged, still printed
  settings.lodMultiplier = 1.0f;
  lodKey(false, settings);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(),
            "Brightness set to 1.125\nBrightness set to 1\nLOD multiplier set to 2.9\n"
            "LOD multiplier set to 0.9\n");

  // The automatic brightness comes from the average intensity.
  DefIrradianceMap map;
  IrradSample s = sampleAt({0, 0, 0});
  s.colour[0] = 96;  // (96 + 64 + 64) / 3 = 74.67 x 2^0
  map.appendSample(s);
  map.appendSample(sampleAt({1, 0, 0}));  // 64
  automaticBrightness({&map, nullptr}, settings);
  EXPECT_EQ(settings.samplesSeen, 2);
  EXPECT_NEAR(settings.brightness, 1.0 / (2.0 * (74.666667 + 64.0) / 2.0), 1e-6);
  DefIrradianceMap empty;
  automaticBrightness({&empty, nullptr}, settings);
  EXPECT_TRUE(std::isinf(settings.brightness));
}

std::vector<uint32_t> swFrame(RasterizerSW& sw, SynthRoom& room, ThreadManager& threads,
                              DrawSettings& settings) {
  drawFrame(sw, {&room.map, nullptr}, &threads, settings);
  return {sw.picture(), sw.picture() + static_cast<size_t>(sw.width()) * sw.height()};
}

TEST(SampleDrawing, ThreadedSoftwareFrameEqualsOneThread) {
  SynthRoom room(120000, 640, 480);
  DefThreadManager threads;
  DrawSettings settings;
  automaticBrightness({&room.map, nullptr}, settings);
  RasterizerSW sw;
  sw.resize(640, 480);
  sw.setCamera(&room.camera);
  sw.setFarDistance(room.farDistance);
  settings.multiThreadedSoftware = false;
  const std::vector<uint32_t> single = swFrame(sw, room, threads, settings);
  settings.multiThreadedSoftware = true;
  reloadDefaultThreadCount();
  EXPECT_EQ(swFrame(sw, room, threads, settings), single);
  // A selection draws boxes over the discs in both modes alike.
  for (uint32_t i = 0; i < 120000; i += 997) setSampleBit(settings.selectedSamples, i);
  settings.hasSelection = true;
  settings.showAxis = true;
  const std::vector<uint32_t> selectedThreaded = swFrame(sw, room, threads, settings);
  settings.multiThreadedSoftware = false;
  EXPECT_EQ(swFrame(sw, room, threads, settings), selectedThreaded);
  EXPECT_NE(selectedThreaded, single);
}

TEST(SampleDrawing, BothBackEndsDrawTheSynthesisedRoomAlike) {
  constexpr int kW = 800, kH = 600;
  SynthRoom room(200000, kW, kH);
  RasterizerGL gl;
  CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, kW, kH);
  DefThreadManager threads;
  DrawSettings settings;
  automaticBrightness({&room.map, nullptr}, settings);
  settings.segmentsPerDisc = 10;
  RasterizerSW sw;
  sw.resize(kW, kH);
  for (Rasterizer3D* r : {static_cast<Rasterizer3D*>(&sw), static_cast<Rasterizer3D*>(&gl)}) {
    r->setCamera(&room.camera);
    r->setFarDistance(room.farDistance);
    drawFrame(*r, {&room.map, nullptr}, &threads, settings);
  }
  std::vector<uint32_t> glPixels;
  int w = 0, h = 0;
  ASSERT_TRUE(gl.readPixels(glPixels, w, h));
  const std::vector<uint32_t> swPixels(sw.picture(), sw.picture() + kW * kH);
  writePng(testing::picturePath("synth_room_gl.png"), glPixels.data(), kW, kH);
  writePng(testing::picturePath("synth_room_sw.png"), swPixels.data(), kW, kH);
  const double equal = testing::equalFraction(glPixels, swPixels);
  const double nearly = testing::nearlyEqualFraction(glPixels, swPixels);
  std::printf("synthesised room, 200000 samples: %.4f of the pixels equal, %.4f within one level\n",
              equal, nearly);
  EXPECT_GT(nearly, 0.6);

  // The picking pass: both back ends see mostly the same index under each pixel (coplanar,
  // overlapping discs z-fight differently, as in the display pass).
  for (Rasterizer3D* r : {static_cast<Rasterizer3D*>(&sw), static_cast<Rasterizer3D*>(&gl)}) {
    r->setClearColor({1, 1, 1});
    r->beginFrame();
    drawPickingPass(*r, {&room.map, nullptr}, &threads, settings);
  }
  ASSERT_TRUE(gl.readPixels(glPixels, w, h));
  const std::vector<uint32_t> swIndices(sw.colourBuffer(), sw.colourBuffer() + kW * kH);
  const double sameIndex = testing::equalFraction(glPixels, swIndices);
  std::printf("picking pass: %.4f of the pixels name the same sample\n", sameIndex);
  EXPECT_GT(sameIndex, 0.6);
}

TEST(SampleDrawing, DisplayListsCompileOnceAndAreDropped) {
  RasterizerGL gl;
  CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, 64, 64);
  PinholeCamera camera;
  camera.setImage(64, 64, 1.0f);
  camera.lookAt({0, 0, 10}, {0, 0, 0}, {0, 1, 0});
  gl.setCamera(&camera);
  DefIrradianceMap map;
  map.appendSample(sampleAt({0, 0, 0}, 100.0f));
  DrawSettings settings;
  settings.useDisplayLists = true;
  drawFrame(gl, {&map, nullptr}, nullptr, settings);
  const uint32_t list = settings.sampleList;
  EXPECT_NE(list, 0u);
  drawFrame(gl, {&map, nullptr}, nullptr, settings);
  EXPECT_EQ(settings.sampleList, list);
  std::vector<uint32_t> pixels;
  int w, h;
  gl.readPixels(pixels, w, h);
  EXPECT_NE(pixels[32 * 64 + 32] & 0xFFFFFFu, 0x404040u);  // the disc, replayed from the list

  // The picking list is compiled straight after a frame that left lighting off, and called in
  // frames that begin with it on: it must switch lighting off itself, or the index colours are
  // lit.
  invalidateDisplayLists(&gl, settings);
  settings.useDisplayLists = false;
  drawFrame(gl, {&map, nullptr}, nullptr, settings);
  settings.useDisplayLists = true;
  drawPickingPass(gl, {&map, nullptr}, nullptr, settings);
  EXPECT_NE(settings.pickingList, 0u);
  gl.setClearColor({1, 1, 1});
  gl.beginFrame();
  drawPickingPass(gl, {&map, nullptr}, nullptr, settings);
  gl.readPixels(pixels, w, h);
  EXPECT_EQ(pixels[32 * 64 + 32] & 0xFFFFFFu, 0u);  // index 0, unlit
  invalidateDisplayLists(&gl, settings);
  EXPECT_EQ(settings.sampleList, 0u);
  settings.adaptiveQuality = true;  // no list in adaptive quality
  drawFrame(gl, {&map, nullptr}, nullptr, settings);
  EXPECT_EQ(settings.sampleList, 0u);
}

}  // namespace
}  // namespace LUtils
