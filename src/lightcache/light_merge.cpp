#include "lightcache/light_merge.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <vector>

#include "threads/progress_callback.h"
#include "threads/thread_manager.h"

namespace {

// Stops the query at the first sample that passes the filter.
class FirstHit : public LightMapStoreCb {
 public:
  int store(LightMapSample&) override {
    found = true;
    return 0;
  }
  bool found = false;
};

bool coveredBy(LightMap& target, const LightMapSample& s) {
  LightMapFilter_store filter(s.position, s.normalB, s.normal, s.id);
  FirstHit hit;
  target.query(s.position, &filter, hit);
  return hit.found;
}

// Marks which samples of a stretch of the source the target covers, on several threads: the
// target's tree is only read.
class CoverTask : public LUtils::MultiThreaded {
 public:
  CoverTask(LightMap& target, LightMap& source, size_t first, std::vector<uint8_t>& covered)
      : target_(target), source_(source), first_(first), covered_(covered) {}
  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
    const size_t n = covered_.size();
    for (;;) {
      const size_t from = next_.fetch_add(kChunk, std::memory_order_relaxed);
      if (from >= n) break;
      for (size_t i = from; i < std::min(n, from + kChunk); ++i) {
        covered_[i] = coveredBy(target_, source_.samples()[first_ + i]) ? 1 : 0;
      }
    }
  }
  const char* threadName() override { return "merge_thread"; }

 private:
  static constexpr size_t kChunk = 256;
  LightMap& target_;
  LightMap& source_;
  size_t first_;
  std::vector<uint8_t>& covered_;
  std::atomic<size_t> next_{0};
};

}  // namespace

int mergeLightMaps(LightMap& target, LightMap* source, int incremental, LightMergeCounts* counts,
                   LUtils::ProgressCallback* progress, int32_t threadCount) {
  LightMergeCounts local;
  LightMergeCounts& c = counts ? *counts : local;
  c = {};
  if (source == &target) return -1;
  if (!source) return 0;
  std::unique_ptr<LightMap> owned(source);

  const size_t total = source->sampleCount();
  if (total == 0) return 0;
  // Samples appended below are not in the tree, so the tests see only what the target held.
  if (incremental && target.needsRebuild()) target.rebuildTree();

  if (progress) {
    progress->setTotal(int32_t(std::min<size_t>(total, INT32_MAX)));
    progress->setProgress(0);
    progress->start();
  }
  // On several threads the coverage of a stretch of the source is decided first, all at once:
  // the tests see only what the target held before the merge, so the answers are those of one
  // thread.
  const int32_t threads = threadCount > 0 ? threadCount : LUtils::mergeThreadManager().threadCount();
  const bool parallel = incremental && threads > 1;
  constexpr size_t kStretch = size_t{1} << 16;
  std::vector<uint8_t> covered;
  size_t stretchEnd = 0;
  int result = 0;
  size_t handled = 0;
  source->samples().forEach(0, [&](LightMapSample& s) {
    if (parallel && handled == stretchEnd) {
      covered.assign(std::min(kStretch, total - handled), 0);
      CoverTask task(target, *source, handled, covered);
      LUtils::mergeThreadManager().run(threads, &task, nullptr, false);
      stretchEnd = handled + covered.size();
    }
    if (incremental && (parallel ? covered[handled + covered.size() - stretchEnd] != 0
                                 : coveredBy(target, s))) {
      ++c.skipped;
    } else {
      LightMapSample* copy = target.insertSample();
      if (!copy) {
        result = -1;
        return false;
      }
      *copy = s;
      ++c.added;
    }
    ++handled;
    if (progress && (handled % 4096 == 0 || handled == total)) {
      progress->setProgress(int32_t(std::min<size_t>(handled, INT32_MAX)));
    }
    return true;
  });
  target.rebuildTree();
  if (progress) progress->done();
  return result;
}
