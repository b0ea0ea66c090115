// The incremental merge against a plain octree irradiance cache (bench/reference) that applies
// the same rule to the same offered samples in the same order, in the same run: a 1M-sample frame
// of the synthesised room offered to a prepared 1M-sample frame of the same room (same camera and
// second camera), and 3M samples offered to an empty map. Both keep the same samples; the table
// after the runs gives both kept counts and the reference's seconds per offered sample over ours
// (target: 3 or more, on one core), as the median over rounds that run the two in alternating
// order. Also the plain add of the same samples, and the preparation (kd-tree rebuild) of a
// 10M-sample map against the plain add of its samples into an empty map.
//
// Counters: "offered_per_s" (and "reference_per_s") is source samples offered per second of CPU
// time, the median over the rounds; "vs_plain" is CPU time divided by the plain add's; "kept" is
// the number of samples stored.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "bench_maps.h"
#include "merge_frames.h"
#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "ratio_reporter.h"
#include "synth/generator.h"
#include "threads/heap_policy.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

using benchmaps::frame;
using benchmaps::frameCount;
using benchmaps::mapOf;

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
  state.counters["offered_per_s"] = frameCount() / total.per(state.iterations()).cpu;
}

// One case of the comparison, run in rounds of ours and the reference in alternating order, so
// that a slow phase of the machine (its speed drifts by tens of percent within a minute) falls on
// both: the table gives the median of the rounds' ratios, their range, and the median seconds
// per offered sample of each.
struct Case {
  Case(const char* n, int b, int s, int r) : name(n), baseFrame(b), sourceFrame(s), rounds(r) {}
  const char* name;
  int baseFrame;  // < 0: an empty map
  int sourceFrame;
  int rounds;
  std::vector<double> ours, reference, ratios;  // CPU seconds per offered sample; per round
  std::vector<double> oursSystem, referenceSystem;  // the part of it in the kernel
  size_t keptOurs = 0, keptReference = 0;
};
Case gCases[3] = {{"1M into 1M, same camera", 0, 1, 5},
                  {"1M into 1M, second camera", 0, 2, 5},
                  {"3M into an empty map", -1, 3, 5}};

// Our merge on one core, into a freshly prepared map; the preparation is not timed.
benchmaps::Times oursOnce(const Case& c, DefIrradianceMap& source, size_t& kept) {
  auto target = c.baseFrame >= 0 ? mapOf(frame(c.baseFrame)) : mapOf({});
  target->prepare(0);
  target->setMergeThreads(nullptr, 1);  // one core against the one-core reference
  const size_t before = target->samples().size();
  const benchmaps::Stopwatch watch;
  target->addSamples(source, nullptr, 1);
  const benchmaps::Times t = watch.elapsed();
  kept = target->samples().size() - before;
  return t;
}

// The same offers to the octree cache built over the same map (the build is not timed, as the
// map's preparation is not).
benchmaps::Times referenceOnce(const Case& c, size_t& kept) {
  const std::vector<IrradSample>& offered = frame(c.sourceFrame);
  auto cache = benchmaps::referenceHolding(c.baseFrame, offered.size());
  const benchmaps::Stopwatch watch;
  size_t n = 0;
  for (const IrradSample& s : offered) n += cache->offer(s);
  const benchmaps::Times t = watch.elapsed();
  kept = n;
  return t;
}

void compare(benchmark::State& state, Case& c) {
  const auto source = mapOf(frame(c.sourceFrame));
  const auto offered = static_cast<double>(frame(c.sourceFrame).size());
  for (auto _ : state) {
    c.ours.clear();
    c.reference.clear();
    c.ratios.clear();
    c.oursSystem.clear();
    c.referenceSystem.clear();
    for (int r = 0; r < c.rounds; ++r) {
      benchmaps::Times ours, reference;
      for (int k = 0; k < 2; ++k) {
        if ((r + k) % 2 == 0) {  // ours first in even rounds, the reference first in odd ones
          ours = oursOnce(c, *source, c.keptOurs);
        } else {
          reference = referenceOnce(c, c.keptReference);
        }
      }
      c.ours.push_back(ours.cpu / offered);
      c.reference.push_back(reference.cpu / offered);
      c.oursSystem.push_back(ours.system / offered);
      c.referenceSystem.push_back(reference.system / offered);
      c.ratios.push_back(reference.cpu / ours.cpu);
    }
  }
  state.counters["kept"] = static_cast<double>(c.keptOurs);
  state.counters["offered_per_s"] = 1.0 / median(c.ours);
  state.counters["reference_per_s"] = 1.0 / median(c.reference);
}

void BM_SameCamera(benchmark::State& state) { compare(state, gCases[0]); }
void BM_SecondCamera(benchmark::State& state) { compare(state, gCases[1]); }
void BM_Empty3M(benchmark::State& state) { compare(state, gCases[2]); }

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
BENCHMARK(BM_SameCamera)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_SecondCamera)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Empty3M)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_PlainAdd10M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Load10M)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Prepare10M)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  LUtils::keepLargeBlocksMapped();  // as the programs do
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nIncremental add against the octree cache (CPU seconds per offered sample, "
              "one core, of which in the kernel; medians over rounds in alternating order; "
              "target: reference / ours >= 3):\n");
  for (const Case& c : gCases) {
    if (c.ratios.empty()) continue;
    const auto [lo, hi] = std::minmax_element(c.ratios.begin(), c.ratios.end());
    std::printf("%-28s ours %7.3f us (%.3f), reference %7.3f us (%.3f), reference / ours %5.2f "
                "(%.2f-%.2f over %zu rounds); kept %zu and %zu%s\n",
                c.name, 1e6 * median(c.ours), 1e6 * median(c.oursSystem),
                1e6 * median(c.reference), 1e6 * median(c.referenceSystem), median(c.ratios),
                *lo, *hi, c.ratios.size(), c.keptOurs, c.keptReference,
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
