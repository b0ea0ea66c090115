#include "threads/thread_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "threads/debug_trace.h"
#include "threads/test_waits.h"

namespace LUtils {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using LUtils::testing::waitUntil;

const char* const kTerminating = "[ThreadManager] Thread is terminating\n";
const char* const kTimedOut =
    "[ThreadManager] Thread did not terminate for the timeout interval\n";

// Collects the debug traces while it lives.
class TraceRecorder {
 public:
  TraceRecorder()
      : scope_([this](const char* text) {
          std::lock_guard<std::mutex> guard(mutex_);
          lines_.emplace_back(text);
        }) {}
  std::vector<std::string> lines() {
    std::lock_guard<std::mutex> guard(mutex_);
    return lines_;
  }
  size_t count(const std::string& line) {
    const auto all = lines();
    return static_cast<size_t>(std::count(all.begin(), all.end(), line));
  }

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  ScopedDebugTraceSink scope_;
};

// What every thread of a run saw.
struct Visit {
  int32_t index;
  int32_t threadCount;
  uint32_t currentIndex;
  pthread_t thread;
};

class RecordingTask : public MultiThreaded {
 public:
  explicit RecordingTask(ThreadManager& manager) : manager_(manager) {}
  void run(std::atomic<int32_t>*, std::atomic<int32_t>* progress, int32_t index,
           int32_t threadCount) override {
    progress->fetch_add(1);
    std::lock_guard<std::mutex> guard(mutex_);
    visits.push_back({index, threadCount, manager_.currentThreadIndex(), pthread_self()});
  }
  std::vector<int32_t> indexes() {
    std::vector<int32_t> out;
    for (const Visit& v : visits) out.push_back(v.index);
    std::sort(out.begin(), out.end());
    return out;
  }
  std::set<pthread_t> threads() {
    std::set<pthread_t> out;
    for (const Visit& v : visits) out.insert(v.thread);
    return out;
  }
  std::vector<Visit> visits;

 private:
  ThreadManager& manager_;
  std::mutex mutex_;
};

// A progress sink that records what the manager tells it; behaviour is set per test.
class FakeProgress final : public ProgressCallback {
 public:
  void setTotal(int32_t t) override { total_ = t; }
  int32_t getTotal() override { return total_; }
  void setProgress(int32_t p) override {
    progressReports.fetch_add(1);
    lastProgress.store(p);
  }
  int32_t getProgress() override { return lastProgress.load(); }
  void setTitle(const char*) override {}
  int abortRequested() override {
    abortQuestions.fetch_add(1);
    return abortAnswer ? abortAnswer() : 0;
  }
  int wantsMessageProcessing() override { return pumpMessages ? 1 : 0; }
  void processMessages() override { messagePumps.fetch_add(1); }
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
  bool pumpMessages = false;
  std::vector<std::string> events;  // touched only by the thread that calls run
  std::atomic<int> abortQuestions{0};
  std::atomic<int> progressReports{0};
  std::atomic<int32_t> lastProgress{-1};
  std::atomic<int> messagePumps{0};

 private:
  int32_t total_ = 0;
};

TEST(ThreadManager, RunMakesOnlyTheMissingWorkersAndReusesThem) {
  DefThreadManager manager;
  RecordingTask first(manager);
  EXPECT_EQ(manager.run(2, &first, nullptr, false), 0);
  EXPECT_EQ(manager.workerCount(), 2u);

  RecordingTask second(manager);
  EXPECT_EQ(manager.run(5, &second, nullptr, false), 0);
  EXPECT_EQ(manager.workerCount(), 5u);
  EXPECT_THAT(second.indexes(), ElementsAre(0, 1, 2, 3, 4));
  EXPECT_EQ(second.threads().size(), 5u) << "two indexes of one run shared a thread";
  EXPECT_EQ(second.threads().count(pthread_self()), 0u);
  for (const Visit& v : second.visits) {
    EXPECT_EQ(v.threadCount, 5);
    EXPECT_EQ(v.currentIndex, static_cast<uint32_t>(v.index));
  }
  const std::set<pthread_t> firstThreads = first.threads();
  for (pthread_t t : firstThreads) EXPECT_EQ(second.threads().count(t), 1u);

  // Back-to-back runs find every worker idle again.
  for (int round = 0; round < 20; ++round) {
    RecordingTask again(manager);
    ASSERT_EQ(manager.run(5, &again, nullptr, false), 0);
    ASSERT_EQ(manager.workerCount(), 5u) << "round " << round;
    ASSERT_EQ(again.threads(), second.threads());
  }
  RecordingTask fewer(manager);
  manager.run(3, &fewer, nullptr, false);
  EXPECT_EQ(manager.workerCount(), 5u);
  EXPECT_THAT(fewer.indexes(), ElementsAre(0, 1, 2));
}

TEST(ThreadManager, RunOnZeroThreadsUsesTheDefaultCount) {
  ASSERT_EQ(setenv("LUMORA_NUM_THREADS", "3", 1), 0);
  EXPECT_EQ(reloadDefaultThreadCount(), 3);
  DefThreadManager manager;
  RecordingTask task(manager);
  manager.run(0, &task, nullptr, false);
  EXPECT_THAT(task.indexes(), ElementsAre(0, 1, 2));
  unsetenv("LUMORA_NUM_THREADS");
  reloadDefaultThreadCount();
}

TEST(ThreadManager, DefaultThreadCountFromTheEnvironment) {
  const auto processors = static_cast<int32_t>(std::max(1u, std::thread::hardware_concurrency()));
  for (const char* bad : {"0", "-3", "text", "", "4x", "99999999999999999999"}) {
    ASSERT_EQ(setenv("LUMORA_NUM_THREADS", bad, 1), 0);
    EXPECT_EQ(reloadDefaultThreadCount(), processors) << '"' << bad << '"';
    EXPECT_EQ(defaultThreadCount(), processors);
  }
  ASSERT_EQ(setenv("LUMORA_NUM_THREADS", "7", 1), 0);
  EXPECT_EQ(reloadDefaultThreadCount(), 7);
  EXPECT_EQ(defaultThreadCount(), 7);
  unsetenv("LUMORA_NUM_THREADS");
  EXPECT_EQ(reloadDefaultThreadCount(), processors);

  EXPECT_EQ(parseThreadCount(nullptr, 2), 2);
  EXPECT_EQ(parseThreadCount(" 12 ", 2), 12);
  EXPECT_EQ(parseThreadCount("+5", 2), 5);
  EXPECT_EQ(parseThreadCount("1.5", 2), 2);
  EXPECT_EQ(parseThreadCount("100000", 2), kMaxDefaultThreads);
}

TEST(ThreadManager, CurrentThreadIndexOffAWorkerIsAllOnes) {
  DefThreadManager manager;
  EXPECT_EQ(manager.currentThreadIndex(), 0xFFFFFFFFu);

  // A worker of one manager is not a worker of another.
  DefThreadManager other;
  struct AskOther : MultiThreaded {
    explicit AskOther(ThreadManager& m) : manager(m) {}
    void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
      answer.store(manager.currentThreadIndex());
    }
    ThreadManager& manager;
    std::atomic<uint32_t> answer{0};
  } task(other);
  manager.run(1, &task, nullptr, false);
  EXPECT_EQ(task.answer.load(), 0xFFFFFFFFu);
  EXPECT_EQ(manager.currentThreadIndex(), 0xFFFFFFFFu);
}

// Every thread waits until the result word turns non-zero (or the patience runs out).
struct WaitForAbortTask : MultiThreaded {
  void run(std::atomic<int32_t>* resultWord, std::atomic<int32_t>*, int32_t, int32_t) override {
    started.fetch_add(1);
    if (waitUntil([&] { return resultWord->load() != 0; })) sawAbort.fetch_add(1);
  }
  std::atomic<int> started{0};
  std::atomic<int> sawAbort{0};
};

TEST(ThreadManager, AbortFromTheSinkReachesTheTaskAndIsReturned) {
  DefThreadManager manager;
  WaitForAbortTask task;
  FakeProgress sink;
  sink.abortAnswer = [&] { return task.started.load() == 3 ? 9 : 0; };
  EXPECT_EQ(manager.run(3, &task, &sink, false), 9);
  EXPECT_EQ(task.sawAbort.load(), 3);
  EXPECT_GE(sink.abortQuestions.load(), 1);
  EXPECT_EQ(sink.progressReports.load(), 0) << "progress shown without being asked for";
  EXPECT_THAT(sink.events, ElementsAre("0,30000:Setting up 3 thread(s)\n", "begin", "end",
                                       "0,30000:Threads completed\n"));

  // The next run starts with a clear result word.
  RecordingTask next(manager);
  EXPECT_EQ(manager.run(3, &next, nullptr, false), 0);
  EXPECT_EQ(next.visits.size(), 3u);
}

TEST(ThreadManager, ThreadsThatHadNotStartedSkipTheirWorkAfterAnAbort) {
  DefThreadManager manager;
  RecordingTask task(manager);
  FakeProgress sink;
  // The abort arrives before any thread has taken its job.
  sink.onBegin = [&] { task.result.store(6); };
  EXPECT_EQ(manager.run(4, &task, &sink, true), 6);
  EXPECT_TRUE(task.visits.empty());
  EXPECT_EQ(manager.workerCount(), 4u);

  RecordingTask next(manager);
  EXPECT_EQ(manager.run(4, &next, nullptr, false), 0);
  EXPECT_EQ(next.visits.size(), 4u);
  EXPECT_EQ(manager.workerCount(), 4u) << "skipped workers were not freed for the next run";
}

TEST(ThreadManager, ShowsTheSummedProgressAndPumpsMessagesWhileWaiting) {
  DefThreadManager manager;
  FakeProgress sink;
  sink.pumpMessages = true;
  struct CountingTask : MultiThreaded {
    explicit CountingTask(FakeProgress& s) : sink(s) {}
    void run(std::atomic<int32_t>*, std::atomic<int32_t>* progress, int32_t index,
             int32_t) override {
      if (index == 0) baseProgress.store(100);
      progress->fetch_add(10 + index);
      // Hold the run open until the caller has shown the full sum and pumped messages.
      waitUntil([&] { return sink.lastProgress.load() == 100 + 10 + 11 + 12; });
      waitUntil([&] { return sink.messagePumps.load() > 0; });
    }
    FakeProgress& sink;
  } task(sink);
  EXPECT_EQ(manager.run(3, &task, &sink, true), 0);
  EXPECT_EQ(sink.lastProgress.load(), 133);
  EXPECT_GE(sink.messagePumps.load(), 2);  // while waiting, and once more at the end
}

TEST(ThreadManager, NamesTheWorkerAfterItsTask) {
  DefThreadManager manager;
  struct NamedTask : MultiThreaded {
    explicit NamedTask(const char* n) : name(n) {}
    const char* threadName() override { return name; }
    void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
      char buffer[32] = {};
      pthread_getname_np(pthread_self(), buffer, sizeof buffer);
      std::lock_guard<std::mutex> guard(mutex);
      seen.insert(buffer);
    }
    const char* name;
    std::mutex mutex;
    std::set<std::string> seen;
  };
  NamedTask draw("draw_thread");
  manager.run(2, &draw, nullptr, false);
  EXPECT_THAT(draw.seen, ElementsAre("draw_thread"));
  NamedTask longName("a_name_longer_than_the_kernel_keeps");
  manager.run(2, &longName, nullptr, false);
  EXPECT_THAT(longName.seen, ElementsAre("a_name_longer_t"));
}

TEST(ThreadManager, StackSizeAndLowPriorityApplyToLaterWorkers) {
  DefThreadManager manager;
  constexpr uint32_t kStack = 8u << 20;
  manager.setStackSize(kStack);
  manager.setLowPriority(true);
  errno = 0;
  const int mainNice = getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
  struct Probe : MultiThreaded {
    void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
      pthread_attr_t attr;
      if (pthread_getattr_np(pthread_self(), &attr) == 0) {
        size_t bytes = 0;
        pthread_attr_getstacksize(&attr, &bytes);
        stack.store(bytes);
        pthread_attr_destroy(&attr);
      }
      nice.store(getpriority(PRIO_PROCESS, static_cast<id_t>(gettid())));
    }
    std::atomic<size_t> stack{0};
    std::atomic<int> nice{-100};
  } probe;
  manager.run(1, &probe, nullptr, false);
  EXPECT_GE(probe.stack.load(), size_t{kStack});
  EXPECT_EQ(probe.nice.load(), std::min(mainNice + 5, 19));
}

// An asynchronous object that blocks until the test lets it go.
struct BlockingObject : AsyncTask {
  void run(uint64_t argument) override {
    char buffer[32] = {};
    pthread_getname_np(pthread_self(), buffer, sizeof buffer);
    name = buffer;
    index.store(manager ? manager->currentThreadIndex() : 0);
    received.store(argument);
    entered.store(true);
    waitUntil([&] { return released.load(); }, std::chrono::seconds(30));
    finished.store(true);
  }
  const char* threadName() override { return "async_job"; }
  ThreadManager* manager = nullptr;
  std::string name;
  std::atomic<uint32_t> index{12345};
  std::atomic<uint64_t> received{0};
  std::atomic<bool> entered{false};
  std::atomic<bool> released{false};
  std::atomic<bool> finished{false};
};

TEST(ThreadManager, RunAsyncReturnsAtOnceAndTheObjectRuns) {
  DefThreadManager manager;
  BlockingObject object;
  object.manager = &manager;
  EXPECT_EQ(manager.runAsync(&object, 0x1234567890ull), 0);
  EXPECT_FALSE(object.finished.load());  // still blocked: runAsync did not wait for it
  ASSERT_TRUE(waitUntil([&] { return object.entered.load(); }));
  EXPECT_EQ(object.received.load(), 0x1234567890ull);
  EXPECT_EQ(object.index.load(), 0u);
  EXPECT_EQ(object.name, "async_job");

  // A run meanwhile cannot use the busy worker.
  RecordingTask task(manager);
  manager.run(1, &task, nullptr, false);
  EXPECT_EQ(manager.workerCount(), 2u);

  object.released.store(true);
  EXPECT_TRUE(waitUntil([&] { return object.finished.load(); }));
}

TEST(ThreadManager, TerminateWithNoWorkers) {
  TraceRecorder traces;
  {
    DefThreadManager manager;
    manager.terminateThreads(false);
  }
  EXPECT_THAT(traces.lines(), ElementsAre("[ThreadManager] Constructor.\n",
                                          "[ThreadManager] Terminating 0 threads\n",
                                          "[ThreadManager] All threads terminated\n",
                                          "[ThreadManager] Destructor.\n",
                                          "[ThreadManager] Terminating 0 threads\n",
                                          "[ThreadManager] All threads terminated\n"));
}

TEST(ThreadManager, TerminateStopsEveryWorkerAndTheManagerCanRunAgain) {
  TraceRecorder traces;
  DefThreadManager manager;
  RecordingTask task(manager);
  manager.run(3, &task, nullptr, false);
  manager.terminateThreads(false);
  EXPECT_EQ(manager.workerCount(), 0u);
  EXPECT_EQ(traces.count("[ThreadManager] Terminating 3 threads\n"), 1u);
  EXPECT_EQ(traces.count("[ThreadManager] Waiting for LGL thread to finish...\n"), 3u);
  EXPECT_EQ(traces.count(kTerminating), 3u);  // joined, so every thread has traced
  EXPECT_EQ(traces.count(kTimedOut), 0u);
  EXPECT_EQ(traces.lines().back(), "[ThreadManager] All threads terminated\n");

  RecordingTask again(manager);
  EXPECT_EQ(manager.run(2, &again, nullptr, false), 0);
  EXPECT_THAT(again.indexes(), ElementsAre(0, 1));
  EXPECT_EQ(again.threads().size(), 2u);
}

TEST(ThreadManager, AWorkerStuckPastTheWaitIsReportedAndLeftRunning) {
  TraceRecorder traces;
  BlockingObject object;
  {
    DefThreadManager manager;
    ASSERT_EQ(manager.runAsync(&object, 1), 0);
    ASSERT_TRUE(waitUntil([&] { return object.entered.load(); }));
    const auto start = std::chrono::steady_clock::now();
    manager.terminateThreads(true);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1900));
    EXPECT_EQ(traces.count(kTimedOut), 1u);
    EXPECT_EQ(manager.workerCount(), 0u);
  }
  // The manager is gone; once let go the thread still finishes its job and its queued
  // terminate command.
  EXPECT_FALSE(object.finished.load());
  object.released.store(true);
  EXPECT_TRUE(waitUntil([&] { return traces.count(kTerminating) == 1; }));
  EXPECT_TRUE(object.finished.load());
}

TEST(DebugTrace, SilentByDefaultAndAppendedToTheNamedFile) {
  ::testing::internal::CaptureStdout();
  ::testing::internal::CaptureStderr();
  unsetenv("CACHEVIEW_DEBUG_LOG");
  setDebugTraceSink({});
  debugTrace("[ThreadManager] nowhere %d\n", 1);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");

  const std::string path = std::string(CACHEVIEW_TEST_TMPDIR) + "/threads_trace.log";
  std::system(("mkdir -p '" + std::string(CACHEVIEW_TEST_TMPDIR) + "'").c_str());
  std::remove(path.c_str());
  if (std::FILE* f = std::fopen(path.c_str(), "w")) {
    std::fputs("earlier\n", f);
    std::fclose(f);
  }
  ASSERT_EQ(setenv("CACHEVIEW_DEBUG_LOG", path.c_str(), 1), 0);
  setDebugTraceSink({});
  debugTrace("[ThreadManager] Terminating %i threads\n", 4);
  debugTrace("%s", std::string(700, 'x').c_str());
  unsetenv("CACHEVIEW_DEBUG_LOG");
  setDebugTraceSink({});  // closes the file

  std::string content;
  if (std::FILE* f = std::fopen(path.c_str(), "r")) {
    char buffer[2048];
    content.assign(buffer, std::fread(buffer, 1, sizeof buffer, f));
    std::fclose(f);
  }
  EXPECT_EQ(content, "earlier\n[ThreadManager] Terminating 4 threads\n" + std::string(511, 'x'));
}

}  // namespace
}  // namespace LUtils
