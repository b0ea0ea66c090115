#include "irradiance/parallel_incremental.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <span>
#include <time.h>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/sample_kdtree.h"
#include "irradiance/shading.h"
#include "threads/progress_callback.h"
#include "threads/thread_manager.h"

namespace LUtils {

namespace {

constexpr int kFlags = kLookupColourUnused;

double threadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// A task of the merge's workers that sums their CPU time.
class MergeTask : public MultiThreaded {
 public:
  const char* threadName() override { return "merge_thread"; }
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
  SpacingDecision decision;
  uint32_t worker = 0;
  uint32_t begin = 0, count = 0;  // its candidates in the worker's pool
  bool create = false;
  std::atomic<bool> ready{false};
};

// Looks up every sample of a batch against the map as it stands, on several threads.
class LookupTask : public MergeTask {
 public:
  LookupTask(DefIrradianceMap& map, const std::vector<IrradSample>& batch, Decided* decided,
             std::vector<std::vector<LookupCandidate>>& pools)
      : map_(map), batch_(batch), decided_(decided), pools_(pools),
        settings_(LookupSettings::fromHeader(*map.header())) {}

  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t index, int32_t) override {
    const auto worker = static_cast<uint32_t>(index);
    if (worker >= pools_.size()) return;  // more threads than asked for: the others do it
    std::vector<LookupCandidate>& pool = pools_[worker];
    std::vector<LookupCandidate> own;
    ThreadData thread;
    thread.threadIndex = worker;
    ShadeData shade;
    NullIrradianceSampler sampler;  // only asked whether there is one
    shade.sampler = &sampler;
    const bool guarded = map_.multiThreaded() != 0;
    const auto n = static_cast<uint32_t>(batch_.size());
    const SampleKdTree& tree = map_.kdTree();
    SampleKdTree::TreeWalks walks;
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
      for (uint32_t i = first; i < end && i < first + 2 * kAhead; ++i) {
        tree.prefetchInserted(batch_[i].position);
      }
      for (uint32_t i = first; i < end; ++i) {
        if (i + 2 * kAhead < end) tree.prefetchInserted(batch_[i + 2 * kAhead].position);
        if (i + kAhead < end) tree.prefetchInsertedEntries(batch_[i + kAhead].position);
        const ShadeContext context = makeInsertionContext(batch_[i], thread);
        own.clear();
        collectCandidates(tree, context, settings_, walks.hitsOf(i - first), own);
        Decided& d = decided_[i];
        d.decision = decideSpacing(settings_, lookupFootprint(context), own);
        d.decision.nearest = nullptr;  // pointed into `own`
        d.create = createsSample(d.decision, context, shade, kFlags);
        d.worker = worker;
        d.begin = static_cast<uint32_t>(pool.size());
        d.count = static_cast<uint32_t>(own.size());
        pool.insert(pool.end(), own.begin(), own.end());
        d.ready.store(true, std::memory_order_release);
      }
      if (guarded) map_.multiReaderLock().readUnlock(worker);
    }
    addCpu(threadCpuSeconds() - cpuStart);
  }

 private:
  static constexpr uint32_t kChunk = 64;
  static constexpr uint32_t kAhead = 2;
  DefIrradianceMap& map_;
  const std::vector<IrradSample>& batch_;
  Decided* decided_;
  std::vector<std::vector<LookupCandidate>>& pools_;
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

// Lists a batch's begun entries in the map's grid on several threads: the shards are dealt to
// `groups` groups (shard s to group s % groups), and each worker lists every entry, in order,
// in the shards of the groups it takes, so that each cell gets its entries in the order begun.
class ListTask : public MergeTask {
 public:
  ListTask(SampleKdTree& tree, std::span<const InsertionGrid::Sphere> entries, uint32_t groups)
      : tree_(tree), entries_(entries), groups_(groups) {}

  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
    const double cpuStart = threadCpuSeconds();
    for (;;) {
      const uint32_t group = next_.fetch_add(1, std::memory_order_relaxed);
      if (group >= groups_) break;
      uint32_t shards = 0;
      for (uint32_t s = group; s < InsertionGrid::kShards; s += groups_) shards |= 1u << s;
      tree_.listEntries(entries_, shards);
    }
    addCpu(threadCpuSeconds() - cpuStart);
  }

 private:
  SampleKdTree& tree_;
  std::span<const InsertionGrid::Sphere> entries_;
  uint32_t groups_;
  std::atomic<uint32_t> next_{0};
};

// Indexes the samples that a batch's commit stores: begun in the map's index at once and listed
// in its grid after the batch, on the workers. Until then `stored` holds them alone, so that the
// checks and the lookups looked up again at commit see them as listed. When the index wants to
// fold, everything begun is listed first and the index folds where the one-thread merge would.
class DeferredIndexer : public SampleIndexer {
 public:
  DeferredIndexer(DefIrradianceMap& map, SampleKdTree& stored, ThreadManager& threads,
                  uint32_t workers, ParallelAddStats& stats)
      : map_(map), stored_(stored), threads_(threads), workers_(workers), stats_(stats) {}

  void index(IrradSample& sample) override {
    SampleKdTree& tree = map_.kdTree();
    InsertionGrid::Sphere entry;
    if (!tree.beginInsert(sample, entry)) return;
    pending_.push_back(entry);
    stored_.insert(sample);
    if (tree.wantsFold()) {
      listPending();
      tree.fold();
      stored_.clear();
      folded = true;
    }
  }

  // Lists what was begun (the caller holds the write side of the map's lock when the map is
  // multi-threaded).
  void listPending() {
    if (pending_.empty()) return;
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    const uint32_t groups = std::min<uint32_t>(workers_, InsertionGrid::kShards);
    ListTask task(map_.kdTree(), pending_, groups);
    threads_.run(static_cast<int32_t>(groups), &task, nullptr, false);
    stats_.listSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    stats_.listCpuSeconds += task.cpuSeconds;
    pending_.clear();
  }

  bool folded = false;  // in this batch

 private:
  DefIrradianceMap& map_;
  SampleKdTree& stored_;
  ThreadManager& threads_;
  uint32_t workers_;
  ParallelAddStats& stats_;
  std::vector<InsertionGrid::Sphere> pending_;
};

}  // namespace

ParallelAddStats addIncrementallyInParallel(DefIrradianceMap& map, IrradianceMap& source,
                                            int32_t count, ProgressCallback* progress,
                                            ThreadManager& threads, int32_t threadCount) {
  using namespace parallel_incremental;
  ParallelAddStats stats;
  const auto total = static_cast<uint32_t>(std::max(count, 0));
  // Each worker reads under its own slot of the map's lock.
  const auto workers = std::min(static_cast<uint32_t>(std::max(threadCount, 1)),
                                map.multiReaderLock().threadSlots());
  const LookupSettings settings = LookupSettings::fromHeader(*map.header());

  std::vector<IrradSample> batch;
  std::vector<std::vector<LookupCandidate>> pools(workers);
  std::vector<LookupCandidate> scratch;
  std::vector<IrradSample*> lowered;
  LoweredSet loweredSet;
  // The samples stored in this batch and not yet listed in the map's grid, indexed alone: never
  // folded.
  SampleKdTree stored(std::numeric_limits<size_t>::max());
  DeferredIndexer indexer(map, stored, threads, workers, stats);
  ThreadData caller;  // the commits run as thread 0, as the one-thread merge does
  std::unique_ptr<Decided[]> decided;
  uint32_t capacity = 0;

  uint32_t size = workers * kMinPerThread;
  uint32_t done = 0;
  using Clock = std::chrono::steady_clock;
  auto seconds = [](Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
  };
  const double callerCpuStart = threadCpuSeconds();
  while (done < total) {
    const Clock::time_point readStart = Clock::now();
    const uint32_t want = std::min(size, total - done);
    batch.clear();
    batch.reserve(want);
    CopySamplesCb reader(batch, want);
    source.enumerateSamples(done, &reader);
    const auto n = static_cast<uint32_t>(batch.size());
    if (n == 0) break;  // the source shrank under us

    // Look every sample up in parallel.
    if (n > capacity) {
      decided.reset(new Decided[n]);
      capacity = n;
    }
    for (uint32_t i = 0; i < n; ++i) decided[i].ready.store(false, std::memory_order_relaxed);
    for (auto& pool : pools) pool.clear();
    LookupTask task(map, batch, decided.get(), pools);
    const Clock::time_point lookupStart = Clock::now();
    threads.run(static_cast<int32_t>(workers), &task, nullptr, false);
    const Clock::time_point commitStart = Clock::now();
    stats.lookupSeconds += seconds(lookupStart, commitStart);
    stats.lookupCpuSeconds += task.cpuSeconds;
    stats.commitSeconds += seconds(readStart, lookupStart);

    // Commit in source order.
    stored.clear();
    loweredSet.clear();
    indexer.folded = false;
    uint32_t kept = 0;
    for (uint32_t i = 0; i < n; ++i) {
      const IrradSample& sample = batch[i];
      const Decided& d = decided[i];

      bool same = d.ready.load(std::memory_order_acquire) && !indexer.folded;
      std::span<const LookupCandidate> candidates;
      if (same) {
        candidates = std::span<const LookupCandidate>(pools[d.worker]).subspan(d.begin, d.count);
        if (!loweredSet.empty()) {
          for (const LookupCandidate& c : candidates) {
            if (loweredSet.contains(c.sample)) {
              same = false;
              break;
            }
          }
        }
      }
      if (same && stored.size()) {
        stored.forEachContaining(sample.position, [&](IrradSample&) { same = false; });
      }
      if (same && !d.create) {
        // Covered, as on one thread: nothing to store.
        if (progress) progress->setProgress(static_cast<int32_t>(done + i + 1));
        continue;
      }

      ShadeContext context = makeInsertionContext(sample, caller);
      InsertSampleCallback sampler(&sample);
      ShadeData shade;
      shade.sampler = &sampler;
      SpacingDecision decision;
      bool create;
      if (same) {
        decision = d.decision;
        create = true;
      } else {
        ++stats.redone;
        const bool guarded = map.multiThreaded() != 0;
        if (guarded) map.multiReaderLock().readLock(caller.threadIndex);
        scratch.clear();
        collectCandidates(map.kdTree(), context, settings, scratch, &stored);
        decision = decideSpacing(settings, lookupFootprint(context), scratch);
        if (guarded) map.multiReaderLock().readUnlock(caller.threadIndex);
        create = createsSample(decision, context, shade, kFlags);
        candidates = scratch;
      }

      if (create) {
        lowered.clear();
        Color colour;
        IrradSample* added =
            createSample(map, caller.threadIndex, context, shade, decision, candidates, colour,
                         &lowered, &indexer);
        if (added) {
          ++kept;
          for (const IrradSample* s : lowered) loweredSet.add(s);
        }
      }
      if (progress) progress->setProgress(static_cast<int32_t>(done + i + 1));
    }
    stats.commitSeconds += seconds(commitStart, Clock::now());
    // List the batch's samples in the map's grid, on the workers, before the next lookups.
    {
      const bool guarded = map.multiThreaded() != 0;
      if (guarded) map.multiReaderLock().writeLock(caller.threadIndex);
      indexer.listPending();
      if (guarded) map.multiReaderLock().writeUnlock(caller.threadIndex);
    }
    done += n;
    ++stats.batches;
    stats.offered += n;
    stats.kept += kept;
    // About kTargetKeptPerThread kept samples per thread in the next batch.
    const uint64_t next = uint64_t{n} * kTargetKeptPerThread * workers / std::max<uint32_t>(kept, 1);
    size = static_cast<uint32_t>(std::clamp<uint64_t>(next, uint64_t{workers} * kMinPerThread,
                                                      uint64_t{workers} * kMaxPerThread));
  }
  stats.commitCpuSeconds = threadCpuSeconds() - callerCpuStart;
  return stats;
}

}  // namespace LUtils
