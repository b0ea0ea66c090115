// The incremental merge on one thread and on two, in the same run: a 1M-sample frame of the
// synthesised room offered to a prepared 1M-sample frame (same camera; second camera), and 3M
// samples offered to an empty map; also the octree reference cache (bench/reference) offered the
// same samples. The table after the runs gives, per case, one thread's wall time over two
// threads' (target: 1.7 or more on two cores), the reference's time over two threads', the
// samples kept, the batches and the samples looked up again per batch, the CPU time of the
// lookups, of listing the kept samples in the grid and checking the next batch (both shared by
// the calling thread and the workers) and of the commits (the calling thread alone, while the
// workers look up the next batch), the bound on one / two those give on two idle cores, the
// wall time of each step, and whether the two maps are the same byte for byte.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "bench_maps.h"
#include "merge_frames.h"
#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "synth/generator.h"
#include "threads/thread_manager.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

using benchmaps::frame;
using benchmaps::frameCount;
using benchmaps::mapOf;

LUtils::DefThreadManager gThreads;

struct Case {
  Case(const char* n, int b, int s) : name(n), base(b), source(s) {}
  const char* name;
  int base, source;  // frames; base < 0: an empty map
  benchmaps::Times time[3];  // one thread, two threads, the reference
  size_t kept[3] = {0, 0, 0};
  LUtils::ParallelAddStats stats;
  std::vector<IrradSample> result[2];  // the merged samples of one and two threads
};
Case gCases[3] = {{"1M into 1M, same camera", 0, 1},
                  {"1M into 1M, second camera", 0, 2},
                  {"3M into an empty map", -1, 3}};

void merge(benchmark::State& state, Case& c, int threads) {
  const auto source = mapOf(frame(c.source));
  benchmaps::Times total;
  for (auto _ : state) {
    state.PauseTiming();
    auto target = mapOf(c.base >= 0 ? frame(c.base) : std::vector<IrradSample>{});
    target->prepare(0);
    target->setMergeThreads(&gThreads, threads);
    const size_t before = target->samples().size();
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    target->addSamples(*source, nullptr, 1);
    total += watch.elapsed();
    state.PauseTiming();
    c.kept[threads - 1] = target->samples().size() - before;
    if (threads > 1) c.stats = target->lastParallelAdd();
    std::vector<IrradSample>& out = c.result[threads - 1];
    out.resize(target->samples().size());
    for (size_t i = 0; i < out.size(); ++i) out[i] = target->samples()[i];
    target.reset();
    state.ResumeTiming();
  }
  c.time[threads - 1] = total.per(state.iterations());
  state.counters["kept"] = static_cast<double>(c.kept[threads - 1]);
}

void reference(benchmark::State& state, Case& c) {
  const std::vector<IrradSample>& offered = frame(c.source);
  benchmaps::Times total;
  for (auto _ : state) {
    state.PauseTiming();
    auto cache = benchmaps::referenceHolding(c.base, offered.size());
    state.ResumeTiming();
    const benchmaps::Stopwatch watch;
    size_t n = 0;
    for (const IrradSample& s : offered) n += cache->offer(s);
    total += watch.elapsed();
    c.kept[2] = n;
    state.PauseTiming();
    cache.reset();
    state.ResumeTiming();
  }
  c.time[2] = total.per(state.iterations());
}

void BM_SameCamera1(benchmark::State& s) { merge(s, gCases[0], 1); }
void BM_SameCamera2(benchmark::State& s) { merge(s, gCases[0], 2); }
void BM_SameCameraReference(benchmark::State& s) { reference(s, gCases[0]); }
void BM_SecondCamera1(benchmark::State& s) { merge(s, gCases[1], 1); }
void BM_SecondCamera2(benchmark::State& s) { merge(s, gCases[1], 2); }
void BM_SecondCameraReference(benchmark::State& s) { reference(s, gCases[1]); }
void BM_Empty3M1(benchmark::State& s) { merge(s, gCases[2], 1); }
void BM_Empty3M2(benchmark::State& s) { merge(s, gCases[2], 2); }
void BM_Empty3MReference(benchmark::State& s) { reference(s, gCases[2]); }

BENCHMARK(BM_SameCamera1)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_SameCamera2)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_SameCameraReference)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_SecondCamera1)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_SecondCamera2)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_SecondCameraReference)->Unit(benchmark::kMillisecond)->Iterations(2)->UseRealTime();
BENCHMARK(BM_Empty3M1)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Empty3M2)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Empty3MReference)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nIncremental add on two threads (wall time; target: one / two >= 1.7 on two "
              "cores):\n");
  for (const Case& c : gCases) {
    if (c.time[0].wall <= 0.0 || c.time[1].wall <= 0.0) continue;
    const bool same = c.result[0].size() == c.result[1].size() &&
                      std::memcmp(c.result[0].data(), c.result[1].data(),
                                  c.result[0].size() * sizeof(IrradSample)) == 0;
    const double batches = static_cast<double>(c.stats.batches ? c.stats.batches : 1);
    std::printf("%-26s one / two %5.2f, reference / two %5.2f; kept %zu; %llu batches of %.0f, "
                "%.1f looked up again per batch; CPU: lookups %.3f s, listing %.3f s, commits %.3f s, "
                "one thread %.3f s (one / two on two idle cores at most %.2f); wall: commits %.3f s, "
                "lookups after them %.3f s, listing %.3f s; maps %s\n",
                c.name, c.time[0].wall / c.time[1].wall,
                c.time[2].wall > 0.0 ? c.time[2].wall / c.time[1].wall : 0.0, c.kept[1],
                static_cast<unsigned long long>(c.stats.batches),
                static_cast<double>(c.stats.offered) / batches,
                static_cast<double>(c.stats.redone) / batches, c.stats.lookupCpuSeconds,
                c.stats.listCpuSeconds, c.stats.commitCpuSeconds, c.time[0].cpu,
                c.time[0].cpu / std::max(c.stats.commitCpuSeconds,
                                         (c.stats.commitCpuSeconds + c.stats.lookupCpuSeconds +
                                          c.stats.listCpuSeconds) / 2),
                c.stats.commitSeconds, c.stats.lookupSeconds, c.stats.listSeconds,
                same ? "identical" : "DIFFERENT");
  }
  benchmark::Shutdown();
  return 0;
}
