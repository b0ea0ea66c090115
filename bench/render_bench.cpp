// One frame of a synthesised room of one million irradiance samples at 800 x 600, 8-sided discs:
// OpenGL immediate mode and display-list replay (off-screen context) against a bare
// glBegin/glEnd loop of the same discs, and the software rasterizer on one thread and on all
// threads. Ratios against the references of the same run are printed after the table.
#include <GL/gl.h>
#include <benchmark/benchmark.h>

#include "bench_room.h"
#include "ratio_reporter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include "render/camera.h"
#include "render/disc_basis.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"
#include "synth/synth_room.h"

namespace {

using namespace LUtils;

constexpr int kWidth = 800;
constexpr int kHeight = 600;

struct Scene : SynthRoom {
  DefThreadManager threads;
  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  GeometryCache cache{options, edits};

  Scene() : SynthRoom(1000000, kWidth, kHeight) {
    automaticBrightness(drawn(), options);
    options.setSegmentsPerDisc(8);
  }
  DrawScene drawScene() { return {drawn(), &options, &edits, &view, &cache, &threads}; }
};

Scene& scene() {
  static Scene s;
  return s;
}

RasterizerGL* offscreenGL() {
  static const std::unique_ptr<RasterizerGL> gl =
      benchroom::makeOffscreenGL(scene(), kWidth, kHeight);
  return gl.get();
}

// The reference: the same discs straight into OpenGL, nothing around them.
class BareDiscs final : public EnumIrradianceSamplesCallback {
 public:
  explicit BareDiscs(float brightness) : brightness_(brightness) {
    for (int i = 0; i < 8; ++i) {
      const float a = 2.0f * static_cast<float>(i) * 3.1415927f / 8.0f;
      cosines_[i] = std::cos(a);
      sines_[i] = std::sin(a);
    }
  }
  int process(IrradSample& s) override {
    Vector u, v;
    discBasis(s.normal, u, v);
    const float r = 0.2f * std::sqrt(s.drawRadius2);
    const Color c = s.decodedColour() * brightness_;
    glColor3f(c.r, c.g, c.b);
    glBegin(GL_TRIANGLE_FAN);
    for (int i = 0; i < 8; ++i) {
      const Vector p = s.position + u * (r * cosines_[i]) + v * (r * sines_[i]);
      glVertex3f(p.x, p.y, p.z);
    }
    glEnd();
    return 1;
  }

 private:
  float brightness_;
  float cosines_[8], sines_[8];
};

void BM_GLBareLoop(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  Scene& s = scene();
  auto frame = [&] {
    gl->setClearColor({0.25f, 0.25f, 0.25f});
    gl->beginFrame();
    glDisable(GL_LIGHTING);
    BareDiscs bare(s.options.brightness());
    s.map.enumerateSamples(0, &bare);
    glFinish();
  };
  frame();  // warms the driver's buffers and threads
  for (auto _ : state) frame();
}
BENCHMARK(BM_GLBareLoop)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_GLImmediate(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  Scene& s = scene();
  s.cache.setRasterizer(gl);
  s.options.setUseDisplayLists(false);
  drawFrame(*gl, s.drawScene());
  glFinish();
  for (auto _ : state) {
    drawFrame(*gl, s.drawScene());
    glFinish();
  }
}
BENCHMARK(BM_GLImmediate)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_GLDisplayList(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  Scene& s = scene();
  s.cache.setRasterizer(gl);
  s.options.setUseDisplayLists(true);
  drawFrame(*gl, s.drawScene());  // compiles the list
  glFinish();
  for (auto _ : state) {
    drawFrame(*gl, s.drawScene());
    glFinish();
  }
  s.options.setUseDisplayLists(false);
}
BENCHMARK(BM_GLDisplayList)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void softwareFrames(benchmark::State& state, bool threaded, unsigned replayThreads = 0) {
  Scene& s = scene();
  RasterizerSW sw;
  if (replayThreads > 0) sw.setReplayThreads(replayThreads);
  sw.resize(kWidth, kHeight);
  sw.setCamera(&s.camera);
  sw.setFarDistance(s.farDistance);
  s.cache.setRasterizer(nullptr);
  s.options.setMultiThreadedSoftware(threaded);
  drawFrame(sw, s.drawScene());  // warm the bins and the workers
  for (auto _ : state) drawFrame(sw, s.drawScene());
  state.counters["threads"] = threaded ? s.threads.threadCount() : 1;
}

void BM_SoftwareOneThread(benchmark::State& state) { softwareFrames(state, false); }
BENCHMARK(BM_SoftwareOneThread)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_SoftwareAllThreads(benchmark::State& state) { softwareFrames(state, true); }
BENCHMARK(BM_SoftwareAllThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// The same frames as the viewer window draws them by default: 6-sided discs (low quality), and
// the software rasterizer replaying its bins on one thread or on every processor as the window's
// two software kinds do. bench/viewer_window_bench.py times the window against these.
class ViewerQuality {
 public:
  ViewerQuality() { scene().options.setSegmentsPerDisc(6); }
  ~ViewerQuality() { scene().options.setSegmentsPerDisc(8); }
  ViewerQuality(const ViewerQuality&) = delete;
  ViewerQuality& operator=(const ViewerQuality&) = delete;
};

void BM_ViewerGL(benchmark::State& state) {
  const ViewerQuality quality;
  BM_GLImmediate(state);
}
BENCHMARK(BM_ViewerGL)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_ViewerGLLists(benchmark::State& state) {
  const ViewerQuality quality;
  BM_GLDisplayList(state);
}
BENCHMARK(BM_ViewerGLLists)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_ViewerSoftware(benchmark::State& state) {
  const ViewerQuality quality;
  softwareFrames(state, false, 1);
}
BENCHMARK(BM_ViewerSoftware)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_ViewerSoftwareThreads(benchmark::State& state) {
  const ViewerQuality quality;
  softwareFrames(state, true, std::max(1u, std::thread::hardware_concurrency()));
}
BENCHMARK(BM_ViewerSoftwareThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nRatios (time per frame):\n");
  reporter.printRatio("OpenGL immediate / bare glBegin loop", "BM_GLImmediate", "BM_GLBareLoop",
                      false, "target <= 1.15");
  reporter.printRatio("OpenGL display list / bare glBegin loop", "BM_GLDisplayList",
                      "BM_GLBareLoop", false, "for information");
  reporter.printRatio("software one thread / all threads", "BM_SoftwareOneThread",
                      "BM_SoftwareAllThreads", false, "target >= 1.3 on two cores");
  std::printf("software one thread: %.0f ms per frame (target <= 250 ms)\n",
              reporter.time("BM_SoftwareOneThread"));
  benchmark::Shutdown();
  return 0;
}
