// Loading and saving a large irradiance map, each against a hand-written reference in the same run:
// plain read() of the file in 1 MiB chunks with the records appended into block storage, and plain
// write() of 1 MiB chunks followed by the same flush, close and rename that a save does. The
// ratios are printed at the end. CACHEVIEW_BENCH_SAMPLES sets the map size (default 10 million).
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "ratio_reporter.h"

#include "irradiance/def_irradiance_map.h"

namespace {

using LUtils::BlockSequence;
using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

constexpr size_t kChunk = 1 << 20;
constexpr uint32_t kHeaderBytes = 12 + 160;

size_t sampleCount() {
  const char* env = std::getenv("CACHEVIEW_BENCH_SAMPLES");
  return env ? std::strtoull(env, nullptr, 10) : 10'000'000;
}

std::string inputPath() { return "/tmp/cacheview_irradiance_io_bench." + std::to_string(getpid()) + ".lumap"; }
std::string outputPath() { return "/tmp/cacheview_irradiance_io_bench_out." + std::to_string(getpid()) + ".lumap"; }

// The map that the save benchmarks write, and whose file the load benchmarks read; made once.
DefIrradianceMap& sourceMap() {
  static DefIrradianceMap* map = [] {
    auto* m = new DefIrradianceMap();
    std::minstd_rand rng(1);
    IrradSample s{};
    for (size_t i = 0, n = sampleCount(); i < n; ++i) {
      s.position = {static_cast<float>(rng() % 1000), static_cast<float>(rng() % 1000), 1.0f};
      s.normal = {0.0f, 0.0f, 1.0f};
      s.validRadius2 = static_cast<float>(rng() % 100) * 0.01f;
      s.colour[0] = static_cast<int8_t>(rng());
      s.exponent = 130;
      s.flags = static_cast<uint32_t>(i);
      s.renderId = static_cast<int32_t>(i & 0xFF);
      m->appendSample(s);
    }
    if (m->saveToFile(inputPath().c_str(), nullptr) != 0) {
      std::fprintf(stderr, "cannot write %s\n", inputPath().c_str());
      std::exit(1);
    }
    return m;
  }();
  return *map;
}

void BM_LoadReference(benchmark::State& state) {
  sourceMap();
  std::vector<uint8_t> chunk(kChunk + sizeof(IrradSample));
  for (auto _ : state) {
    auto samples = std::make_unique<BlockSequence<IrradSample>>(DefIrradianceMap::kSamplesPerBlock);
    const int fd = ::open(inputPath().c_str(), O_RDONLY);
    size_t carry = 0;       // bytes of a record split between two chunks
    size_t skip = kHeaderBytes;
    for (;;) {
      const ssize_t got = ::read(fd, chunk.data() + carry, kChunk);
      if (got <= 0) break;
      size_t have = carry + static_cast<size_t>(got);
      size_t at = std::min(skip, have);
      skip -= at;
      for (; at + sizeof(IrradSample) <= have; at += sizeof(IrradSample)) {
        IrradSample s;
        std::memcpy(&s, chunk.data() + at, sizeof s);
        samples->append(s);
      }
      carry = have - at;
      std::memmove(chunk.data(), chunk.data() + at, carry);
    }
    ::close(fd);
    if (samples->size() != sampleCount()) state.SkipWithError("reference read a wrong count");
    state.PauseTiming();
    samples.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sampleCount() * sizeof(IrradSample)));
}

void BM_Load(benchmark::State& state) {
  sourceMap();
  for (auto _ : state) {
    auto map = std::make_unique<DefIrradianceMap>();
    if (map->loadFromFile(inputPath().c_str(), 0, 0.0f) != 0) state.SkipWithError("load failed");
    state.PauseTiming();
    map.reset();
    state.ResumeTiming();
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sampleCount() * sizeof(IrradSample)));
}

void BM_SaveReference(benchmark::State& state) {
  DefIrradianceMap& map = sourceMap();
  std::vector<uint8_t> chunk(kChunk);
  const std::string tmp = outputPath() + ".tmp";
  for (auto _ : state) {
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    size_t used = kHeaderBytes;  // the header's bytes, content irrelevant here
    auto& samples = map.samples();
    for (size_t b = 0; b < samples.blockCount(); ++b) {
      const IrradSample* block = samples.block(b);
      for (size_t i = 0, n = samples.blockLength(b); i < n; ++i) {
        if (used + sizeof(IrradSample) > kChunk) {
          if (::write(fd, chunk.data(), used) != static_cast<ssize_t>(used)) state.SkipWithError("write");
          used = 0;
        }
        std::memcpy(chunk.data() + used, &block[i], sizeof(IrradSample));
        used += sizeof(IrradSample);
      }
    }
    if (::write(fd, chunk.data(), used) != static_cast<ssize_t>(used)) state.SkipWithError("write");
    ::fsync(fd);
    ::close(fd);
    ::rename(tmp.c_str(), outputPath().c_str());
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sampleCount() * sizeof(IrradSample)));
}

void BM_Save(benchmark::State& state) {
  DefIrradianceMap& map = sourceMap();
  for (auto _ : state) {
    if (map.saveToFile(outputPath().c_str(), nullptr) != 0) state.SkipWithError("save failed");
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * sampleCount() * sizeof(IrradSample)));
}

// Interleaved so that both sides of each ratio see the same machine state.
BENCHMARK(BM_LoadReference)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Load)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_SaveReference)->Unit(benchmark::kMillisecond)->Iterations(2);
BENCHMARK(BM_Save)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  // On a shared machine the CPU-time ratio is the steadier of the two.
  for (bool cpu : {false, true}) {
    reporter.printRatio("load / reference", "BM_Load/", "BM_LoadReference/", cpu, "target <= 1.3");
    reporter.printRatio("save / reference", "BM_Save/", "BM_SaveReference/", cpu, "no target");
  }
  benchmark::Shutdown();
  ::unlink(inputPath().c_str());
  ::unlink(outputPath().c_str());
  return 0;
}
