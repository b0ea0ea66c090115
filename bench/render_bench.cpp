// One frame of a synthesised room of one million irradiance samples at 800 x 600, 8-sided discs:
// OpenGL immediate mode and display-list replay (off-screen context) against a bare
// glBegin/glEnd loop of the same discs, and the software rasterizer on one thread and on all
// threads against a minimal scalar rasterizer drawing the same discs (bench/reference). Ratios
// against the references of the same run are printed after the table (the software
// rasterizer's from frames of every kind drawn in turns, round after round), with the share of
// pixels on which the software rasterizer and the minimal one agree (they differ along edges and
// where coplanar discs overlap) and whether the threaded frames equal the one-thread frame pixel
// for pixel.
#include <GL/gl.h>
#include <benchmark/benchmark.h>

#include "bench_room.h"
#include "ratio_reporter.h"

#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "render/camera.h"
#include "render/disc_basis.h"
#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"
#include "minimal_raster.h"
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

// The last picture of each software kind, to compare after the runs.
std::map<std::string, std::vector<uint32_t>> gPictures;

// The software rasterizer, sized and placed for the scene's view.
void setUpSoftware(Scene& s, RasterizerSW& sw) {
  sw.resize(kWidth, kHeight);
  sw.setCamera(&s.camera);
  sw.setFarDistance(s.farDistance);
  s.cache.setRasterizer(nullptr);
}

// The minimal rasterizer for the scene's view, and its frame: the same discs as fans of
// triangles, one after the other.
class MinimalFrames {
 public:
  explicit MinimalFrames(Scene& s) : s_(s), raster_(kWidth, kHeight) {
    raster_.setView(&s.camera, s.farDistance);
  }
  void draw() {
    raster_.clear(reference::packColour({0.25f, 0.25f, 0.25f}));
    reference::drawDiscs(raster_, s_.map, s_.options.brightness(), 8);
  }
  const uint32_t* pixels() const { return raster_.pixels(); }

 private:
  Scene& s_;
  reference::MinimalRaster raster_;
};

void softwareFrames(benchmark::State& state, bool threaded, const char* picture = nullptr,
                    int managerThreads = 0) {
  Scene& s = scene();
  RasterizerSW sw;
  setUpSoftware(s, sw);
  s.options.setMultiThreadedSoftware(threaded);
  const int defaultThreads = s.threads.threadCount();
  if (managerThreads > 0) s.threads.setThreadCount(managerThreads);
  drawFrame(sw, s.drawScene());  // warm the workers and the lists
  timespec before{}, after{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
  for (auto _ : state) drawFrame(sw, s.drawScene());
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
  state.counters["threads"] = threaded ? s.threads.threadCount() : 1;
  // CPU time of every thread of the process per frame, in ms: the work, whatever the waits.
  state.counters["process_cpu_ms"] =
      1e3 * (static_cast<double>(after.tv_sec - before.tv_sec) +
             1e-9 * static_cast<double>(after.tv_nsec - before.tv_nsec)) /
      static_cast<double>(state.iterations());
  s.threads.setThreadCount(defaultThreads);
  if (picture != nullptr) {
    gPictures[picture].assign(sw.picture(), sw.picture() + kWidth * kHeight);
  }
}

void BM_MinimalRaster(benchmark::State& state) {
  MinimalFrames minimal(scene());
  minimal.draw();
  for (auto _ : state) minimal.draw();
  gPictures["minimal"].assign(minimal.pixels(), minimal.pixels() + kWidth * kHeight);
}
BENCHMARK(BM_MinimalRaster)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_SoftwareOneThread(benchmark::State& state) {
  softwareFrames(state, false, "one thread");
}
BENCHMARK(BM_SoftwareOneThread)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_SoftwareAllThreads(benchmark::State& state) {
  softwareFrames(state, true, "all threads");
}
BENCHMARK(BM_SoftwareAllThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// Threaded drawing through a thread manager of one worker.
void BM_SoftwareManagerOneWorker(benchmark::State& state) {
  softwareFrames(state, true, "manager of one worker", 1);
}
BENCHMARK(BM_SoftwareManagerOneWorker)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// The share of pixels on which two pictures agree, each channel within `tolerance`; -1 when
// either is missing.
double samePixels(const std::string& a, const std::string& b, int tolerance = 0) {
  const auto ia = gPictures.find(a), ib = gPictures.find(b);
  if (ia == gPictures.end() || ib == gPictures.end() || ia->second.size() != ib->second.size() ||
      ia->second.empty()) {
    return -1.0;
  }
  size_t same = 0;
  for (size_t i = 0; i < ia->second.size(); ++i) {
    bool close = true;
    for (int shift = 0; shift < 24; shift += 8) {
      const int ca = static_cast<int>((ia->second[i] >> shift) & 0xFF);
      const int cb = static_cast<int>((ib->second[i] >> shift) & 0xFF);
      close = close && std::abs(ca - cb) <= tolerance;
    }
    same += close;
  }
  return static_cast<double>(same) / static_cast<double>(ia->second.size());
}

// The same frames as the viewer window draws them by default: 6-sided discs (low quality), and
// the software rasterizer drawing on one thread or by rows on every processor as the window's
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
  softwareFrames(state, false);
}
BENCHMARK(BM_ViewerSoftware)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

void BM_ViewerSoftwareThreads(benchmark::State& state) {
  const ViewerQuality quality;
  softwareFrames(state, true);
}
BENCHMARK(BM_ViewerSoftwareThreads)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

// The software rasterizer's ratios measured in turns: in each round every kind draws a warm-up
// frame and then kFramesPerTurn timed frames, the kinds in alternating order from round to round,
// so that a slow phase of the machine (its speed drifts by tens of percent within a minute) falls
// on all of them. The ratios printed are the medians of the rounds' ratios, with their range.
struct InTurns {
  static constexpr int kRounds = 7;
  static constexpr int kFramesPerTurn = 2;
  enum Kind { kMinimal, kOneThread, kAllThreads, kOneWorker, kKinds };
  std::vector<double> seconds[kKinds];  // per round: seconds per timed frame
};
InTurns gInTurns;

double wallSeconds() {
  timespec t{};
  clock_gettime(CLOCK_MONOTONIC, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

void BM_SoftwareInTurns(benchmark::State& state) {
  Scene& s = scene();
  RasterizerSW sw;
  setUpSoftware(s, sw);
  MinimalFrames minimal(s);
  const int defaultThreads = s.threads.threadCount();
  auto draw = [&](int kind) {
    if (kind == InTurns::kMinimal) {
      minimal.draw();
    } else {
      drawFrame(sw, s.drawScene());
    }
  };
  for (auto _ : state) {
    for (auto& v : gInTurns.seconds) v.clear();
    for (int round = 0; round < InTurns::kRounds; ++round) {
      for (int turn = 0; turn < InTurns::kKinds; ++turn) {
        const int kind = round % 2 == 0 ? turn : InTurns::kKinds - 1 - turn;
        s.options.setMultiThreadedSoftware(kind != InTurns::kOneThread);
        s.threads.setThreadCount(kind == InTurns::kOneWorker ? 1 : defaultThreads);
        draw(kind);  // warms the workers and the caches
        const double start = wallSeconds();
        for (int f = 0; f < InTurns::kFramesPerTurn; ++f) draw(kind);
        gInTurns.seconds[kind].push_back((wallSeconds() - start) / InTurns::kFramesPerTurn);
      }
    }
  }
  s.threads.setThreadCount(defaultThreads);
}
BENCHMARK(BM_SoftwareInTurns)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(1);

// "label  median (lo-hi over n rounds)  (note)" of the rounds' ratios a / b.
void printInTurns(const char* label, InTurns::Kind a, InTurns::Kind b, const char* note) {
  const std::vector<double>& x = gInTurns.seconds[a];
  const std::vector<double>& y = gInTurns.seconds[b];
  if (x.empty() || x.size() != y.size()) return;
  std::vector<double> ratios;
  for (size_t r = 0; r < x.size(); ++r) ratios.push_back(x[r] / y[r]);
  const auto [lo, hi] = std::minmax_element(ratios.begin(), ratios.end());
  std::printf("%-60s %.3f  (%.3f-%.3f over %zu rounds, %s)\n", label, median(ratios), *lo, *hi,
              ratios.size(), note);
}

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
  if (!gInTurns.seconds[InTurns::kMinimal].empty()) {
    std::printf("\nThe software rasterizer in turns, median ms per frame: minimal %.1f, one thread "
                "%.1f, all threads %.1f, manager of one worker %.1f; medians of the rounds' "
                "ratios:\n",
                1e3 * median(gInTurns.seconds[InTurns::kMinimal]),
                1e3 * median(gInTurns.seconds[InTurns::kOneThread]),
                1e3 * median(gInTurns.seconds[InTurns::kAllThreads]),
                1e3 * median(gInTurns.seconds[InTurns::kOneWorker]));
  }
  printInTurns("software one thread / minimal rasterizer", InTurns::kOneThread, InTurns::kMinimal,
               "target <= 0.8");
  printInTurns("software one thread / all threads", InTurns::kOneThread, InTurns::kAllThreads,
               "target >= 1.8 on two cores");
  printInTurns("software manager of one worker / one thread", InTurns::kOneWorker,
               InTurns::kOneThread, "target <= 1.0");
  const double minimal = samePixels("one thread", "minimal");
  if (minimal >= 0.0) {
    // Where discs overlap in one plane, the two depth buffers (24-bit fixed point against
    // float) settle the tie differently, and the edge rules differ: neighbouring discs of
    // nearly the same colour show there.
    std::printf("pixels equal to the minimal rasterizer's: %.2f%%, within 8 of 255 in every "
                "channel: %.2f%%\n",
                100.0 * minimal, 100.0 * samePixels("one thread", "minimal", 8));
  }
  for (const char* kind : {"all threads", "manager of one worker"}) {
    const double same = samePixels("one thread", kind);
    if (same >= 0.0) {
      std::printf("pixels of %s equal to one thread's: %.4f%% (target 100%%)\n", kind,
                  100.0 * same);
    }
  }
  benchmark::Shutdown();
  return 0;
}
