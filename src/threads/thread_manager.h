// The worker-thread pool: runs one MultiThreaded task on N threads at once and waits for it while
// keeping a progress sink (and through it the GUI) alive, or hands one object to a worker and
// returns at once. Workers are made on demand and reused until terminateThreads.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>

#include "threads/block_sequence.h"
#include "threads/progress_callback.h"
#include "threads/spinning_mutex.h"

namespace LUtils {

// A task that runs on several threads at once. Every thread gets the same object.
class MultiThreaded {
 public:
  // Runs this thread's share of the work. `resultWord` is the task's shared result word: the body
  // should stop early once it is non-zero (an abort, or an error another thread stored there).
  // The body adds its units of work to `progress`, this thread's own counter. `index` runs from
  // 0 to threadCount - 1.
  virtual void run(std::atomic<int32_t>* resultWord, std::atomic<int32_t>* progress,
                   int32_t index, int32_t threadCount) = 0;
  // The name the worker takes while it runs this task (the kernel keeps 15 characters), or null
  // to leave the worker's name as it is.
  virtual const char* threadName() { return nullptr; }
  virtual ~MultiThreaded() = default;

  // Added to the sum of the thread counters when progress is shown.
  std::atomic<int32_t> baseProgress{0};
  // The shared result word; run() returns it.
  std::atomic<int32_t> result{0};
};

// An object handed to one worker by runAsync.
class AsyncTask {
 public:
  virtual void run(uint64_t argument) = 0;
  virtual const char* threadName() { return nullptr; }
  virtual ~AsyncTask() = default;
};

class ThreadManager {
 public:
  // Stops and frees every worker, waiting up to 2000 ms for each. A worker still busy after that
  // is reported by a debug trace and left running. `force` asks for such a worker to be killed,
  // which threads here cannot be: either way it is detached and ends with the process. Must not
  // overlap a run or runAsync on another thread; the manager can be used again afterwards.
  virtual void terminateThreads(bool force) = 0;
  // Runs `task` on `threadCount` threads (0 or less: the manager's threadCount()) and waits for all of
  // them. `progress` may be null; when given it hears the set-up and completion messages, is
  // asked every 200 ms whether to abort (a non-zero answer is stored in the task's result word)
  // and gets the summed progress when `showProgress` is set. Returns the task's result word.
  virtual int32_t run(int32_t threadCount, MultiThreaded* task, ProgressCallback* progress,
                      bool showProgress) = 0;
  // Workers get a lower scheduling priority for the jobs queued after this call.
  virtual void setLowPriority(bool low) = 0;
  // Hands `object` to an idle (or new) worker, which calls object->run(argument); returns 0 at
  // once, or -1 when no worker thread could be made (the object is then not run).
  virtual int32_t runAsync(AsyncTask* object, uint64_t argument) = 0;
  // Stack size in bytes for workers made after this call; 0 (the initial value) = system default.
  virtual void setStackSize(uint32_t bytes) = 0;
  // The calling worker's index in its current run, or 0xFFFFFFFF when the caller is not one of
  // this manager's workers.
  virtual uint32_t currentThreadIndex() = 0;
  // The number of threads a run asked for 0 threads uses: defaultThreadCount() until set.
  virtual int32_t threadCount() = 0;
  // Values below 1 go back to defaultThreadCount().
  virtual void setThreadCount(int32_t count) = 0;
  virtual ~ThreadManager() = default;
};

// A new manager's thread count: LUMORA_NUM_THREADS as read at start-up, or the processor count
// when it is absent or not a positive number.
int32_t defaultThreadCount();
// Reads LUMORA_NUM_THREADS again and makes the result the default; returns it.
int32_t reloadDefaultThreadCount();
// The rule for the variable's text: a decimal integer, blanks around it allowed, greater than 0;
// anything else gives `fallback`. Values above kMaxDefaultThreads are cut to it.
int32_t parseThreadCount(const char* text, int32_t fallback);
inline constexpr int32_t kMaxDefaultThreads = 1024;

// The manager that the incremental merges of irradiance maps and light caches use unless given
// another: made on first use, with the thread count defaultThreadCount().
ThreadManager& mergeThreadManager();

class DefThreadManager final : public ThreadManager {
 public:
  DefThreadManager();
  ~DefThreadManager() override;
  DefThreadManager(const DefThreadManager&) = delete;
  DefThreadManager& operator=(const DefThreadManager&) = delete;

  void terminateThreads(bool force) override;
  int32_t run(int32_t threadCount, MultiThreaded* task, ProgressCallback* progress,
              bool showProgress) override;
  void setLowPriority(bool low) override;
  int32_t runAsync(AsyncTask* object, uint64_t argument) override;
  void setStackSize(uint32_t bytes) override;
  uint32_t currentThreadIndex() override;
  int32_t threadCount() override { return threadCount_.load(std::memory_order_relaxed); }
  void setThreadCount(int32_t count) override {
    threadCount_.store(count > 0 ? std::min(count, kMaxDefaultThreads) : defaultThreadCount(),
                       std::memory_order_relaxed);
  }

  // The number of worker records (idle, busy or starting) the manager holds.
  size_t workerCount();

  struct Worker;
  struct CompletionGroup;

 private:
  Worker* takeWorker(ProgressCallback* progress);
  CompletionGroup* takeGroup();

  BlockSequence<Worker*> workers_{10};
  BlockSequence<CompletionGroup*> groups_{10};
  SpinningMutex lock_;  // guards both lists
  std::atomic<bool> lowPriority_{false};
  std::atomic<uint32_t> stackSize_{0};
  std::atomic<int32_t> threadCount_{defaultThreadCount()};
};

}  // namespace LUtils
