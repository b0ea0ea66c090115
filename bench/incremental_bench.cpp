// The incremental merge against a plain octree irradiance cache (bench/reference) that applies
// the same rule to the same offered samples in the same order, in the same run: a 1M-sample frame
// of the synthesised room offered to a prepared 1M-sample frame of the same room (same camera and
// second camera), and 3M samples offered to an empty map. Both keep the same samples; the table
// after the runs gives both kept counts and the reference's seconds per offered sample over ours
// (target: 3 or more, on one core). Also the plain add of the same samples, and the preparation
// (kd-tree rebuild) of a 10M-sample map against the plain add of its samples into an empty map.
//
// Counters: "offered_per_s" is source samples offered per second of CPU time; "vs_plain" is CPU
// time divided by the plain add's; "kept" is the number of samples stored.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_maps.h"
#include "merge_frames.h"
#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "synth/generator.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

using benchmaps::frame;
using benchmaps::frameCount;
using benchmaps::mapOf;

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

// One case of the comparison: seconds per offered sample and samples kept, ours and the
// reference's.
struct Case {
  const char* name;
  benchmaps::Times ours, reference;
  size_t keptOurs = 0, keptReference = 0;
};
Case gCases[3] = {{"1M into 1M, same camera", {}, {}},
                  {"1M into 1M, second camera", {}, {}},
                  {"3M into an empty map", {}, {}}};

// baseFrame < 0: an empty map.
void incrementalAdd(benchmark::State& state, int baseFrame, int sourceFrame, Case& c) {
  const auto source = mapOf(frame(sourceFrame));
  const size_t offered = frame(sourceFrame).size();
  benchmaps::Times total;
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto target = baseFrame >= 0 ? mapOf(frame(baseFrame)) : mapOf({});
    target->prepare(0);
    target->setMergeThreads(nullptr, 1);  // one core against the one-core reference
    const size_t before = target->samples().size();
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    target->addSamples(*source, nullptr, 1);
    total += watch.elapsed();
    kept = target->samples().size() - before;
    state.PauseTiming();
    target.reset();
    state.ResumeTiming();
  }
  const benchmaps::Times per = total.per(state.iterations());
  state.counters["offered_per_s"] = static_cast<double>(offered) / per.cpu;
  state.counters["kept"] = static_cast<double>(kept);
  if (baseFrame >= 0) report(state, gPlain, per);
  c.ours = per.per(static_cast<int64_t>(offered));
  c.keptOurs = kept;
}

// The same offers to the octree cache built over the same map (the build is not timed, as the
// map's preparation is not).
void referenceAdd(benchmark::State& state, int baseFrame, int sourceFrame, Case& c) {
  const std::vector<IrradSample>& offered = frame(sourceFrame);
  benchmaps::Times total;
  size_t kept = 0;
  for (auto _ : state) {
    state.PauseTiming();
    auto cache = benchmaps::referenceHolding(baseFrame, offered.size());
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    size_t n = 0;
    for (const IrradSample& s : offered) n += cache->offer(s);
    total += watch.elapsed();
    kept = n;
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
  const benchmaps::Times per = total.per(state.iterations());
  state.counters["offered_per_s"] = static_cast<double>(offered.size()) / per.cpu;
  state.counters["kept"] = static_cast<double>(kept);
  c.reference = per.per(static_cast<int64_t>(offered.size()));
  c.keptReference = kept;
}

void BM_IncrementalAddSameCamera(benchmark::State& state) { incrementalAdd(state, 0, 1, gCases[0]); }
void BM_ReferenceSameCamera(benchmark::State& state) { referenceAdd(state, 0, 1, gCases[0]); }
void BM_IncrementalAddSecondCamera(benchmark::State& state) {
  incrementalAdd(state, 0, 2, gCases[1]);
}
void BM_ReferenceSecondCamera(benchmark::State& state) { referenceAdd(state, 0, 2, gCases[1]); }
void BM_IncrementalAdd3MEmpty(benchmark::State& state) { incrementalAdd(state, -1, 3, gCases[2]); }
void BM_Reference3MEmpty(benchmark::State& state) { referenceAdd(state, -1, 3, gCases[2]); }

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

// A plain load of a 10M-sample map file, and the preparation that the viewer runs on a map it
// has loaded (prepare(kPrepareAfterLoad)) of the same map: the table after the runs gives the
// preparation's time over the load's.
benchmaps::Times gLoad10M, gPrepare10M;

// Empty when the file could not be written.
const std::string& file10M() {
  static const std::string path = [] {
    const auto map = mapOf(frame(0), 10);
    std::string file = benchmaps::scratch().path("room10m.lumap");
    return map->saveToFile(file.c_str(), nullptr) == 0 ? file : std::string();
  }();
  return path;
}

void BM_Load10M(benchmark::State& state) {
  const std::string& path = file10M();
  if (path.empty()) return state.SkipWithError("cannot write the map");
  benchmaps::Times total;
  for (auto _ : state) {
    auto map = std::make_unique<DefIrradianceMap>();
    const benchmaps::Stopwatch watch;
    if (map->loadFromFile(path.c_str(), 0, 0.0f) != 0) return state.SkipWithError("load failed");
    total += watch.elapsed();
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  gLoad10M = total.per(state.iterations());
}

void BM_Prepare10M(benchmark::State& state) {
  const auto map = mapOf(frame(0), 10);
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    map->prepare(DefIrradianceMap::kPrepareAfterLoad);
    total += watch.elapsed();
  }
  const benchmaps::Times per = total.per(state.iterations());
  state.counters["samples"] = static_cast<double>(map->samples().size());
  state.counters["seconds"] = per.wall;
  report(state, gPlainLarge, per);
  gPrepare10M = per;
}

BENCHMARK(BM_PlainAdd)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IncrementalAddSameCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ReferenceSameCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IncrementalAddSecondCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ReferenceSecondCamera)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_IncrementalAdd3MEmpty)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Reference3MEmpty)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_PlainAdd10M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Load10M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Prepare10M)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nIncremental add against the octree cache (seconds per offered sample, CPU; "
              "target: reference / ours >= 3):\n");
  for (const Case& c : gCases) {
    if (c.ours.cpu <= 0.0 || c.reference.cpu <= 0.0) continue;
    std::printf("%-28s ours %7.3f us, reference %7.3f us, reference / ours %5.2f (wall %5.2f); "
                "kept %zu and %zu%s\n",
                c.name, 1e6 * c.ours.cpu, 1e6 * c.reference.cpu, c.reference.cpu / c.ours.cpu,
                c.reference.wall / c.ours.wall, c.keptOurs, c.keptReference,
                c.keptOurs == c.keptReference ? "" : "  MISMATCH");
  }
  if (gLoad10M.wall > 0.0 && gPrepare10M.wall > 0.0) {
    std::printf("\nprepare(%d) of a 10M-sample map / a plain load of its file: %.2f (wall; "
                "%.0f ms against %.0f ms)\n",
                DefIrradianceMap::kPrepareAfterLoad, gPrepare10M.wall / gLoad10M.wall,
                1e3 * gPrepare10M.wall, 1e3 * gLoad10M.wall);
  }
  benchmark::Shutdown();
  return 0;
}
