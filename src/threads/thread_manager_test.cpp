#include "threads/thread_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "threads/debug_trace.h"
#include "threads/test_waits.h"

namespace LUtils {
namespace {

using ::testing::_;
using ::testing::ElementsAre;
using LUtils::testing::waitUntil;
using Body = std::function<void(std::atomic<int32_t>* result, std::atomic<int32_t>* progress,
                                int32_t index, int32_t threadCount)>;

const std::string kTerminating = "[ThreadManager] Thread is terminating\n";
const std::string kTimedOut = "[ThreadManager] Thread did not terminate for the timeout interval\n";
const std::string kAllTerminated = "[ThreadManager] All threads terminated\n";
std::string terminatingTrace(int n) {
  return "[ThreadManager] Terminating " + std::to_string(n) + " threads\n";
}

// Collects the debug traces while it lives.
class TraceRecorder {
 public:
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }
  long count(const std::string& line) {
    const auto all = lines();
    return std::count(all.begin(), all.end(), line);
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  ScopedDebugTraceSink scope_{[this](const char* text) {
    std::lock_guard<std::mutex> guard(mutex_);
    lines_.emplace_back(text);
  }};
};

// A task that runs `body` (if any) and records, per index, the thread it ran on and what the
// manager said its index was.
struct Task : MultiThreaded {
  explicit Task(ThreadManager& m, Body b = {}, const char* name = nullptr)
      : manager(m), body(std::move(b)), threadName_(name) {}
  void run(std::atomic<int32_t>* resultWord, std::atomic<int32_t>* progress, int32_t index,
           int32_t threadCount) override {
    {
      std::lock_guard<std::mutex> guard(mutex);
      threads[index] = pthread_self();
      currentIndexes[index] = manager.currentThreadIndex();
      counts.insert(threadCount);
    }
    if (body) body(resultWord, progress, index, threadCount);
  }
  const char* threadName() override { return threadName_; }
  std::set<pthread_t> threadSet() const {
    std::set<pthread_t> out;
    for (const auto& [index, t] : threads) out.insert(t);
    return out;
  }

  ThreadManager& manager;
  Body body;
  const char* threadName_;
  std::mutex mutex;
  std::map<int32_t, pthread_t> threads;
  std::map<int32_t, uint32_t> currentIndexes;
  std::set<int32_t> counts;
};

// A progress sink that records what the manager tells it.
class FakeProgress final : public ProgressCallback {
 public:
  void setTotal(int32_t) override {}
  int32_t getTotal() override { return 0; }
  void setProgress(int32_t p) override { shown.store(p); }
  int32_t getProgress() override { return shown.load(); }
  void setTitle(const char*) override {}
  int abortRequested() override { return abortAnswer ? abortAnswer() : 0; }
  int wantsMessageProcessing() override { return pumpMessages; }
  void processMessages() override { pumps.fetch_add(1); }
  void message(int a, int b, const char* format, ...) override {
    char buffer[512];
    va_list args;
    va_start(args, format);
    std::vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    events.push_back(std::to_string(a) + "," + std::to_string(b) + ":" + buffer);
  }
  void multiThreadedBegin() override {
    events.emplace_back("begin");
    if (onBegin) onBegin();
  }
  void multiThreadedEnd() override { events.emplace_back("end"); }
  void start() override {}
  void done() override {}

  std::function<int()> abortAnswer;
  std::function<void()> onBegin;
  int pumpMessages = 0;
  std::vector<std::string> events;  // touched only by the thread that calls run
  std::atomic<int32_t> shown{-1};
  std::atomic<int> pumps{0};
};

TEST(ThreadManager, RunMakesOnlyTheMissingWorkersAndReusesThem) {
  DefThreadManager manager;
  Task first(manager);
  EXPECT_EQ(manager.run(2, &first, nullptr, false), 0);
  EXPECT_EQ(manager.workerCount(), 2u);

  Task second(manager);
  EXPECT_EQ(manager.run(5, &second, nullptr, false), 0);
  EXPECT_EQ(manager.workerCount(), 5u);
  ASSERT_EQ(second.threads.size(), 5u);
  EXPECT_EQ(second.threadSet().size(), 5u) << "two indexes of one run shared a thread";
  EXPECT_EQ(second.threadSet().count(pthread_self()), 0u);
  EXPECT_THAT(second.counts, ElementsAre(5));
  for (const auto& [index, current] : second.currentIndexes) EXPECT_EQ(current, uint32_t(index));
  for (pthread_t t : first.threadSet()) EXPECT_EQ(second.threadSet().count(t), 1u);

  // Back-to-back runs find every worker idle again.
  for (int round = 0; round < 20; ++round) {
    Task again(manager);
    ASSERT_EQ(manager.run(5, &again, nullptr, false), 0);
    ASSERT_EQ(manager.workerCount(), 5u) << "round " << round;
    ASSERT_EQ(again.threadSet(), second.threadSet());
  }
  // A smaller run uses some of the workers; they are not workers of another manager, and the
  // calling thread is no worker at all.
  DefThreadManager other;
  Task fewer(other);
  manager.run(3, &fewer, nullptr, false);
  EXPECT_EQ(manager.workerCount(), 5u);
  EXPECT_EQ(fewer.threads.size(), 3u);
  for (const auto& [index, current] : fewer.currentIndexes) EXPECT_EQ(current, 0xFFFFFFFFu);
  EXPECT_EQ(manager.currentThreadIndex(), 0xFFFFFFFFu);
}

TEST(ThreadManager, DefaultThreadCountComesFromTheEnvironment) {
  const auto processors = static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()));
  for (const char* bad : {"0", "-3", "text", "", "4x", "1.5", "99999999999999999999"}) {
    ASSERT_EQ(setenv("LUMORA_NUM_THREADS", bad, 1), 0);
    EXPECT_EQ(reloadDefaultThreadCount(), processors) << '"' << bad << '"';
  }
  EXPECT_EQ(parseThreadCount(" 12 ", 2), 12);
  EXPECT_EQ(parseThreadCount("100000", 2), kMaxDefaultThreads);

  ASSERT_EQ(setenv("LUMORA_NUM_THREADS", "3", 1), 0);
  EXPECT_EQ(reloadDefaultThreadCount(), 3);
  EXPECT_EQ(defaultThreadCount(), 3);
  DefThreadManager manager;
  Task task(manager);
  manager.run(0, &task, nullptr, false);
  EXPECT_THAT(task.counts, ElementsAre(3));
  unsetenv("LUMORA_NUM_THREADS");
  EXPECT_EQ(reloadDefaultThreadCount(), processors);
}

TEST(ThreadManager, AbortFromTheSinkReachesTheTaskAndIsReturned) {
  DefThreadManager manager;
  std::atomic<int> started{0}, sawAbort{0};
  Task task(manager, [&](std::atomic<int32_t>* result, auto*, int32_t, int32_t) {
    started.fetch_add(1);
    if (waitUntil([&] { return result->load() != 0; })) sawAbort.fetch_add(1);
  });
  FakeProgress sink;
  sink.abortAnswer = [&] { return started.load() == 3 ? 9 : 0; };
  EXPECT_EQ(manager.run(3, &task, &sink, false), 9);
  EXPECT_EQ(sawAbort.load(), 3);
  EXPECT_EQ(sink.shown.load(), -1) << "progress shown without being asked for";
  EXPECT_THAT(sink.events, ElementsAre("0,30000:Setting up 3 thread(s)\n", "begin", "end",
                                       "0,30000:Threads completed\n"));
}

TEST(ThreadManager, ThreadsThatHadNotStartedSkipTheirWorkAfterAnAbort) {
  DefThreadManager manager;
  Task task(manager);
  FakeProgress sink;
  sink.onBegin = [&] { task.result.store(6); };  // before any thread has taken its job
  EXPECT_EQ(manager.run(4, &task, &sink, true), 6);
  EXPECT_TRUE(task.threads.empty());

  // The next run starts with a clear result word and every worker free.
  Task next(manager);
  EXPECT_EQ(manager.run(4, &next, nullptr, false), 0);
  EXPECT_EQ(next.threads.size(), 4u);
  EXPECT_EQ(manager.workerCount(), 4u) << "skipped workers were not freed for the next run";
}

TEST(ThreadManager, ShowsTheSummedProgressAndPumpsMessagesWhileWaiting) {
  DefThreadManager manager;
  FakeProgress sink;
  sink.pumpMessages = 1;
  Task task(manager, [&](auto*, std::atomic<int32_t>* progress, int32_t index, int32_t) {
    if (index == 0) task.baseProgress.store(100);
    progress->fetch_add(10 + index);
    // Hold the run open until the caller has shown the full sum and pumped messages.
    waitUntil([&] { return sink.shown.load() == 100 + 10 + 11 + 12 && sink.pumps.load() > 0; });
  });
  EXPECT_EQ(manager.run(3, &task, &sink, true), 0);
  EXPECT_EQ(sink.shown.load(), 133);
  EXPECT_GE(sink.pumps.load(), 2);  // while waiting, and once more at the end
}

// An asynchronous object that blocks until the test lets it go.
struct BlockingObject : AsyncTask {
  void run(uint64_t argument) override {
    index.store(manager ? manager->currentThreadIndex() : 0);
    received.store(argument);
    entered.store(true);
    waitUntil([&] { return released.load(); }, std::chrono::seconds(30));
    finished.store(true);
  }
  ThreadManager* manager = nullptr;
  std::atomic<uint32_t> index{12345};
  std::atomic<uint64_t> received{0};
  std::atomic<bool> entered{false}, released{false}, finished{false};
};

TEST(ThreadManager, TerminateStopsEveryWorkerAndTheManagerCanRunAgain) {
  TraceRecorder traces;
  {
    DefThreadManager manager;
    manager.terminateThreads(false);
    EXPECT_THAT(traces.lines(),
                ElementsAre("[ThreadManager] Constructor.\n", terminatingTrace(0), kAllTerminated));
    Task task(manager);
    manager.run(3, &task, nullptr, false);
    manager.terminateThreads(false);
    EXPECT_EQ(manager.workerCount(), 0u);
    EXPECT_EQ(traces.count(terminatingTrace(3)), 1);
    EXPECT_EQ(traces.count("[ThreadManager] Waiting for LGL thread to finish...\n"), 3);
    EXPECT_EQ(traces.count(kTerminating), 3);  // joined, so every thread has traced
    EXPECT_EQ(traces.lines().back(), kAllTerminated);

    Task again(manager);
    EXPECT_EQ(manager.run(2, &again, nullptr, false), 0);
    EXPECT_EQ(again.threadSet().size(), 2u);
  }
  // The destructor stops the workers of the last run the same way.
  const auto lines = traces.lines();
  ASSERT_GE(lines.size(), 7u);
  EXPECT_THAT(std::vector<std::string>(lines.end() - 7, lines.end()),
              ElementsAre("[ThreadManager] Destructor.\n", terminatingTrace(2), _, _, _, _,
                          kAllTerminated));
  EXPECT_EQ(traces.count(kTerminating), 5);
  EXPECT_EQ(traces.count(kTimedOut), 0);
}

TEST(ThreadManager, RunAsyncReturnsAtOnceAndTerminateLeavesAStuckWorkerRunning) {
  TraceRecorder traces;
  BlockingObject object;
  {
    DefThreadManager manager;
    object.manager = &manager;
    EXPECT_EQ(manager.runAsync(&object, 0x1234567890ull), 0);
    EXPECT_FALSE(object.finished.load());  // still blocked: runAsync did not wait for it
    ASSERT_TRUE(waitUntil([&] { return object.entered.load(); }));
    EXPECT_EQ(object.received.load(), 0x1234567890ull);
    EXPECT_EQ(object.index.load(), 0u);

    // A run meanwhile cannot use the busy worker.
    Task task(manager);
    manager.run(1, &task, nullptr, false);
    EXPECT_EQ(manager.workerCount(), 2u);

    // The busy worker is waited for, reported and left; the idle one ends.
    const auto start = std::chrono::steady_clock::now();
    manager.terminateThreads(true);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    EXPECT_EQ(traces.count(kTimedOut), 1);
    EXPECT_EQ(traces.count(kTerminating), 1);
    EXPECT_EQ(manager.workerCount(), 0u);
  }
  // The manager is gone; once let go the thread still finishes its job and its queued
  // terminate command.
  EXPECT_FALSE(object.finished.load());
  object.released.store(true);
  EXPECT_TRUE(waitUntil([&] { return traces.count(kTerminating) == 2; }));
  EXPECT_TRUE(object.finished.load());
}

}  // namespace
}  // namespace LUtils
