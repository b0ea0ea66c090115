#include "irradiance/parallel_incremental.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <utility>
#include <time.h>
#include <vector>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "io/prefetch.h"
#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/sample_kdtree.h"
#include "irradiance/shading.h"
#include "threads/progress_callback.h"
#include "threads/thread_manager.h"

namespace LUtils {

namespace {

constexpr int kFlags = kLookupColourUnused;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point from) {
  return std::chrono::duration<double>(Clock::now() - from).count();
}

double threadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// A job of the merge's crew that sums its threads' CPU time.
class MergeTask : public MultiThreaded {
 public:
  double cpuSeconds = 0.0;  // summed over the workers

 protected:
  void addCpu(double seconds) {
    std::lock_guard<std::mutex> guard(cpuLock_);
    cpuSeconds += seconds;
  }

 private:
  std::mutex cpuLock_;
};

// The parallel lookup of one sample.
struct Decided {
  uint32_t worker = 0;
  uint32_t begin = 0, count = 0;  // its candidates' samples in the worker's pool
  bool create = false;
  // Set between the commit of the batch before and this batch's commit when a sample stored by
  // that commit reaches the point or a candidate had its radius lowered by it.
  bool changedBefore = false;
  std::atomic<bool> ready{false};
};

// Room for `want` samples in a batch's array. The batches grow as the map fills and each keeps
// fewer of its samples, often by a little each time: room made to the exact size would move
// each batch to fresh memory, whose pages the kernel maps again one by one (8,000 of the 22,000
// page faults of a 1M-sample frame offered to another on two threads). Made half as large
// again, it moves a few times.
size_t grownCapacity(size_t capacity, size_t want) {
  return std::max(want, capacity + capacity / 2);
}
template <class Array>
void makeRoom(Array& array, size_t want) {
  if (want > array.capacity()) array.reserve(grownCapacity(array.capacity(), want));
}

// The samples of a batch still to be read from the source: `want` from source index `first`.
struct PendingRead {
  IrradianceMap* source = nullptr;  // none: the batch was read already
  uint32_t first = 0, want = 0;
};

// A worker's candidate samples for the commit: the pool grows at every lookup, so each sits on
// cache lines of its own, where pools side by side would pass their line from core to core.
struct alignas(64) CandidatePool {
  std::vector<IrradSample*> samples;
};

// A worker's buffers for its lookups, kept from batch to batch, on lines of their own as the
// pools are.
struct alignas(64) LookupScratch {
  std::vector<LookupCandidate> candidates;
  SampleKdTree::TreeWalks walks;
};

// Looks up every sample of a batch against the map as it stands, on several threads. Where the
// batch is still to be read, the first thread to take the job reads it, and the others wait.
class LookupTask : public MergeTask {
 public:
  LookupTask(DefIrradianceMap& map, std::vector<IrradSample>& batch, PendingRead read,
             Decided* decided, std::vector<CandidatePool>& pools,
             std::vector<LookupScratch>& scratch)
      : map_(map), batch_(batch), read_(read), decided_(decided), pools_(pools),
        scratch_(scratch), settings_(LookupSettings::fromHeader(*map.header())) {}

  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t index, int32_t) override {
    if (read_.source) readFirst();
    const auto worker = static_cast<uint32_t>(index);
    if (worker >= pools_.size()) return;  // more threads than asked for: the others do it
    std::vector<IrradSample*>& pool = pools_[worker].samples;
    std::vector<LookupCandidate>& own = scratch_[worker].candidates;
    ThreadData thread;
    thread.threadIndex = worker;
    ShadeData shade;
    NullIrradianceSampler sampler;  // only asked whether there is one
    shade.sampler = &sampler;
    const bool guarded = map_.multiThreaded() != 0;
    const auto n = static_cast<uint32_t>(batch_.size());
    const SampleKdTree& tree = map_.kdTree();
    SampleKdTree::TreeWalks& walks = scratch_[worker].walks;
    Vector points[kChunk];
    const double cpuStart = threadCpuSeconds();
    for (;;) {
      const uint32_t first = next_.fetch_add(kChunk, std::memory_order_relaxed);
      if (first >= n) break;
      const uint32_t end = std::min(n, first + kChunk);
      if (guarded) map_.multiReaderLock().readLock(worker);
      // The tree's part of the chunk's lookups first, several walks at a time; the grid's
      // cells a few samples ahead.
      for (uint32_t i = first; i < end; ++i) points[i - first] = batch_[i].position;
      tree.walk(std::span<const Vector>(points, end - first), walks);
      walks.askFirstSamples();
      SampleKdTree::CellsAhead cells(tree, {batch_.data() + first, end - first});
      for (uint32_t i = first; i < end; ++i) {
        const SampleKdTree::Probe* probe = cells.next(i - first);
        if (i + SampleKdTree::TreeWalks::kSamplesAhead < end) {
          walks.askSamples(i + SampleKdTree::TreeWalks::kSamplesAhead - first);
        }
        const ShadeContext context = makeInsertionContext(batch_[i], thread);
        own.clear();
        collectCandidates(tree, context, settings_, walks.hitsOf(i - first), own, nullptr, probe);
        Decided& d = decided_[i];
        const SpacingDecision decision = decideSpacing(settings_, lookupFootprint(context), own);
        d.create = createsSample(decision, context, shade, kFlags);
        d.worker = worker;
        d.begin = static_cast<uint32_t>(pool.size());
        d.count = static_cast<uint32_t>(own.size());
        const size_t at = pool.size();
        pool.resize(at + own.size());
        for (size_t k = 0; k < own.size(); ++k) pool[at + k] = own[k].sample;
        d.ready.store(true, std::memory_order_release);
      }
      if (guarded) map_.multiReaderLock().readUnlock(worker);
    }
    addCpu(threadCpuSeconds() - cpuStart);
  }

 private:
  void readFirst() {
    if (!readTaken_.exchange(true, std::memory_order_acq_rel)) {
      const double cpuStart = threadCpuSeconds();
      batch_.clear();
      makeRoom(batch_, read_.want);
      CopySamplesCb reader(batch_, read_.want);
      read_.source->enumerateSamples(read_.first, &reader);
      addCpu(threadCpuSeconds() - cpuStart);
      readDone_.store(true, std::memory_order_release);
      readDone_.notify_all();
      return;
    }
    while (!readDone_.load(std::memory_order_acquire)) {
      readDone_.wait(false, std::memory_order_acquire);
    }
  }

  static constexpr uint32_t kChunk = 64;
  DefIrradianceMap& map_;
  std::vector<IrradSample>& batch_;
  const PendingRead read_;
  std::atomic<bool> readTaken_{false};
  std::atomic<bool> readDone_{false};
  Decided* decided_;
  std::vector<CandidatePool>& pools_;
  std::vector<LookupScratch>& scratch_;
  const LookupSettings settings_;
  std::atomic<uint32_t> next_{0};
};

// The samples whose radii were lowered during one batch: an open-addressed set of pointers, at
// most half full, emptied by clearing the slots it used, behind a bit filter small enough to stay
// in the first-level cache, which answers most questions alone.
class LoweredSet {
 public:
  LoweredSet() : slots_(kInitialSlots, nullptr), filter_(kFilterBits / 64, 0) {}
  void clear() {
    for (size_t at : used_) {
      const size_t h = hash(slots_[at]) >> kFilterShift;
      filter_[h / 64] = 0;
      slots_[at] = nullptr;
    }
    used_.clear();
  }
  void add(const IrradSample* s) {
    if (2 * (used_.size() + 1) > slots_.size()) grow();
    const size_t h = hash(s) >> kFilterShift;
    filter_[h / 64] |= uint64_t{1} << (h % 64);
    place(s);
  }
  bool contains(const IrradSample* s) const {
    const size_t h = hash(s) >> kFilterShift;
    if (!(filter_[h / 64] >> (h % 64) & 1)) return false;
    const size_t mask = slots_.size() - 1;
    for (size_t at = hash(s) & mask;; at = (at + 1) & mask) {
      if (slots_[at] == s) return true;
      if (!slots_[at]) return false;
    }
  }
  bool empty() const { return used_.empty(); }

 private:
  static constexpr size_t kInitialSlots = 4096;
  static constexpr size_t kFilterBits = size_t{1} << 16;
  static constexpr int kFilterShift = 16;  // the filter takes the hash's upper 16 of 32 bits
  static size_t hash(const IrradSample* s) {
    return static_cast<size_t>((reinterpret_cast<uintptr_t>(s) * 0x9E3779B97F4A7C15ull) >> 32);
  }
  void place(const IrradSample* s) {
    const size_t mask = slots_.size() - 1;
    for (size_t at = hash(s) & mask;; at = (at + 1) & mask) {
      if (slots_[at] == s) return;
      if (!slots_[at]) {
        slots_[at] = s;
        used_.push_back(at);
        return;
      }
    }
  }
  void grow() {
    std::vector<const IrradSample*> old;
    old.reserve(used_.size());
    for (size_t at : used_) old.push_back(slots_[at]);
    slots_.assign(slots_.size() * 2, nullptr);
    used_.clear();
    for (const IrradSample* s : old) place(s);
  }
  std::vector<const IrradSample*> slots_;
  std::vector<size_t> used_;  // the slots in use
  std::vector<uint64_t> filter_;
};

// What a commit changed: the samples it stored, begun in the map's index and not yet listed
// (the batch finds them as listing will), the samples whose radii it lowered, and the cells
// that both take, as spheres of their radii before, which answer most questions alone: a point
// outside them all was reached by none of these samples before or after, and had none of them
// as a candidate.
struct CommitChanges {
  InsertionGrid::CellBatch stored;
  LoweredSet lowered;
  InsertionGrid::CellFilter cells;

  void clear() {
    stored.clear();
    lowered.clear();
    cells.clear();
  }
  bool empty() const { return cells.empty(); }
  // Whether a lookup that collected these candidates at point p saw the map as it is now.
  bool changedFor(const Vector& p, std::span<IrradSample* const> candidates) const {
    if (!cells.mayContain(p)) return false;
    if (!lowered.empty()) {
      for (const IrradSample* c : candidates) {
        if (lowered.contains(c)) return true;
      }
    }
    return stored.reaches(p);
  }
};

// Marks the samples of a batch whose lookups ran while the batch before was committed and that
// this commit changed: a sample it stored reaches the point, or a candidate had its radius
// lowered.
class CheckTask : public MergeTask {
 public:
  CheckTask(const std::vector<IrradSample>& batch, Decided* decided,
            const std::vector<CandidatePool>& pools, const CommitChanges& changes)
      : batch_(batch), decided_(decided), pools_(pools), changes_(changes) {}

  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
    const double cpuStart = threadCpuSeconds();
    const auto n = static_cast<uint32_t>(batch_.size());
    for (;;) {
      const uint32_t first = next_.fetch_add(kChunk, std::memory_order_relaxed);
      if (first >= n) break;
      for (uint32_t i = first; i < std::min(n, first + kChunk); ++i) {
        Decided& d = decided_[i];
        d.changedBefore = false;
        if (!d.ready.load(std::memory_order_acquire)) continue;
        d.changedBefore = changes_.changedFor(
            batch_[i].position,
            std::span<IrradSample* const>(pools_[d.worker].samples).subspan(d.begin, d.count));
      }
    }
    addCpu(threadCpuSeconds() - cpuStart);
  }

 private:
  static constexpr uint32_t kChunk = 256;
  const std::vector<IrradSample>& batch_;
  Decided* decided_;
  const std::vector<CandidatePool>& pools_;
  const CommitChanges& changes_;
  std::atomic<uint32_t> next_{0};
};

// Two jobs of the crew as one: every thread takes its part of the first, then of the second.
class BothTasks : public MultiThreaded {
 public:
  BothTasks(MultiThreaded& first, MultiThreaded& second) : first_(first), second_(second) {}
  void run(std::atomic<int32_t>* resultWord, std::atomic<int32_t>* progress, int32_t index,
           int32_t count) override {
    first_.run(resultWord, progress, index, count);
    second_.run(resultWord, progress, index, count);
  }

 private:
  MultiThreaded& first_;
  MultiThreaded& second_;
};

// The merge's team: the calling thread and up to `helpers` workers of the thread manager, which
// stay with the merge from its start to its end (each handed over once, by runAsync) and take
// its jobs with the calling thread. start() hands a job to the helpers (indexes 1 and up) and
// returns at once, so that the calling thread can commit meanwhile; finish() runs the calling
// thread's share (index 0), closes the job and waits for the helpers that joined it. A helper
// joins a job only while it is open, so one that comes late (its core busy with another
// program) leaves the job to the others instead of holding them up: every job hands its work
// out in parts that any thread may take, and with no helper at all finish() does the whole job.
// A merge hands over a few jobs per batch, every millisecond or so: both sides wait for the
// other by spinning a little before they sleep, since a sleeping thread takes tens of
// microseconds to wake.
class MergeCrew {
 public:
  MergeCrew(ThreadManager& threads, uint32_t helpers) {
    for (uint32_t i = 0; i < helpers; ++i) {
      auto helper = std::make_unique<Helper>(*this, i + 1);
      {
        std::lock_guard<std::mutex> guard(exitLock_);
        ++running_;
      }
      if (threads.runAsync(helper.get(), 0) != 0) {
        std::lock_guard<std::mutex> guard(exitLock_);
        --running_;
        break;
      }
      helpers_.push_back(std::move(helper));
    }
  }
  ~MergeCrew() {
    stop_.store(true, std::memory_order_relaxed);
    generation_.fetch_add(1, std::memory_order_release);
    generation_.notify_all();
    std::unique_lock<std::mutex> guard(exitLock_);
    gone_.wait(guard, [&] { return running_ == 0; });
  }
  MergeCrew(const MergeCrew&) = delete;
  MergeCrew& operator=(const MergeCrew&) = delete;

  uint32_t size() const { return static_cast<uint32_t>(helpers_.size()) + 1; }

  // Wall time the calling thread waited in finish() for helpers to finish their parts.
  double waitSeconds = 0.0;

  void start(MultiThreaded& task) {
    if (helpers_.empty()) return;
    task_ = &task;
    done_.store(0, std::memory_order_relaxed);
    const uint64_t job = generation_.load(std::memory_order_relaxed) + 1;
    joins_.store(job << 32, std::memory_order_release);
    generation_.store(job, std::memory_order_release);
    generation_.notify_all();
  }
  // The calling thread's CPU time in its shares is added to `callerCpu`.
  void finish(MultiThreaded& task, double& callerCpu) {
    const double cpuStart = threadCpuSeconds();
    std::atomic<int32_t> progress{0};
    task.run(&task.result, &progress, 0, static_cast<int32_t>(size()));
    callerCpu += threadCpuSeconds() - cpuStart;
    if (helpers_.empty()) return;
    // No helper joins from now on; those that did finish their part.
    const auto joined = static_cast<uint32_t>(
        joins_.fetch_or(kClosed, std::memory_order_acq_rel) & kJoinedMask);
    if (done_.load(std::memory_order_acquire) == joined) return;
    const Clock::time_point waitStart = Clock::now();
    for (uint32_t done = spinWhile(done_, [joined](uint32_t d) { return d != joined; });
         done != joined; done = done_.load(std::memory_order_acquire)) {
      done_.wait(done, std::memory_order_acquire);
    }
    waitSeconds += secondsSince(waitStart);
  }
  void run(MultiThreaded& task, double& callerCpu) {
    start(task);
    finish(task, callerCpu);
  }

 private:
  class Helper final : public AsyncTask {
   public:
    Helper(MergeCrew& crew, uint32_t index) : crew_(crew), index_(index) {}
    void run(uint64_t) override { crew_.serve(index_); }
    const char* threadName() override { return "merge_thread"; }

   private:
    MergeCrew& crew_;
    uint32_t index_;
  };

  // Spins a while as long as `waiting` holds for the value of `word`; returns the value last
  // read, for which the caller sleeps when it still holds.
  template <class T, class Waiting>
  static T spinWhile(const std::atomic<T>& word, Waiting waiting) {
    T now = word.load(std::memory_order_acquire);
    for (int spin = 0; spin < kSpins; ++spin) {
      if (!waiting(now)) break;
#if defined(__SSE2__)
      _mm_pause();
#endif
      now = word.load(std::memory_order_acquire);
    }
    return now;
  }

  // Joins the job `job` while it is still open; false when it was closed or a later one began.
  bool join(uint64_t job) {
    uint64_t word = joins_.load(std::memory_order_acquire);
    while ((word >> 32) == (job & 0xFFFFFFFFu) && !(word & kClosed)) {
      if (joins_.compare_exchange_weak(word, word + 1, std::memory_order_acq_rel)) return true;
    }
    return false;
  }

  // A helper's life: the jobs from the first start() after it began to the end of the merge,
  // each that it finds still open.
  void serve(uint32_t index) {
    uint64_t seen = 0;
    for (;;) {
      uint64_t now = spinWhile(generation_, [seen](uint64_t g) { return g == seen; });
      while (now == seen) {
        generation_.wait(seen, std::memory_order_acquire);
        now = generation_.load(std::memory_order_acquire);
      }
      seen = now;
      if (stop_.load(std::memory_order_relaxed)) break;
      if (!join(now)) continue;  // done without this helper
      // The job stays open, and its task_ with it, until this helper is done.
      MultiThreaded* task = task_;
      std::atomic<int32_t> progress{0};
      task->run(&task->result, &progress, static_cast<int32_t>(index),
                static_cast<int32_t>(size()));
      done_.fetch_add(1, std::memory_order_acq_rel);
      done_.notify_all();
    }
    std::lock_guard<std::mutex> guard(exitLock_);
    if (--running_ == 0) gone_.notify_all();  // under the lock: the crew may go at once after
  }

  static constexpr int kSpins = 500;  // pauses: a few to some tens of microseconds
  // joins_: the job's number in the upper half, kClosed once finish() closed it, and below
  // that how many helpers joined it.
  static constexpr uint64_t kClosed = uint64_t{1} << 31;
  static constexpr uint64_t kJoinedMask = kClosed - 1;
  std::vector<std::unique_ptr<Helper>> helpers_;
  MultiThreaded* task_ = nullptr;  // written before the job opens, read by the helpers joining
  // The number of the job last started: the word the helpers wait on, which changes only when a
  // job starts. joins_ carries the same number but changes at every join and close, so a helper
  // waiting on it would have to tell a new job from another helper's join at every change.
  std::atomic<uint64_t> generation_{0};
  std::atomic<uint64_t> joins_{0};
  std::atomic<uint32_t> done_{0};  // helpers done with the current job
  std::atomic<bool> stop_{false};
  std::mutex exitLock_;
  std::condition_variable gone_;
  uint32_t running_ = 0;  // helpers not yet gone
};

// Lists a batch's begun entries in the map's grid on several threads, a shard at a time: each
// shard gets its cells in the order begun, whichever thread takes it. Each thread takes its own
// shards first (the same ones batch after batch, whose tables stay in its cache), then any that
// no thread has taken yet.
class ListTask : public MergeTask {
 public:
  ListTask(SampleKdTree& tree, const InsertionGrid::CellBatch& batch)
      : tree_(tree), batch_(batch) {}

  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t index, int32_t count) override {
    const double cpuStart = threadCpuSeconds();
    for (int s = index; s < InsertionGrid::kShards; s += count) listShard(s);
    for (int s = 0; s < InsertionGrid::kShards; ++s) listShard(s);
    addCpu(threadCpuSeconds() - cpuStart);
  }

 private:
  void listShard(int s) {
    const uint32_t bit = 1u << s;
    if (taken_.fetch_or(bit, std::memory_order_relaxed) & bit) return;
    tree_.listEntries(batch_, bit);
  }

  SampleKdTree& tree_;
  const InsertionGrid::CellBatch& batch_;
  std::atomic<uint32_t> taken_{0};  // bit s: shard s is taken
};

// Indexes the samples that a batch's commit stores: begun in the map's index at once, kept in
// the commit's `stored` batch, which the checks and the lookups looked up again at commit are
// given, and listed in the map's grid after the batch, by the crew. When the index wants to
// fold, the crew is stopped first (beforeFold), everything begun is listed and the index folds
// where the one-thread merge would.
class DeferredIndexer : public SampleIndexer {
 public:
  DeferredIndexer(DefIrradianceMap& map, CommitChanges& changes, MergeCrew& crew,
                  ParallelAddStats& stats)
      : map_(map), changes_(changes), crew_(crew), stats_(stats) {}

  template <class F>
  void setBeforeFold(F&& f) {
    beforeFold_ = std::forward<F>(f);
  }

  void index(IrradSample& sample) override {
    SampleKdTree& tree = map_.kdTree();
    InsertionGrid::Sphere entry;
    InsertionGrid::Box box;
    if (!tree.beginInsert(sample, entry, &box)) return;
    changes_.stored.add(entry, box, &changes_.cells);
    if (tree.wantsFold()) {
      if (beforeFold_) beforeFold_();
      listPending();
      const Clock::time_point start = Clock::now();
      tree.fold();
      stats_.foldSeconds += secondsSince(start);
      folded = true;
    }
  }

  // Lists what was begun and empties the commit's `stored` (the caller holds the write side of
  // the map's lock when the map is multi-threaded, and no lookup runs); the crew then does
  // `alongside` when given.
  void listPending(MultiThreaded* alongside = nullptr) {
    double callerCpu = 0.0;
    InsertionGrid::CellBatch& pending = changes_.stored;
    if (pending.empty()) {
      if (alongside) crew_.run(*alongside, callerCpu);
      callerShareCpu += callerCpu;
      return;
    }
    const Clock::time_point start = Clock::now();
    ListTask task(map_.kdTree(), pending);
    if (alongside) {
      BothTasks both(task, *alongside);
      crew_.run(both, callerCpu);
    } else {
      crew_.run(task, callerCpu);
    }
    stats_.listSeconds += secondsSince(start);
    stats_.listCpuSeconds += task.cpuSeconds;
    callerShareCpu += callerCpu;
    pending.clear();
  }

  bool folded = false;  // in this batch
  double callerShareCpu = 0.0;  // the calling thread's CPU time in the listing

 private:
  DefIrradianceMap& map_;
  CommitChanges& changes_;
  MergeCrew& crew_;
  ParallelAddStats& stats_;
  std::function<void()> beforeFold_;
};

// One batch of the source and its parallel lookups.
struct Batch {
  std::vector<IrradSample> samples;
  std::unique_ptr<Decided[]> decided;
  uint32_t capacity = 0;
  // The samples of the candidates, one pool per worker: all that the commit reads of them.
  std::vector<CandidatePool> pools;
  std::unique_ptr<LookupTask> lookups;
  uint32_t first = 0;        // the source index of its first sample
  PendingRead unread;        // what its first lookups read before they start, if anything
  bool overlapped = false;   // looked up while the batch before it was committed
  bool inFlight = false;     // its lookups were started and not yet finished
  bool stale = false;        // looked up before a fold of the index: to be looked up again
};

// The state of one parallel merge; see the header for the rules it keeps.
class ParallelMerge {
 public:
  ParallelMerge(DefIrradianceMap& map, IrradianceMap& source, uint32_t total,
                ProgressCallback* progress, ThreadManager& threads, uint32_t workers)
      : map_(map), source_(source), total_(total), progress_(progress),
        settings_(LookupSettings::fromHeader(*map.header())), crew_(threads, workers - 1),
        indexer_(map, changes_, crew_, stats_),
        // The lookups of the next batch overlap the commit only where nothing else reads the
        // map meanwhile: a multi-threaded map is looked up and written in turns.
        overlap_(map.multiThreaded() == 0 && crew_.size() > 1),
        // Where the lookups overlap the commit, the next batch is read by them too, unless the
        // source is the map itself, which the commit writes.
        readAhead_(overlap_ && static_cast<IrradianceMap*>(&map) != &source) {
    for (Batch& b : batches_) b.pools.resize(crew_.size());
    lookupScratch_.resize(crew_.size());
    indexer_.setBeforeFold([this] {
      // The next batch's lookups saw the tree that the fold replaces.
      if (next_ && next_->inFlight) finishLookups(*next_);
      if (next_ && next_->overlapped) next_->stale = true;
    });
  }

  ParallelAddStats run();

 private:
  bool read(Batch& b, uint32_t first);
  void readLater(Batch& b, uint32_t first);
  void startLookups(Batch& b);
  void finishLookups(Batch& b);
  uint32_t commit(Batch& b);

  DefIrradianceMap& map_;
  IrradianceMap& source_;
  const uint32_t total_;
  ProgressCallback* progress_;
  const LookupSettings settings_;
  ParallelAddStats stats_;
  CommitChanges changes_;  // by the batch being committed
  MergeCrew crew_;
  DeferredIndexer indexer_;
  const bool overlap_;
  const bool readAhead_;
  uint32_t size_ = 0;  // samples per batch
  Batch batches_[2];
  Batch* next_ = nullptr;  // the batch looked up while the current one is committed
  std::vector<LookupCandidate> scratch_;  // a lookup made again at commit
  std::vector<LookupScratch> lookupScratch_;  // each worker's, for the parallel lookups
  std::vector<LoweredRadius> loweredNow_;
  ThreadData caller_;  // the commits run as thread 0, as the one-thread merge does
  double callerShareCpu_ = 0.0;  // the calling thread's CPU time in its shares of the lookups
};

bool ParallelMerge::read(Batch& b, uint32_t first) {
  const Clock::time_point start = Clock::now();
  const uint32_t want = std::min(size_, total_ - first);
  b.samples.clear();
  makeRoom(b.samples, want);
  CopySamplesCb reader(b.samples, want);
  source_.enumerateSamples(first, &reader);
  b.first = first;
  b.unread = {};
  b.overlapped = b.inFlight = b.stale = false;
  stats_.commitSeconds += secondsSince(start);
  return !b.samples.empty();  // empty: the source shrank under us
}

void ParallelMerge::readLater(Batch& b, uint32_t first) {
  b.samples.clear();
  b.first = first;
  b.unread = {&source_, first, std::min(size_, total_ - first)};
  b.overlapped = b.inFlight = b.stale = false;
}

void ParallelMerge::startLookups(Batch& b) {
  const auto n = b.unread.source ? b.unread.want : static_cast<uint32_t>(b.samples.size());
  if (n > b.capacity) {
    b.capacity = static_cast<uint32_t>(grownCapacity(b.capacity, n));
    b.decided.reset(new Decided[b.capacity]);
  }
  for (uint32_t i = 0; i < n; ++i) b.decided[i].ready.store(false, std::memory_order_relaxed);
  for (CandidatePool& pool : b.pools) pool.samples.clear();
  b.lookups = std::make_unique<LookupTask>(map_, b.samples, b.unread, b.decided.get(), b.pools,
                                           lookupScratch_);
  b.unread = {};  // read once, by these lookups
  crew_.start(*b.lookups);
  b.inFlight = true;
  b.stale = false;
}

void ParallelMerge::finishLookups(Batch& b) {
  const Clock::time_point start = Clock::now();
  crew_.finish(*b.lookups, callerShareCpu_);
  b.inFlight = false;
  stats_.lookupSeconds += secondsSince(start);
  stats_.lookupCpuSeconds += b.lookups->cpuSeconds;
}

// Commits a batch in source order; returns how many of its samples were stored.
uint32_t ParallelMerge::commit(Batch& b) {
  constexpr uint32_t kDecidedAhead = 8;
  const Clock::time_point start = Clock::now();
  changes_.clear();
  indexer_.folded = false;
  uint32_t kept = 0;
  const auto n = static_cast<uint32_t>(b.samples.size());
  for (uint32_t i = 0; i < n; ++i) {
    // The lookups were written on other cores: ask for them ahead.
    if (i + kDecidedAhead < n) {
      prefetchLine(&b.decided[i + kDecidedAhead]);
    }
    const IrradSample& sample = b.samples[i];
    const Decided& d = b.decided[i];

    bool same = d.ready.load(std::memory_order_acquire) && !indexer_.folded;
    std::span<IrradSample* const> candidates;
    if (same) {
      candidates =
          std::span<IrradSample* const>(b.pools[d.worker].samples).subspan(d.begin, d.count);
      if (b.overlapped && d.changedBefore) same = false;
      if (same && !changes_.empty()) same = !changes_.changedFor(sample.position, candidates);
    }
    if (same && !d.create) {
      // Covered, as on one thread: nothing to store.
      if (progress_) progress_->setProgress(static_cast<int32_t>(b.first + i + 1));
      continue;
    }

    bool create = same;
    if (!same) {
      ++stats_.redone;
      ShadeContext context = makeInsertionContext(sample, caller_);
      NullIrradianceSampler sampler;  // only asked whether there is one
      ShadeData shade;
      shade.sampler = &sampler;
      const bool guarded = map_.multiThreaded() != 0;
      if (guarded) map_.multiReaderLock().readLock(caller_.threadIndex);
      scratch_.clear();
      collectCandidates(map_.kdTree(), context, settings_, scratch_, &changes_.stored);
      const SpacingDecision decision = decideSpacing(settings_, lookupFootprint(context), scratch_);
      if (guarded) map_.multiReaderLock().readUnlock(caller_.threadIndex);
      create = createsSample(decision, context, shade, kFlags);
    }

    if (create) {
      loweredNow_.clear();
      // What the one-thread merge's sampler stores: the offered sample, whole.
      IrradSample* added =
          same ? storeSample(map_, caller_.threadIndex, sample, candidates, &loweredNow_, &indexer_)
               : storeSample(map_, caller_.threadIndex, sample,
                             std::span<const LookupCandidate>(scratch_), &loweredNow_, &indexer_);
      if (added) {
        ++kept;
        for (const LoweredRadius& l : loweredNow_) {
          changes_.lowered.add(l.sample);
          changes_.cells.add(SampleKdTree::boundingSphere(*l.sample, l.before2));
        }
      }
    }
    if (progress_) progress_->setProgress(static_cast<int32_t>(b.first + i + 1));
  }
  stats_.commitSeconds += secondsSince(start);
  return kept;
}

ParallelAddStats ParallelMerge::run() {
  using namespace parallel_incremental;
  const uint32_t workers = crew_.size();
  const double callerCpuStart = threadCpuSeconds();
  size_ = workers * kMinPerThread;
  Batch* current = &batches_[0];
  Batch* next = &batches_[1];
  if (total_ > 0 && read(*current, 0)) {
    startLookups(*current);
    finishLookups(*current);
    for (;;) {
      // Read the next batch, and look it up while this one is committed where that may be.
      const uint32_t following = current->first + static_cast<uint32_t>(current->samples.size());
      bool haveNext = following < total_;
      if (haveNext && readAhead_) {
        readLater(*next, following);
      } else if (haveNext) {
        haveNext = read(*next, following);
      }
      next_ = haveNext ? next : nullptr;
      if (haveNext && overlap_) {
        startLookups(*next);
        next->overlapped = true;
      }
      const uint32_t kept = commit(*current);
      next_ = nullptr;
      if (haveNext && next->inFlight) finishLookups(*next);
      if (next->samples.empty()) haveNext = false;  // the source shrank under us
      // List the batch's samples in the map's grid, before the next commit and lookups; and
      // mark the next batch's lookups that this commit changed.
      {
        const bool guarded = map_.multiThreaded() != 0;
        if (guarded) map_.multiReaderLock().writeLock(caller_.threadIndex);
        std::unique_ptr<CheckTask> check;
        if (haveNext && next->overlapped && !next->stale) {
          check = std::make_unique<CheckTask>(next->samples, next->decided.get(), next->pools,
                                              changes_);
        }
        indexer_.listPending(check.get());
        if (check) stats_.listCpuSeconds += check->cpuSeconds;
        if (guarded) map_.multiReaderLock().writeUnlock(caller_.threadIndex);
      }
      const auto n = static_cast<uint32_t>(current->samples.size());
      ++stats_.batches;
      stats_.offered += n;
      stats_.kept += kept;
      // About kTargetKeptPerThread kept samples per thread in the batch read next.
      const uint64_t sized =
          uint64_t{n} * kTargetKeptPerThread * workers / std::max<uint32_t>(kept, 1);
      size_ = static_cast<uint32_t>(std::clamp<uint64_t>(sized, uint64_t{workers} * kMinPerThread,
                                                         uint64_t{workers} * kMaxPerThread));
      if (!haveNext) break;
      if (next->stale) ++stats_.relookedBatches;
      if (!next->overlapped || next->stale) {
        startLookups(*next);
        finishLookups(*next);
        next->overlapped = false;
      }
      std::swap(current, next);
    }
  }
  stats_.waitSeconds = crew_.waitSeconds;
  stats_.commitCpuSeconds =
      threadCpuSeconds() - callerCpuStart - callerShareCpu_ - indexer_.callerShareCpu;
  return stats_;
}

}  // namespace

ParallelAddStats addIncrementallyInParallel(DefIrradianceMap& map, IrradianceMap& source,
                                            int32_t count, ProgressCallback* progress,
                                            ThreadManager& threads, int32_t threadCount) {
  // Each worker reads under its own slot of the map's lock.
  const auto workers = std::min(static_cast<uint32_t>(std::max(threadCount, 1)),
                                map.multiReaderLock().threadSlots());
  ParallelMerge merge(map, source, static_cast<uint32_t>(std::max(count, 0)), progress, threads,
                      std::max(workers, 1u));
  return merge.run();
}

}  // namespace LUtils
