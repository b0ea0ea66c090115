#include "threads/thread_manager.h"

#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "threads/debug_trace.h"

namespace LUtils {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Worker states.
constexpr int32_t kIdle = 0;
constexpr int32_t kBusy = 1;
constexpr int32_t kTerminated = 2;
constexpr int32_t kWaiting = 3;  // reserved for a job, or started and waiting for its first one
constexpr int32_t kStarting = 4;

// Job commands.
constexpr int32_t kRunTask = 4096;
constexpr int32_t kTerminate = 4097;
constexpr int32_t kRunObject = 4098;

constexpr milliseconds kWaitSlice{200};
constexpr milliseconds kTerminateWait{2000};
constexpr uint32_t kNotAWorker = 0xFFFFFFFFu;
// How much nicer than its start-up value a worker runs while the low-priority flag is set.
constexpr int kLowPriorityNice = 5;

// The manager and index of the worker running on this thread, for currentThreadIndex().
struct CurrentWorker {
  const DefThreadManager* manager = nullptr;
  uint32_t index = kNotAWorker;
};
thread_local CurrentWorker t_current;

// An auto-reset event: a signal wakes one wait and is consumed by it.
class AutoResetEvent {
 public:
  void signal() {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      signalled_ = true;
    }
    cv_.notify_one();
  }
  void reset() {
    std::lock_guard<std::mutex> guard(mutex_);
    signalled_ = false;
  }
  void wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    cv_.wait(lock, [this] { return signalled_; });
    signalled_ = false;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cv_;
  bool signalled_ = false;
};

// The worker's scheduling priority, as a nice value relative to the one it started with. Going
// back up may be refused to an unprivileged process; the worker then stays low.
class WorkerPriority {
 public:
  WorkerPriority() : tid_(gettid()) {
    errno = 0;
    const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(tid_));
    base_ = current_ = errno == 0 ? nice : 0;
  }
  void apply(bool low) {
    const int target = low ? std::min(base_ + kLowPriorityNice, 19) : base_;
    if (target != current_ && setpriority(PRIO_PROCESS, static_cast<id_t>(tid_), target) == 0)
      current_ = target;
  }

 private:
  pid_t tid_;
  int base_;
  int current_;
};

void nameThisThread(const char* name) {
  char shortName[16];  // the kernel keeps 15 characters
  std::strncpy(shortName, name, sizeof shortName - 1);
  shortName[sizeof shortName - 1] = '\0';
  pthread_setname_np(pthread_self(), shortName);
}

int32_t processorCount() {
  const unsigned n = std::thread::hardware_concurrency();
  return n == 0 ? 1 : static_cast<int32_t>(std::min<unsigned>(n, kMaxDefaultThreads));
}

int32_t threadCountFromEnvironment() {
  return parseThreadCount(std::getenv("LUMORA_NUM_THREADS"), processorCount());
}

// Read during static initialisation, that is at start-up; 0 until then.
std::atomic<int32_t> g_defaultThreadCount{threadCountFromEnvironment()};

}  // namespace

// One record per worker thread. It never moves and is shared by the manager and its thread: the
// last of the two to let go of it deletes it, so a thread left running after terminate keeps
// its record alive.
struct DefThreadManager::Worker {
  explicit Worker(DefThreadManager* owner) : manager(owner) {}
  ~Worker() {
    for (Job* list : {head, freeJobs}) {
      while (list) {
        Job* next = list->next;
        delete list;
        list = next;
      }
    }
  }

  // Appends a command to the queue and wakes the thread.
  void queue(int32_t command) {
    {
      std::lock_guard<SpinningMutex> guard(queueLock);
      Job* job = freeJobs;
      if (job) {
        freeJobs = job->next;
      } else {
        job = new Job;
      }
      job->command = command;
      job->next = nullptr;
      (tail ? tail->next : head) = job;
      tail = job;
      ++queued;
    }
    wake.signal();
  }

  // Takes the oldest command, sleeping while the queue is empty.
  int32_t nextCommand() {
    for (;;) {
      {
        std::lock_guard<SpinningMutex> guard(queueLock);
        if (Job* job = head) {
          head = job->next;
          if (!head) tail = nullptr;
          job->next = freeJobs;
          freeJobs = job;
          --queued;
          return job->command;
        }
        wake.reset();
      }
      wake.wait();
    }
  }

  // Drops one reference; the last one deletes the record.
  static void release(Worker* worker) {
    if (worker->references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete worker;
  }

  // The job, written by the manager before it queues a command and read by the thread after it
  // takes the command from the queue.
  MultiThreaded* task = nullptr;
  std::atomic<int32_t>* result = nullptr;
  std::atomic<int32_t> progress{0};
  int32_t index = 0;
  std::atomic<int32_t> state{kStarting};
  CompletionGroup* group = nullptr;
  int32_t threadCount = 0;
  AsyncTask* object = nullptr;
  uint64_t argument = 0;
  bool lowPriority = false;

  struct Job {
    int32_t command;
    Job* next;
  };
  Job* head = nullptr;
  Job* tail = nullptr;
  Job* freeJobs = nullptr;  // finished job records, reused by queue()
  int32_t queued = 0;
  AutoResetEvent wake;
  SpinningMutex queueLock;

  pthread_t thread{};
  DefThreadManager* manager;
  std::atomic<int32_t> references{1};
};

// Counts down the threads of one run. Reused by later runs once its run has returned.
struct DefThreadManager::CompletionGroup {
  void start(int32_t count) {
    std::lock_guard<std::mutex> guard(mutex);
    remaining.store(count, std::memory_order_relaxed);
  }
  // The count and the wake-up change under one mutex, so once the waiter has seen the count
  // reach 0 no thread of the finished run touches the group any more.
  void countDown() {
    std::lock_guard<std::mutex> guard(mutex);
    if (remaining.fetch_sub(1, std::memory_order_acq_rel) == 1) done.notify_all();
  }
  // True when every thread has counted down; waits at most `timeout` for that.
  bool waitFor(milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex);
    return done.wait_for(lock, timeout,
                         [this] { return remaining.load(std::memory_order_acquire) < 1; });
  }

  std::atomic<int32_t> remaining{0};
  std::mutex mutex;
  std::condition_variable done;
  bool inUse = false;  // guarded by the manager's lock
};

namespace {

using Worker = DefThreadManager::Worker;

void runTaskJob(Worker& worker, WorkerPriority& priority) {
  worker.state.store(kBusy);
  MultiThreaded* task = worker.task;
  std::atomic<int32_t>* result = worker.result;
  DefThreadManager::CompletionGroup* group = worker.group;
  const int32_t index = worker.index;
  priority.apply(worker.lowPriority);
  t_current.index = static_cast<uint32_t>(index);

  // A thread that reaches its work after an abort skips it but still counts down.
  if (result->load() == 0) {
    if (const char* name = task->threadName()) nameThisThread(name);
    task->run(result, &worker.progress, index, worker.threadCount);
  }
  // Idle before counting down, so that the caller's next run finds every worker of this one free.
  worker.state.store(kIdle);
  group->countDown();
}

void runObjectJob(Worker& worker, WorkerPriority& priority) {
  worker.state.store(kBusy);
  AsyncTask* object = worker.object;
  const uint64_t argument = worker.argument;
  priority.apply(worker.lowPriority);
  t_current.index = 0;
  if (const char* name = object->threadName()) nameThisThread(name);
  object->run(argument);
  worker.state.store(kIdle);
}

void* workerMain(void* arg) {
  Worker* worker = static_cast<Worker*>(arg);
  t_current.manager = worker->manager;
  WorkerPriority priority;
  worker->state.store(kWaiting);
  for (;;) {
    switch (worker->nextCommand()) {
      case kRunTask:
        runTaskJob(*worker, priority);
        break;
      case kRunObject:
        runObjectJob(*worker, priority);
        break;
      case kTerminate:
        t_current = CurrentWorker{};
        worker->state.store(kTerminated);
        Worker::release(worker);
        debugTrace("[ThreadManager] Thread is terminating\n");
        return nullptr;
      default:
        break;
    }
  }
}

// Starts the worker's thread with the given stack size (0 = system default). The thread holds
// its own reference to the record.
bool startThread(Worker* worker, uint32_t stackSize) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  if (stackSize != 0) {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    size_t bytes = std::max<size_t>(stackSize, static_cast<size_t>(PTHREAD_STACK_MIN));
    bytes = (bytes + page - 1) / page * page;
    pthread_attr_setstacksize(&attr, bytes);
  }
  worker->references.store(2);
  const int rc = pthread_create(&worker->thread, &attr, workerMain, worker);
  pthread_attr_destroy(&attr);
  if (rc != 0) {
    worker->references.store(1);
    return false;
  }
  return true;
}

}  // namespace

int32_t parseThreadCount(const char* text, int32_t fallback) {
  if (!text) return fallback;
  errno = 0;
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (end == text || errno == ERANGE) return fallback;
  while (*end == ' ' || *end == '\t') ++end;
  if (*end != '\0' || value < 1) return fallback;
  return static_cast<int32_t>(std::min<long>(value, kMaxDefaultThreads));
}

int32_t defaultThreadCount() {
  const int32_t n = g_defaultThreadCount.load(std::memory_order_relaxed);
  return n > 0 ? n : reloadDefaultThreadCount();
}

ThreadManager& mergeThreadManager() {
  static DefThreadManager manager;
  return manager;
}

int32_t reloadDefaultThreadCount() {
  const int32_t n = threadCountFromEnvironment();
  g_defaultThreadCount.store(n, std::memory_order_relaxed);
  return n;
}

DefThreadManager::DefThreadManager() { debugTrace("[ThreadManager] Constructor.\n"); }

DefThreadManager::~DefThreadManager() {
  debugTrace("[ThreadManager] Destructor.\n");
  terminateThreads(false);
}

size_t DefThreadManager::workerCount() {
  std::lock_guard<SpinningMutex> guard(lock_);
  return workers_.size();
}

DefThreadManager::Worker* DefThreadManager::takeWorker(ProgressCallback* progress) {
  Worker* fresh = nullptr;
  {
    std::lock_guard<SpinningMutex> guard(lock_);
    for (size_t i = 0; i < workers_.size(); ++i) {
      int32_t idle = kIdle;
      if (workers_[i]->state.compare_exchange_strong(idle, kWaiting)) return workers_[i];
    }
    fresh = new Worker(this);
    if (!startThread(fresh, stackSize_.load())) {
      delete fresh;
      debugTrace("[ThreadManager] Could not create a worker thread\n");
      return nullptr;
    }
    if (!workers_.append(fresh)) {
      // No room in the list: let the new thread end on its own.
      fresh->queue(kTerminate);
      pthread_detach(fresh->thread);
      Worker::release(fresh);
      return nullptr;
    }
  }
  if (progress && progress->wantsMessageProcessing()) {
    while (fresh->state.load() == kStarting) {
      progress->processMessages();
      std::this_thread::sleep_for(milliseconds(1));
    }
  }
  return fresh;
}

DefThreadManager::CompletionGroup* DefThreadManager::takeGroup() {
  std::lock_guard<SpinningMutex> guard(lock_);
  for (size_t i = 0; i < groups_.size(); ++i) {
    if (!groups_[i]->inUse) {
      groups_[i]->inUse = true;
      return groups_[i];
    }
  }
  auto* group = new CompletionGroup;
  if (!groups_.append(group)) {
    delete group;
    return nullptr;
  }
  group->inUse = true;
  return group;
}

int32_t DefThreadManager::run(int32_t threadCount, MultiThreaded* task,
                              ProgressCallback* progress, bool showProgress) {
  if (!task) return 0;
  const int32_t requested = threadCount > 0 ? threadCount : this->threadCount();
  task->baseProgress.store(0);
  task->result.store(0);
  if (progress) {
    progress->message(0, 30000, "Setting up %i thread(s)\n", requested);
    progress->multiThreadedBegin();
  }

  CompletionGroup* group = takeGroup();
  std::vector<Worker*> team;
  if (group) {
    team.reserve(static_cast<size_t>(requested));
    for (int32_t i = 0; i < requested; ++i) {
      Worker* worker = takeWorker(progress);
      if (!worker) break;  // the system refuses more threads: run on those we have
      team.push_back(worker);
    }
  }

  const auto n = static_cast<int32_t>(team.size());
  if (n == 0) {
    // Not even one worker: do the work on the calling thread as the only thread of the run.
    const CurrentWorker saved = t_current;
    t_current = CurrentWorker{this, 0};
    std::atomic<int32_t> ownProgress{0};
    task->run(&task->result, &ownProgress, 0, 1);
    t_current = saved;
  } else {
    group->start(n);
    const bool low = lowPriority_.load();
    for (int32_t i = 0; i < n; ++i) {
      Worker* worker = team[static_cast<size_t>(i)];
      worker->task = task;
      worker->result = &task->result;
      worker->progress.store(0);
      worker->group = group;
      worker->threadCount = n;
      worker->index = i;
      worker->lowPriority = low;
      worker->queue(kRunTask);
    }

    while (!group->waitFor(kWaitSlice)) {
      if (!progress) continue;
      if (showProgress) {
        uint32_t sum = static_cast<uint32_t>(task->baseProgress.load());
        for (Worker* worker : team) sum += static_cast<uint32_t>(worker->progress.load());
        progress->setProgress(static_cast<int32_t>(sum));
      }
      if (const int abort = progress->abortRequested()) task->result.store(abort);
      if (progress->wantsMessageProcessing()) progress->processMessages();
    }
  }

  if (group) {
    std::lock_guard<SpinningMutex> guard(lock_);
    group->inUse = false;
  }
  if (progress) {
    progress->multiThreadedEnd();
    progress->message(0, 30000, "Threads completed\n");
    if (progress->wantsMessageProcessing()) progress->processMessages();
  }
  return task->result.load();
}

int32_t DefThreadManager::runAsync(AsyncTask* object, uint64_t argument) {
  if (!object) return -1;
  Worker* worker = takeWorker(nullptr);
  if (!worker) return -1;
  worker->object = object;
  worker->argument = argument;
  worker->task = nullptr;
  worker->result = nullptr;
  worker->progress.store(0);
  worker->group = nullptr;
  worker->threadCount = 1;
  worker->index = 0;
  worker->lowPriority = lowPriority_.load();
  worker->queue(kRunObject);
  return 0;
}

void DefThreadManager::terminateThreads(bool force) {
  (void)force;  // a thread cannot be killed here: a stuck one is detached either way
  std::vector<Worker*> workers;
  std::vector<CompletionGroup*> groups;
  {
    std::lock_guard<SpinningMutex> guard(lock_);
    for (size_t i = 0; i < workers_.size(); ++i) workers.push_back(workers_[i]);
    for (size_t i = 0; i < groups_.size(); ++i) groups.push_back(groups_[i]);
    workers_.clear();
    groups_.clear();
  }

  debugTrace("[ThreadManager] Terminating %i threads\n", static_cast<int>(workers.size()));
  for (Worker* worker : workers) {
    worker->queue(kTerminate);
    debugTrace("[ThreadManager] Waiting for LGL thread to finish...\n");
    const auto start = Clock::now();
    while (worker->state.load() != kTerminated && Clock::now() - start < kTerminateWait)
      std::this_thread::sleep_for(milliseconds(1));
    if (worker->state.load() == kTerminated) {
      pthread_join(worker->thread, nullptr);
    } else {
      debugTrace("[ThreadManager] Thread did not terminate for the timeout interval\n");
      pthread_detach(worker->thread);
    }
    Worker::release(worker);
  }
  for (CompletionGroup* group : groups) delete group;
  debugTrace("[ThreadManager] All threads terminated\n");
}

void DefThreadManager::setLowPriority(bool low) { lowPriority_.store(low); }

void DefThreadManager::setStackSize(uint32_t bytes) { stackSize_.store(bytes); }

uint32_t DefThreadManager::currentThreadIndex() {
  return t_current.manager == this ? t_current.index : kNotAWorker;
}

}  // namespace LUtils
