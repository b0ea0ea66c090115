// The incremental merge on one thread and on two, in the same run: a 1M-sample frame of the
// synthesised room offered to a prepared 1M-sample frame (same camera; second camera), and 3M
// samples offered to an empty map; also the octree reference cache (bench/reference) offered the
// same samples. This machine's speed drifts by tens of percent within a minute, so each case runs
// in rounds of one thread, two threads and the reference, the first two in alternating order, and
// the ratios are taken within each round: the table gives their medians over the rounds (and
// their range). Per case it gives one thread's wall time over two threads' (target: 1.7 or more on
// two cores), the reference's time over two threads', the samples kept, the batches and the
// samples looked up again per batch, and, for the median round: the CPU time of the lookups, of
// listing the kept samples in the grid and checking the next batch (both shared by the calling
// thread and the workers) and of the commits (the calling thread alone, while the workers look up
// the next batch), the bound on one / two those give on two idle cores, the wall time of each
// step and, of the commits', the folds of the index into a new tree (the workers wait meanwhile,
// and the build runs on two threads, about 1.6 times as fast as on one), how long the calling
// thread waited for the workers to finish their parts of the jobs, and whether the two maps are
// the same byte for byte.
//
// Each round also runs two one-thread merges at once, each into a map of its own, on two threads:
// two merges that share nothing but the machine's memory. Twice one thread's time over the
// slower of the pair is what this machine's two cores give memory-bound work with no overhead at
// all, a ceiling for one / two; where the memory is slow and shared (a virtual machine's), it
// lies well below 2.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "bench_maps.h"
#include "merge_frames.h"
#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "ratio_reporter.h"
#include "synth/generator.h"
#include "threads/heap_policy.h"
#include "threads/thread_manager.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

using benchmaps::frame;
using benchmaps::frameCount;
using benchmaps::mapOf;

LUtils::DefThreadManager gThreads;

struct Round {
  benchmaps::Times one, two;
  double reference = 0.0;  // wall
  double pair = 0.0;       // wall of the slower of two one-thread merges at once
  LUtils::ParallelAddStats stats;
  double ratio() const { return one.wall / two.wall; }
  double ceiling() const { return 2.0 * one.wall / pair; }
};

struct Case {
  Case(const char* n, int b, int s, int r) : name(n), base(b), source(s), rounds(r) {}
  const char* name;
  int base, source;  // frames; base < 0: an empty map
  int rounds;
  std::vector<Round> done;
  size_t kept[3] = {0, 0, 0};  // one thread, two threads, the reference
  bool same = true;            // the maps of one and two threads, every round
};
Case gCases[3] = {{"1M into 1M, same camera", 0, 1, 5},
                  {"1M into 1M, second camera", 0, 2, 5},
                  {"3M into an empty map", -1, 3, 5}};

// One merge of the case's source into its base on `threads` threads; its samples go to `out`.
benchmaps::Times mergeOnce(Case& c, const DefIrradianceMap& source, int threads,
                           std::vector<IrradSample>& out, LUtils::ParallelAddStats& stats) {
  auto target = mapOf(c.base >= 0 ? frame(c.base) : std::vector<IrradSample>{});
  target->prepare(0);
  target->setMergeThreads(&gThreads, threads);
  const size_t before = target->samples().size();
  const benchmaps::Stopwatch watch;
  target->addSamples(const_cast<DefIrradianceMap&>(source), nullptr, 1);
  const benchmaps::Times t = watch.elapsed();
  c.kept[threads - 1] = target->samples().size() - before;
  if (threads > 1) stats = target->lastParallelAdd();
  out.resize(target->samples().size());
  for (size_t i = 0; i < out.size(); ++i) out[i] = target->samples()[i];
  return t;
}

double referenceOnce(Case& c) {
  const std::vector<IrradSample>& offered = frame(c.source);
  auto cache = benchmaps::referenceHolding(c.base, offered.size());
  const benchmaps::Stopwatch watch;
  size_t n = 0;
  for (const IrradSample& s : offered) n += cache->offer(s);
  const double wall = watch.elapsed().wall;
  c.kept[2] = n;
  return wall;
}

// Two one-thread merges of the case at once, each into a map of its own, started together;
// returns the wall time of the slower.
double pairOnce(const Case& c, const DefIrradianceMap& source) {
  std::unique_ptr<DefIrradianceMap> targets[2];
  for (auto& target : targets) {
    target = mapOf(c.base >= 0 ? frame(c.base) : std::vector<IrradSample>{});
    target->prepare(0);
    target->setMergeThreads(&gThreads, 1);
  }
  std::atomic<int> ready{0};
  double walls[2] = {0.0, 0.0};
  const auto merge = [&](int k) {
    ready.fetch_add(1);
    while (ready.load() < 2) std::this_thread::yield();
    const benchmaps::Stopwatch watch;
    targets[k]->addSamples(const_cast<DefIrradianceMap&>(source), nullptr, 1);
    walls[k] = watch.elapsed().wall;
  };
  std::thread other(merge, 1);
  merge(0);
  other.join();
  return std::max(walls[0], walls[1]);
}

void runCase(benchmark::State& state, Case& c) {
  const auto source = mapOf(frame(c.source));
  std::vector<IrradSample> result[2];
  for (auto _ : state) {
    c.done.clear();
    for (int r = 0; r < c.rounds; ++r) {
      Round round;
      for (int k = 0; k < 2; ++k) {
        const int threads = (r + k) % 2 ? 2 : 1;  // 1, 2 in even rounds; 2, 1 in odd ones
        (threads == 1 ? round.one : round.two) =
            mergeOnce(c, *source, threads, result[threads - 1], round.stats);
      }
      round.reference = referenceOnce(c);
      round.pair = pairOnce(c, *source);
      c.same = c.same && result[0].size() == result[1].size() &&
               std::memcmp(result[0].data(), result[1].data(),
                           result[0].size() * sizeof(IrradSample)) == 0;
      c.done.push_back(round);
    }
  }
  state.counters["kept"] = static_cast<double>(c.kept[1]);
}

void BM_SameCamera(benchmark::State& s) { runCase(s, gCases[0]); }
void BM_SecondCamera(benchmark::State& s) { runCase(s, gCases[1]); }
void BM_Empty3M(benchmark::State& s) { runCase(s, gCases[2]); }

BENCHMARK(BM_SameCamera)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_SecondCamera)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_Empty3M)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  LUtils::keepLargeBlocksMapped();  // as the programs do
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  std::printf("\nIncremental add on two threads (wall time; medians of the rounds' ratios; "
              "target: one / two >= 1.7 on two cores):\n");
  for (const Case& c : gCases) {
    if (c.done.empty()) continue;
    std::vector<double> ratios, references, ceilings;
    for (const Round& r : c.done) {
      ratios.push_back(r.ratio());
      references.push_back(r.reference / r.two.wall);
      ceilings.push_back(r.ceiling());
    }
    // The round of the median ratio (the upper one of an even count) gives the breakdown.
    std::vector<const Round*> order;
    for (const Round& r : c.done) order.push_back(&r);
    std::sort(order.begin(), order.end(),
              [](const Round* a, const Round* b) { return a->ratio() < b->ratio(); });
    const Round& m = *order[order.size() / 2];
    const LUtils::ParallelAddStats& st = m.stats;
    const double batches = static_cast<double>(st.batches ? st.batches : 1);
    std::printf("%-26s one / two %5.2f (%.2f-%.2f over %zu rounds), two one-thread merges at "
                "once: 2 x one / the slower %.2f, reference / two %5.2f; "
                "kept %zu; %llu batches of %.0f, %.1f looked up again per batch; median round: "
                "CPU: lookups %.3f s, listing %.3f s, commits %.3f s, one thread %.3f s (one / two "
                "on two idle cores at most %.2f); wall: commits %.3f s, lookups after them "
                "%.3f s, listing %.3f s, of the commits folding the index %.3f s, the calling "
                "thread waiting for the workers to finish their parts %.3f s; maps %s\n",
                c.name, median(ratios), order.front()->ratio(), order.back()->ratio(),
                c.done.size(), median(ceilings), median(references), c.kept[1],
                static_cast<unsigned long long>(st.batches),
                static_cast<double>(st.offered) / batches,
                static_cast<double>(st.redone) / batches, st.lookupCpuSeconds, st.listCpuSeconds,
                st.commitCpuSeconds, m.one.cpu,
                m.one.cpu / std::max(st.commitCpuSeconds,
                                     (st.commitCpuSeconds + st.lookupCpuSeconds +
                                      st.listCpuSeconds) / 2),
                st.commitSeconds, st.lookupSeconds, st.listSeconds, st.foldSeconds,
                st.waitSeconds, c.same && c.kept[0] == c.kept[1] ? "identical" : "DIFFERENT");
  }
  benchmark::Shutdown();
  return 0;
}
