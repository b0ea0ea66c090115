// The thread manager's round trip and the multi-reader lock's read side, each measured against a
// reference in the same run: a run of an empty task against starting and joining as many plain
// threads, and an uncontended read lock against std::shared_mutex. The ratios are printed after
// the table (below 1 means ours is faster).
#include <benchmark/benchmark.h>

#include "ratio_reporter.h"

#include <cstdio>
#include <map>
#include <shared_mutex>
#include <string>
#include <thread>
#include <vector>

#include "threads/multi_reader_lock.h"
#include "threads/thread_manager.h"

namespace {

using LUtils::DefThreadManager;
using LUtils::MultiReaderLock;

struct EmptyTask final : LUtils::MultiThreaded {
  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {}
};

void BM_RunEmptyTask(benchmark::State& state) {
  DefThreadManager manager;
  EmptyTask task;
  const auto n = static_cast<int32_t>(state.range(0));
  manager.run(n, &task, nullptr, false);  // make the workers outside the timing
  for (auto _ : state) benchmark::DoNotOptimize(manager.run(n, &task, nullptr, false));
}
BENCHMARK(BM_RunEmptyTask)->Arg(1)->Arg(2)->Arg(4)->UseRealTime();

void BM_SpawnJoinThreads(benchmark::State& state) {
  EmptyTask task;
  const auto n = static_cast<int32_t>(state.range(0));
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(n));
  for (auto _ : state) {
    for (int32_t i = 0; i < n; ++i)
      threads.emplace_back([&task, i, n] { task.run(&task.result, nullptr, i, n); });
    for (auto& t : threads) t.join();
    threads.clear();
  }
}
BENCHMARK(BM_SpawnJoinThreads)->Arg(1)->Arg(2)->Arg(4)->UseRealTime();

MultiReaderLock g_readerLock(8);
std::shared_mutex g_sharedMutex;

void BM_MultiReaderLockRead(benchmark::State& state) {
  const auto index = static_cast<uint32_t>(state.thread_index());
  for (auto _ : state) {
    g_readerLock.readLock(index);
    g_readerLock.readUnlock(index);
  }
}
BENCHMARK(BM_MultiReaderLockRead)->Threads(1)->Threads(2)->UseRealTime();

void BM_SharedMutexRead(benchmark::State& state) {
  for (auto _ : state) {
    g_sharedMutex.lock_shared();
    g_sharedMutex.unlock_shared();
  }
}
BENCHMARK(BM_SharedMutexRead)->Threads(1)->Threads(2)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nRatios (time per iteration, ours / reference):\n");
  for (const char* n : {"1", "2", "4"}) {
    // A round trip is judged by its wall-clock time (waiting is its cost).
    const std::string ours = std::string("BM_RunEmptyTask/") + n + "/real_time";
    const std::string reference = std::string("BM_SpawnJoinThreads/") + n + "/real_time";
    reporter.printRatio(ours + " / " + reference, ours, reference, false, "ours / reference");
  }
  for (const char* t : {"1", "2"}) {
    // A lock by its CPU time, which a busy machine disturbs less.
    const std::string ours = std::string("BM_MultiReaderLockRead/real_time/threads:") + t;
    const std::string reference = std::string("BM_SharedMutexRead/real_time/threads:") + t;
    reporter.printRatio(ours + " / " + reference, ours, reference, true, "ours / reference");
  }
  benchmark::Shutdown();
  return 0;
}
