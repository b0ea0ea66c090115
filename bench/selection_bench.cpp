// Picks and edits on a synthesised room of one million irradiance samples at 800 x 600, 6-sided
// discs as the viewer draws them by default: a rectangle pick over the whole window, and one of
// 40 x 40 pixels in its middle, in each depth mode (OpenGL off screen: visible, specified depth, full depth; the software rasterizer:
// visible, on one thread and on all), each against one frame of the same back end drawn in the
// same run; and deleting a selection of one million samples and undoing it, against one pass
// over the map's samples.
#include <benchmark/benchmark.h>

#include <string>
#include <utility>

#include "bench_room.h"
#include "ratio_reporter.h"

#include <cstdio>
#include <memory>

#include "render/gl/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/sample_drawing.h"
#include "synth/synth_room.h"
#include "viewer/edit_history.h"
#include "viewer/selection.h"

namespace {

using namespace LUtils;

constexpr int kWidth = 800;
constexpr int kHeight = 600;
constexpr PickRect kWholeWindow{0, 0, kWidth - 1, kHeight - 1};
// A rubber band of 40 x 40 pixels in the middle of the window: the everyday pick.
constexpr PickRect kSmall{380, 280, 419, 319};

struct Scene : SynthRoom {
  DefThreadManager threads;
  DrawOptions options;
  SampleEdits edits;
  DrawView view;

  Scene() : SynthRoom(1000000, kWidth, kHeight) {
    automaticBrightness(drawn(), options);
    edits.reset(static_cast<uint32_t>(map.numSamples()));
  }
  DrawScene drawScene() { return {drawn(), &options, &edits, &view, nullptr, &threads}; }
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

RasterizerSW& software() {
  static std::unique_ptr<RasterizerSW> sw = [] {
    auto r = std::make_unique<RasterizerSW>();
    r->resize(kWidth, kHeight);
    r->setCamera(&scene().camera);
    r->setFarDistance(scene().farDistance);
    return r;
  }();
  return *sw;
}

void frames(benchmark::State& state, Rasterizer3D& r, bool threaded) {
  Scene& s = scene();
  s.options.setMultiThreadedSoftware(threaded);
  for (auto _ : state) {
    drawFrame(r, s.drawScene());
    r.swapBuffers();
  }
}

void picks(benchmark::State& state, Rasterizer3D& r, int32_t mode, bool threaded) {
  Scene& s = scene();
  s.options.setMultiThreadedSoftware(threaded);
  SelectionSettings settings;
  settings.depthMode = mode;
  settings.specifiedDepth = 20.0f;
  uint64_t selected = 0;
  for (auto _ : state) {
    s.edits.clearSelection();
    selected = runSelection(r, s.drawScene(), s.edits, settings,
                            state.range(0) == 0 ? kWholeWindow : kSmall);
  }
  state.counters["selected"] = static_cast<double>(selected);
}

void BM_GLFrame(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  frames(state, *gl, false);
}
void BM_GLPickVisible(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  picks(state, *gl, kDepthVisible, false);
}
void BM_GLPickSpecified(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  picks(state, *gl, kDepthSpecified, false);
}
void BM_GLPickFull(benchmark::State& state) {
  RasterizerGL* gl = offscreenGL();
  if (gl == nullptr) return state.SkipWithError("no off-screen OpenGL context");
  picks(state, *gl, kDepthFull, false);
}
void BM_SoftwareFrame(benchmark::State& state) { frames(state, software(), false); }
void BM_SoftwarePickVisible(benchmark::State& state) {
  picks(state, software(), kDepthVisible, false);
}
void BM_SoftwareThreadsFrame(benchmark::State& state) { frames(state, software(), true); }
void BM_SoftwareThreadsPickVisible(benchmark::State& state) {
  picks(state, software(), kDepthVisible, true);
}

// One pass over every sample: the least any edit of a million samples has to do.
void BM_OnePassOverTheSamples(benchmark::State& state) {
  Scene& s = scene();
  for (auto _ : state) {
    Vector lo, hi;
    sceneBounds(s.drawn(), lo, hi);
    benchmark::DoNotOptimize(lo);
  }
}

void BM_DeleteAndUndoAMillion(benchmark::State& state) {
  Scene& s = scene();
  const uint32_t count = static_cast<uint32_t>(s.map.numSamples());
  EditHistory history;
  for (auto _ : state) {
    state.PauseTiming();
    s.edits.editSelected([count](SampleBits& bits) {
      for (uint32_t i = 0; i < count; ++i) bits.set(i);
    });
    state.ResumeTiming();
    history.deleteSelection(s.edits, count);
    history.undo();
  }
  history.clear();
}

BENCHMARK(BM_GLFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_GLPickVisible)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_GLPickSpecified)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_GLPickFull)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SoftwareFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SoftwarePickVisible)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SoftwareThreadsFrame)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_SoftwareThreadsPickVisible)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_OnePassOverTheSamples)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
BENCHMARK(BM_DeleteAndUndoAMillion)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const struct {
    const char* label;
    const char* pick;
    const char* frame;
  } ratios[] = {
      {"OpenGL pick, visible", "BM_GLPickVisible", "BM_GLFrame"},
      {"OpenGL pick, specified depth", "BM_GLPickSpecified", "BM_GLFrame"},
      {"OpenGL pick, full depth", "BM_GLPickFull", "BM_GLFrame"},
      {"software pick, visible", "BM_SoftwarePickVisible", "BM_SoftwareFrame"},
      {"software pick on all threads, visible", "BM_SoftwareThreadsPickVisible",
       "BM_SoftwareThreadsFrame"},
  };
  for (const auto& [arg, what] : {std::pair{"/0/", "the whole window"},
                                  std::pair{"/1/", "a 40 x 40 rectangle"}}) {
    std::printf("\nRatios (a pick of %s against one frame of the same back end):\n", what);
    for (const auto& r : ratios) {
      reporter.printRatio(std::string(r.label) + " / frame", std::string(r.pick) + arg, r.frame,
                          false, "for information");
    }
  }
  std::printf("\n");
  reporter.printRatio("delete + undo of 1M selected / one pass over the samples",
                      "BM_DeleteAndUndoAMillion", "BM_OnePassOverTheSamples", false,
                      "for information");
  return 0;
}
