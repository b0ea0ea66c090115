// Maps for the benchmarks: files of random samples written once per run into a scratch
// directory that is removed at exit. CACHEVIEW_BENCH_SAMPLES scales the sample counts down for
// quick runs (e.g. 1000000).
#pragma once

#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>

#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "app/testing/vector_map.h"
#include "io/stream.h"
#include "irradiance/irradiance_file.h"

namespace benchmaps {

inline uint32_t sampleCount(uint32_t full) {
  const char* env = std::getenv("CACHEVIEW_BENCH_SAMPLES");
  return env && std::atol(env) > 0 ? static_cast<uint32_t>(std::atol(env)) : full;
}

// Elapsed wall-clock and CPU time of the calling thread, and the part of the CPU time spent in
// the kernel (mostly mapping fresh memory). The machine that runs the benchmarks may be shared,
// so ratios are taken on CPU time (both sides are single-threaded); the wall-clock ratio is
// reported beside it.
struct Times {
  double wall = 0.0;
  double cpu = 0.0;
  double system = 0.0;
  Times& operator+=(const Times& o) {
    wall += o.wall;
    cpu += o.cpu;
    system += o.system;
    return *this;
  }
  Times per(int64_t n) const {
    const auto d = static_cast<double>(n);
    return {wall / d, cpu / d, system / d};
  }
};

class Stopwatch {
 public:
  Stopwatch()
      : wall_(now(CLOCK_MONOTONIC)), cpu_(now(CLOCK_THREAD_CPUTIME_ID)), system_(systemNow()) {}
  Times elapsed() const {
    return {now(CLOCK_MONOTONIC) - wall_, now(CLOCK_THREAD_CPUTIME_ID) - cpu_,
            systemNow() - system_};
  }

 private:
  static double now(clockid_t clock) {
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
  }
  static double systemNow() {
    rusage u{};
    getrusage(RUSAGE_THREAD, &u);
    return static_cast<double>(u.ru_stime.tv_sec) + 1e-6 * static_cast<double>(u.ru_stime.tv_usec);
  }
  double wall_;
  double cpu_;
  double system_;
};

class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "cacheview-bench-XXXXXX");
    if (mkdtemp(pattern.data())) dir_ = pattern;
  }
  ~ScratchDir() {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }
  std::string path(const std::string& name) const { return dir_ + "/" + name; }

 private:
  std::string dir_;
};

inline ScratchDir& scratch() {
  static ScratchDir dir;
  return dir;
}

// Writes a current-version map of `count` random samples: positions across a 100 m scene,
// colour mantissas of every sign. Returns its path.
inline std::string writeRandomMap(const std::string& name, uint32_t count, uint32_t seed) {
  cvtest::VectorMap map;
  map.samples.reserve(count);
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> coordinate(-50.0f, 50.0f);
  std::uniform_int_distribution<int> byte(0, 255);
  for (uint32_t i = 0; i < count; ++i) {
    map.samples.push_back(cvtest::makeSample(
        {coordinate(rng), coordinate(rng), coordinate(rng)}, static_cast<uint8_t>(byte(rng)),
        static_cast<uint8_t>(byte(rng)), static_cast<uint8_t>(byte(rng))));
  }
  const std::string file = scratch().path(name);
  PFileStream out;
  if (out.openForWriting(file.c_str(), 0) != 0 ||
      IrradFormat::writeMapFile(out, IrradFormat::kVersionCurrent, IrradianceMapHeader(), map,
                                nullptr) != 0 ||
      out.close() != 0) {
    return {};
  }
  return file;
}

}  // namespace benchmaps
