// The console report of Google Benchmark, keeping every run's time per iteration so that a
// benchmark can print its results as ratios against a reference measured in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <utility>
#include <vector>

// The median of a benchmark's rounds (0 for none).
inline double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n == 0 ? 0.0 : n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      times_[run.benchmark_name()] = {run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
    }
  }

  // The time of the first run whose full name starts with `name` (a benchmark's function name
  // matches all of its variants); -1 when there is none.
  double time(const std::string& name, bool cpu = false) const {
    for (const auto& [key, value] : times_) {
      if (key.compare(0, name.size(), name) == 0) return cpu ? value.second : value.first;
    }
    return -1.0;
  }

  // Prints "label  ratio  (note)" for ours / reference; nothing when either is missing.
  void printRatio(const std::string& label, const std::string& ours,
                  const std::string& reference, bool cpu, const char* note) const {
    const double a = time(ours, cpu), b = time(reference, cpu);
    if (a < 0 || b <= 0) return;
    std::printf("%-60s %.3f  (%s, %s)\n", label.c_str(), a / b, cpu ? "cpu" : "real", note);
  }

 private:
  std::map<std::string, std::pair<double, double>> times_;
};
