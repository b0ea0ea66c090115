// The incremental merge: a 1M-sample frame of the synthesised room added incrementally into a
// prepared 1M-sample frame of the same room, against the plain add of the same samples in the same
// run; and the preparation (kd-tree rebuild) of a 10M-sample map against the plain add of its
// samples into an empty map.
//
// Counters: "offered_per_s" is source samples offered per second of CPU time (target: 1M/s or
// more on one core); "vs_plain" is CPU time divided by the reference's; "kept" is the number of
// samples the incremental add stored.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "bench_maps.h"
#include "irradiance/def_irradiance_map.h"
#include "synth/generator.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

uint32_t frameCount() { return benchmaps::sampleCount(1000000); }

const std::vector<IrradSample>& frame(int which) {
  static std::vector<IrradSample> frames[3];
  std::vector<IrradSample>& f = frames[which];
  if (f.empty()) {
    synth::Params p;
    p.count = frameCount();
    p.seed = 1 + which;
    // Frames 0 and 1: the same camera; frame 2: the second camera of the walk.
    p.view = synth::presetView(which == 2 ? 1 : 0);
    synth::generate(p, f);
  }
  return f;
}

std::unique_ptr<DefIrradianceMap> mapOf(const std::vector<IrradSample>& samples, int copies = 1) {
  auto map = std::make_unique<DefIrradianceMap>();
  synth::Params p;
  map->setHeader(synth::makeHeader(p));
  for (int c = 0; c < copies; ++c) {
    // Copies stand side by side, 20 m apart, like rooms of one building.
    const LUtils::Vector offset{20.0f * static_cast<float>(c), 0.0f, 0.0f};
    for (IrradSample s : samples) {
      s.position += offset;
      map->appendSample(s);
    }
  }
  return map;
}

benchmaps::Times gPlain;
benchmaps::Times gPlainLarge;

void report(benchmark::State& state, const benchmaps::Times& reference, const benchmaps::Times& t) {
  if (reference.cpu > 0.0) {
    state.counters["vs_plain"] = t.cpu / reference.cpu;
    state.counters["vs_plain_wall"] = t.wall / reference.wall;
  }
}

void BM_PlainAdd(benchmark::State& state) {
  const auto source = mapOf(frame(1));
  benchmaps::Times total;
  for (auto _ : state) {
    state.PauseTiming();
    auto target = mapOf(frame(0));
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    target->addSamples(*source, nullptr, 0);
    total += watch.elapsed();
  }
  gPlain = total.per(state.iterations());
  state.counters["offered_per_s"] = frameCount() / gPlain.cpu;
}

void incrementalAdd(benchmark::State& state, int sourceFrame) {
  const auto source = mapOf(frame(sourceFrame));
  benchmaps::Times total;
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto target = mapOf(frame(0));
    target->prepare(0);
    const size_t before = target->samples().size();
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    target->addSamples(*source, nullptr, 1);
    total += watch.elapsed();
    kept = target->samples().size() - before;
  }
  const benchmaps::Times per = total.per(state.iterations());
  state.counters["offered_per_s"] = frameCount() / per.cpu;
  state.counters["kept"] = static_cast<double>(kept);
  report(state, gPlain, per);
}

void BM_IncrementalAddSameCamera(benchmark::State& state) { incrementalAdd(state, 1); }
void BM_IncrementalAddSecondCamera(benchmark::State& state) { incrementalAdd(state, 2); }

void BM_PlainAdd10M(benchmark::State& state) {
  const auto source = mapOf(frame(0), 10);
  benchmaps::Times total;
  for (auto _ : state) {
    state.PauseTiming();
    auto target = std::make_unique<DefIrradianceMap>();
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    target->addSamples(*source, nullptr, 0);
    total += watch.elapsed();
    state.PauseTiming();
    target.reset();
    state.ResumeTiming();
  }
  gPlainLarge = total.per(state.iterations());
}

void BM_Prepare10M(benchmark::State& state) {
  const auto map = mapOf(frame(0), 10);
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    map->prepare(0);
    total += watch.elapsed();
  }
  const benchmaps::Times per = total.per(state.iterations());
  state.counters["samples"] = static_cast<double>(map->samples().size());
  state.counters["seconds"] = per.wall;
  report(state, gPlainLarge, per);
}

BENCHMARK(BM_PlainAdd)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IncrementalAddSameCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IncrementalAddSecondCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PlainAdd10M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Prepare10M)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
