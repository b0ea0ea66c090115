// -convert of a large map: the conversion as the program runs it (load, format, write) against
// the same work done with one fprintf per line, in the same run. The counter "speedup" on the
// conversion is the reference's CPU time divided by the conversion's (speedup_wall: the same on
// wall-clock time); the target is 5 or more.
//
// A second pair isolates the formatting: the same lines formatted in memory by the conversion's
// formatter and by snprintf.
#include <benchmark/benchmark.h>
#include <stdio.h>

#include <cstdio>
#include <vector>

#include "app/pts_conversion.h"
#include "bench_maps.h"
#include "irradiance/irradiance_map.h"

namespace {

const std::string& mapFile() {
  static const std::string file =
      benchmaps::writeRandomMap("convert.lumap", benchmaps::sampleCount(10000000), 17);
  return file;
}

benchmaps::Times gReference;
benchmaps::Times gReferenceFormat;

// How many times faster than the reference: on CPU time ("speedup") and on wall-clock time.
void reportSpeedup(benchmark::State& state, const benchmaps::Times& reference,
                   const benchmaps::Times& measured) {
  if (reference.cpu <= 0.0) return;
  state.counters["speedup"] = reference.cpu / measured.cpu;
  state.counters["speedup_wall"] = reference.wall / measured.wall;
}

// The straightforward conversion: load the map, fprintf every line to a buffered file.
class FprintfCallback final : public LUtils::EnumIrradianceSamplesCallback {
 public:
  explicit FprintfCallback(FILE* out) : out_(out) {}
  int process(LUtils::IrradSample& s) override {
    std::fprintf(out_, "v %0.4f %0.4f %0.4f %d %d %d\r\n", s.position.x, s.position.y,
                 s.position.z, s.colour[0], s.colour[1], s.colour[2]);
    return 1;
  }

 private:
  FILE* out_;
};

void BM_ConvertWithFprintf(benchmark::State& state) {
  const std::string& from = mapFile();
  const std::string to = benchmaps::scratch().path("reference.pts");
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
    if (map->loadFromFile(from.c_str(), 0, 0.0f) != 0) state.SkipWithError("load failed");
    FILE* out = std::fopen(to.c_str(), "wb");
    FprintfCallback callback(out);
    map->enumerateSamples(0, &callback);
    std::fclose(out);
    LUtils::deleteIrradianceMap(map);
    total += watch.elapsed();
  }
  gReference = total.per(state.iterations());
}

void BM_Convert(benchmark::State& state) {
  const std::string& from = mapFile();
  const std::string to = benchmaps::scratch().path("fast.pts");
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    if (convertIrradianceMap(from.c_str(), to.c_str(), kPtsPositionsAndColours) != 0)
      state.SkipWithError("conversion failed");
    total += watch.elapsed();
  }
  const benchmaps::Times t = total.per(state.iterations());
  reportSpeedup(state, gReference, t);
}

// Formatting alone, over samples in memory.
std::vector<LUtils::IrradSample>& memorySamples() {
  static std::vector<LUtils::IrradSample> samples = [] {
    std::vector<LUtils::IrradSample> result;
    LUtils::IrradianceMap* map = LUtils::newIrradianceMap();
    if (map->loadFromFile(mapFile().c_str(), 0, 0.0f) == 0) {
      struct Collect final : LUtils::EnumIrradianceSamplesCallback {
        std::vector<LUtils::IrradSample>* out = nullptr;
        int process(LUtils::IrradSample& s) override {
          out->push_back(s);
          return 1;
        }
      } collect;
      collect.out = &result;
      map->enumerateSamples(0, &collect);
    }
    LUtils::deleteIrradianceMap(map);
    return result;
  }();
  return samples;
}

void BM_FormatWithSnprintf(benchmark::State& state) {
  const auto& samples = memorySamples();
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    char line[pts::kLineCapacity];
    for (const auto& s : samples) {
      std::snprintf(line, sizeof line, "v %0.4f %0.4f %0.4f %d %d %d\r\n", s.position.x,
                    s.position.y, s.position.z, s.colour[0], s.colour[1], s.colour[2]);
      benchmark::DoNotOptimize(line);
    }
    total += watch.elapsed();
  }
  gReferenceFormat = total.per(state.iterations());
}

void BM_FormatLines(benchmark::State& state) {
  const auto& samples = memorySamples();
  benchmaps::Times total;
  for (auto _ : state) {
    const benchmaps::Stopwatch watch;
    char line[pts::kLineCapacity];
    for (const auto& s : samples) {
      benchmark::DoNotOptimize(pts::formatLine(line, s, kPtsPositionsAndColours));
      benchmark::DoNotOptimize(line);
    }
    total += watch.elapsed();
  }
  const benchmaps::Times t = total.per(state.iterations());
  reportSpeedup(state, gReferenceFormat, t);
}

// The reference of each pair runs first, so that its time is known when the ratio is taken.
BENCHMARK(BM_ConvertWithFprintf)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Convert)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FormatWithSnprintf)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_FormatLines)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

BENCHMARK_MAIN();
