#include <algorithm>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/shading.h"
#include "threads/multi_reader_lock.h"
#include "threads/progress_callback.h"

namespace LUtils {

int32_t insertSampleIncrementally(DefIrradianceMap& map, const IrradSample& sample) {
  ThreadData thread;  // the merge runs as thread 0
  ShadeContext context = makeInsertionContext(sample, thread);
  InsertSampleCallback sampler(&sample);
  ShadeData shade;
  shade.sampler = &sampler;
  map.irradiance(thread, context, shade, Color{1.0f, 1.0f, 1.0f}, kLookupColourUnused);
  return sampler.inserted;
}

namespace {

// Indexes the samples that a run stores: begun in the map's index at once, so that they are
// counted where insert() counts them, and listed in its grid's cells at the end of the run, in
// the cells found when they were begun, several at a time with their cells asked for ahead
// (InsertionGrid::list). Until then the lookups test them one by one (InsertionGrid::Unlisted),
// which finds them where and in the order the map's grid would list them. When the index wants
// to fold, what was begun is listed first, and the index folds where insert() would.
class RunIndexer : public SampleIndexer {
 public:
  explicit RunIndexer(SampleKdTree& tree) : tree_(tree) {}

  void index(IrradSample& sample) override {
    InsertionGrid::Sphere entry;
    InsertionGrid::Box box;
    if (!tree_.beginInsert(sample, entry, &box)) return;
    unlisted_.add(entry, box);
    if (tree_.wantsFold()) {
      listPending();
      tree_.fold();
    } else if (unlisted_.full()) {
      listPending();
    }
  }
  void listPending() {
    if (unlisted_.empty()) return;
    tree_.listEntries(unlisted_);
    unlisted_.clear();
  }
  const InsertionGrid::Unlisted* unlisted() const {
    return unlisted_.empty() ? nullptr : &unlisted_;
  }

 private:
  SampleKdTree& tree_;
  InsertionGrid::Unlisted unlisted_;
};

// Samples per run: enough that the walks overlap well, few enough that a fold in the middle of
// a run wastes little.
constexpr uint32_t kRun = 256;

}  // namespace

// Each sample's turn does what insertSampleIncrementally() does through the map's irradiance
// lookup: the same candidates in the same order (the walked tree hits, then the grid's), the
// same decision, and the same storing step; only the tree's part was found earlier. A fold,
// which the storing step makes when the grid is full, rebuilds the tree: the rest of the run is
// walked again.
void addIncrementallyInRuns(DefIrradianceMap& map, IrradianceMap& source, int32_t count,
                            ProgressCallback* progress) {
  const auto total = static_cast<uint32_t>(std::max(count, 0));
  const LookupSettings settings = LookupSettings::fromHeader(*map.header());
  ThreadData thread;  // the merge runs as thread 0
  const uint32_t threadIndex = thread.threadIndex;
  SampleKdTree& tree = map.kdTree();
  std::vector<IrradSample> run;
  std::vector<Vector> points;
  SampleKdTree::TreeWalks walks;
  std::vector<LookupCandidate> candidates;
  RunIndexer indexer(tree);
  // The sampler is only asked whether there is one: a kept sample is stored as offered.
  NullIrradianceSampler sampler;
  ShadeData shade;
  shade.sampler = &sampler;
  uint32_t done = 0;
  while (done < total) {
    run.clear();
    CopySamplesCb reader(run, std::min(kRun, total - done));
    source.enumerateSamples(done, &reader);
    const auto n = static_cast<uint32_t>(run.size());
    if (n == 0) break;  // the source shrank under us

    points.resize(n);
    uint32_t walkedFrom = 0;  // the points walk() was given start here
    auto walkFrom = [&](uint32_t first) {
      for (uint32_t i = first; i < n; ++i) points[i - first] = run[i].position;
      const bool guarded = map.multiThreaded() != 0;
      if (guarded) map.multiReaderLock().readLock(threadIndex);
      tree.walk(std::span<const Vector>(points.data(), n - first), walks);
      if (guarded) map.multiReaderLock().readUnlock(threadIndex);
      walkedFrom = first;
      walks.askFirstSamples();
    };
    walkFrom(0);
    SampleKdTree::CellsAhead cells(tree, run);
    for (uint32_t i = 0; i < n; ++i) {
      if (walks.generation() != tree.generation()) walkFrom(i);
      const SampleKdTree::Probe* probe = cells.next(i);
      if (i + SampleKdTree::TreeWalks::kSamplesAhead < n) {
        walks.askSamples(i + SampleKdTree::TreeWalks::kSamplesAhead - walkedFrom);
      }

      const IrradSample& sample = run[i];
      ShadeContext context = makeInsertionContext(sample, thread);
      const bool guarded = map.multiThreaded() != 0;
      if (guarded) map.multiReaderLock().readLock(threadIndex);
      candidates.clear();
      collectCandidates(tree, context, settings, walks.hitsOf(i - walkedFrom), candidates,
                        indexer.unlisted(), probe);
      const SpacingDecision decision =
          decideSpacing(settings, lookupFootprint(context), candidates);
      if (guarded) map.multiReaderLock().readUnlock(threadIndex);
      if (createsSample(decision, context, shade, kLookupColourUnused)) {
        // What the one-sample lookup's sampler answers with: the offered sample, whole.
        storeSample(map, threadIndex, sample, candidates, nullptr, &indexer);
      }
      if (progress) progress->setProgress(static_cast<int32_t>(done + i + 1));
    }
    {
      const bool guarded = map.multiThreaded() != 0;
      if (guarded) map.multiReaderLock().writeLock(threadIndex);
      indexer.listPending();
      if (guarded) map.multiReaderLock().writeUnlock(threadIndex);
    }
    done += n;
  }
}

}  // namespace LUtils
