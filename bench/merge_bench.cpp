// Plain merge of two large maps (what "-load a -load b" does after loading) against copying the
// same bytes into freshly allocated memory with memcpy, in the same run. The counter
// "vs_memcpy" on the merge is the merge's CPU time divided by the copy's (vs_memcpy_wall: the same
// on wall-clock time); the target is 2 or less.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "app/my_progress.h"
#include "bench_maps.h"
#include "irradiance/irradiance_map.h"

namespace {

uint32_t halfCount() { return benchmaps::sampleCount(5000000); }

const std::string& fileA() {
  static const std::string file = benchmaps::writeRandomMap("merge_a.lumap", halfCount(), 1);
  return file;
}
const std::string& fileB() {
  static const std::string file = benchmaps::writeRandomMap("merge_b.lumap", halfCount(), 2);
  return file;
}

benchmaps::Times gCopy;

LUtils::IrradianceMap* load(const std::string& file) {
  LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
  if (map->loadFromFile(file.c_str(), 0, 0.0f) != 0) {
    LUtils::deleteIrradianceMap(map);
    return nullptr;
  }
  return map;
}

void BM_CopyWithMemcpy(benchmark::State& state) {
  const size_t bytes = size_t{halfCount()} * sizeof(LUtils::IrradSample);
  std::vector<char> source(bytes, '\x5a');
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    char* fresh = static_cast<char*>(std::malloc(bytes));
    std::memcpy(fresh, source.data(), bytes);
    benchmark::DoNotOptimize(fresh);
    benchmark::ClobberMemory();
    std::free(fresh);
    total += watch.elapsed();
  }
  gCopy = total.per(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(bytes) * state.iterations());
}

void BM_PlainMerge(benchmark::State& state) {
  LUtils::IrradianceMap* source = load(fileB());
  if (!source) {
    state.SkipWithError("cannot load the source map");
    return;
  }
  FILE* sink = std::fopen("/dev/null", "w");
  benchmaps::Times total;
  for (auto _ : state) {
    state.PauseTiming();
    LUtils::IrradianceMap* target = load(fileA());
    MyProgress progress(sink);
    progress.setTitle("Adding samples");
    state.ResumeTiming();

    const benchmaps::Stopwatch watch;
    target->addSamples(*source, &progress, 0);
    total += watch.elapsed();

    state.PauseTiming();
    if (target->numSamples() != static_cast<int>(2 * halfCount()))
      state.SkipWithError("the merge lost samples");
    target->freeSamples();
    LUtils::deleteIrradianceMap(target);
    state.ResumeTiming();
  }
  const benchmaps::Times t = total.per(state.iterations());
  if (gCopy.cpu > 0.0) {
    state.counters["vs_memcpy"] = t.cpu / gCopy.cpu;
    state.counters["vs_memcpy_wall"] = t.wall / gCopy.wall;
  }
  state.SetBytesProcessed(static_cast<int64_t>(halfCount()) *
                          static_cast<int64_t>(sizeof(LUtils::IrradSample)) *
                          state.iterations());
  std::fclose(sink);
  source->freeSamples();
  LUtils::deleteIrradianceMap(source);
}

// The reference runs first, so that its time is known when the ratio is taken.
BENCHMARK(BM_CopyWithMemcpy)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_PlainMerge)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
