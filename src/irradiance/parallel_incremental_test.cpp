// The incremental merge on several threads gives the saved file of one thread, byte for byte,
// and the same progress, for maps that keep much, little or nothing of what they are offered.
#include "irradiance/parallel_incremental.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/sample_kdtree.h"
#include "irradiance/synth_frame_test_util.h"
#include "synth/generator.h"
#include "test_support/scratch_dir.h"
#include "threads/progress_callback.h"
#include "threads/thread_manager.h"

namespace LUtils {
namespace {

// Every call the merge makes on its progress sink, in order.
class RecordingProgress final : public ProgressCallback {
 public:
  void setTotal(int32_t total) override { note("T", total); }
  int32_t getTotal() override { return 0; }
  void setProgress(int32_t done) override {
    if (done != last + 1) note(" jump to ", done);
    last = done;
    if (onProgress) onProgress(done);
  }
  int32_t getProgress() override { return last; }
  void setTitle(const char*) override {}
  void start() override { log += " start"; }
  void done() override { note(" done at ", last); }
  void message(int, int, const char*, ...) override { log += " message"; }
  void note(const char* what, int32_t value) {
    log.append(what);
    log.append(std::to_string(value));
  }
  std::string log;
  int32_t last = -1;
  std::function<void(int32_t)> onProgress;
};

struct Merged {
  std::string bytes;     // the saved file
  std::string progress;  // the progress calls
  size_t added = 0;
  ParallelAddStats stats;
};

class ParallelIncrementalMerge : public testing::ScratchDirTest {
 protected:
  ParallelIncrementalMerge() : ScratchDirTest("parallel-merge") {}

  // Merges `source` incrementally into a prepared map holding `destination`, on `threads`
  // threads, and saves the result. Threads 0: each sample offered on its own to the map's
  // lookup, the plainest form of the merge, with no runs, walks ahead or batches.
  Merged merge(const std::vector<IrradSample>& destination, const std::vector<IrradSample>& source,
               int32_t threads, uint32_t samplesPerBlock = DefIrradianceMap::kSamplesPerBlock,
               ThreadManager* manager = nullptr) {
    synth::Params p;
    DefIrradianceMap map(samplesPerBlock), offered(samplesPerBlock);
    map.setHeader(synth::makeHeader(p));
    for (const IrradSample& s : destination) map.appendSample(s);
    for (const IrradSample& s : source) offered.appendSample(s);
    if (foldMinimum_) map.kdTree() = SampleKdTree(foldMinimum_);
    map.prepare(0);
    map.setMergeThreads(manager ? manager : &manager_, std::max(threads, 1));
    RecordingProgress progress;
    progress.onProgress = onProgress_;
    if (threads > 0) {
      map.addSamples(offered, &progress, 1);
    } else if (!source.empty()) {
      progress.setTotal(static_cast<int32_t>(source.size()));
      progress.setProgress(0);
      progress.start();
      for (const IrradSample& s : source) {
        insertSampleIncrementally(map, s);
        progress.setProgress(progress.last + 1);
      }
      progress.done();
    }
    Merged out;
    out.progress = progress.log;
    out.added = map.sampleCount() - destination.size();
    out.stats = map.lastParallelAdd();
    const std::string file = path("merged-" + std::to_string(threads) + ".lumap");
    EXPECT_EQ(map.saveToFile(file.c_str(), nullptr), 0);
    out.bytes = testing::readWholeFile(file);
    return out;
  }

  // Merges on 1, 2, 3 and 8 threads and compares each saved file with one thread's, as cmp
  // does. Returns the one-thread result.
  Merged expectSameOnEveryThreadCount(const std::vector<IrradSample>& destination,
                                      const std::vector<IrradSample>& source,
                                      uint32_t samplesPerBlock = DefIrradianceMap::kSamplesPerBlock) {
    const Merged one = merge(destination, source, 1, samplesPerBlock);
    for (int32_t threads : {0, 2, 3, 8}) {
      const Merged many = merge(destination, source, threads, samplesPerBlock);
      EXPECT_EQ(many.added, one.added) << threads << " threads";
      EXPECT_EQ(many.progress, one.progress) << threads << " threads";
      EXPECT_EQ(many.bytes.size(), one.bytes.size()) << threads << " threads";
      const size_t common = std::min(one.bytes.size(), many.bytes.size());
      const auto differ = std::mismatch(one.bytes.begin(), one.bytes.begin() + common,
                                        many.bytes.begin()).first;
      EXPECT_EQ(differ, one.bytes.begin() + common) << threads << " threads: the files differ at byte "
                                         << (differ - one.bytes.begin());
      if (!source.empty() && threads > 0) {
        EXPECT_EQ(many.stats.offered, source.size());
        EXPECT_EQ(many.stats.kept, one.added);
      }
    }
    return one;
  }

  DefThreadManager manager_;
  size_t foldMinimum_ = 0;  // 0: the index's own
  std::function<void(int32_t)> onProgress_;  // hears the merges' progress
};

TEST_F(ParallelIncrementalMerge, FrameIntoEmptyMapAndIntoItself) {
  const std::vector<IrradSample> first = frame(0, 20000, 1);
  const Merged into = expectSameOnEveryThreadCount({}, first);
  EXPECT_GT(into.added, first.size() / 20);
  EXPECT_LT(into.added, first.size());
  EXPECT_EQ(into.progress, "T20000 start done at 20000");

  // Each sample finds its own copy: nothing is kept, and nothing needs a second lookup.
  const Merged itself = expectSameOnEveryThreadCount(first, first);
  EXPECT_EQ(itself.added, 0u);
  EXPECT_EQ(merge(first, first, 2).stats.redone, 0u);
}

TEST_F(ParallelIncrementalMerge, SecondCameraIntoFirst) {
  const Merged m = expectSameOnEveryThreadCount(frame(0, 20000, 1), frame(1, 20000, 2));
  EXPECT_GT(m.added, 1000u);
  // Small storage blocks, and an index that folds its inserted samples into a new tree every few
  // hundred: the kept samples cross many block boundaries, and batches see the tree change.
  foldMinimum_ = 256;
  const Merged folding = expectSameOnEveryThreadCount(frame(0, 300, 3), frame(1, 4000, 4), 64);
  EXPECT_GT(folding.added, 3 * foldMinimum_);
  // Some folds came while the next batch was being looked up, which then was looked up again.
  EXPECT_GT(merge(frame(0, 300, 3), frame(1, 4000, 4), 2, 64).stats.relookedBatches, 0u);
}

// Samples that no index can place are offered and stored exactly as on one thread, in either
// map; so are samples offered several times over and samples that share a position.
TEST_F(ParallelIncrementalMerge, NonFiniteAndDuplicatedSamples) {
  constexpr float nan = std::numeric_limits<float>::quiet_NaN();
  constexpr float inf = std::numeric_limits<float>::infinity();
  std::vector<IrradSample> destination = frame(0, 5000, 5);
  std::vector<IrradSample> source = frame(1, 5000, 6);
  for (std::vector<IrradSample>* v : {&destination, &source}) {
    for (size_t i = 0; i < v->size(); i += 97) {
      IrradSample& s = (*v)[i];
      switch (i % 5) {
        case 0: s.position.x = nan; break;
        case 1: s.validRadius2 = inf; break;
        case 2: s.validRadius2 = 0.0f; break;
        case 3: s.position = {3e38f, -3e38f, 3e38f}; break;
        default: s.validRadius2 = nan; break;
      }
    }
  }
  expectSameOnEveryThreadCount(destination, source);

  std::vector<IrradSample> repeated;
  const std::vector<IrradSample> few = frame(1, 2000, 7);
  for (int copy = 0; copy < 3; ++copy) repeated.insert(repeated.end(), few.begin(), few.end());
  for (size_t i = 0; i + 1 < repeated.size(); i += 11) {
    repeated[i + 1].position = repeated[i].position;  // same point, another radius and colour
  }
  expectSameOnEveryThreadCount({}, repeated);
  expectSameOnEveryThreadCount(frame(0, 2000, 8), repeated);
}

// A sample whose parallel lookup found itself covered by a neighbour whose radius an earlier
// sample of the batch then lowered past it: only a second lookup sees that it is needed.
TEST_F(ParallelIncrementalMerge, NeighbourLoweredEarlierInTheBatch) {
  auto at = [](float x, float footprint, float radius) {
    IrradSample s{};
    s.position = {x, 0.0f, 0.0f};
    s.normal = {0.0f, 0.0f, 1.0f};
    s.validRadius2 = radius * radius;
    s.drawRadius2 = s.validRadius2;
    s.hitDistance = 1e6f;  // no colour limit
    s.footprint = footprint;
    s.packedNormalZ = IrradSample::packUnit(0.0f);  // seen from straight above
    return s;
  };
  // The wide sample at 0 reaches 10. The first offered one, at 1, lies past the spacing of its
  // small footprint: it is stored and cuts the wide radius to 1.1. The second, at -2, is covered
  // by the wide sample at its large footprint's spacing only as long as that reaches it.
  const std::vector<IrradSample> destination = {at(0.0f, 1.0f, 10.0f)};
  const std::vector<IrradSample> source = {at(1.0f, 0.01f, 0.1f), at(-2.0f, 4.0f, 0.1f)};
  EXPECT_EQ(expectSameOnEveryThreadCount(destination, source).added, 2u);

  // The same two samples as the last of one batch and the first of the next, whose lookup runs
  // while the first batch is committed (on two threads the first two batches take 128 samples
  // each), after samples far away that are all stored: the lookup nearly always reads the wide
  // radius before the commit reaches the sample that lowers it.
  std::vector<IrradSample> across;
  for (int i = 0; i < 127; ++i) across.push_back(at(1000.0f + 10.0f * i, 0.01f, 0.1f));
  across.insert(across.end(), source.begin(), source.end());
  EXPECT_EQ(expectSameOnEveryThreadCount(destination, across).added, across.size());
}

// A merge asked to run on one thread starts none, also where the index folds a grid large
// enough for its tree to be built on several threads elsewhere; the map is the same.
TEST_F(ParallelIncrementalMerge, OneThreadStartsNoThreadWhereTheIndexFolds) {
  auto threadsNow = [] {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
  };
  const std::vector<IrradSample> offered = frame(0, 200000, 13);
  foldMinimum_ = 4096;
  const auto before = threadsNow();
  std::atomic<bool> done{false};
  std::atomic<long> most{0};
  std::thread watcher([&] {
    while (!done.load()) {
      most.store(std::max<long>(most.load(), threadsNow()));
      std::this_thread::yield();
    }
  });
  const Merged one = merge({}, offered, 1);
  done.store(true);
  watcher.join();
  EXPECT_GT(one.added, size_t{3} * SampleKdTree::kParallelMinimum / 2);  // the last fold's size
  EXPECT_EQ(most.load(), before + 1);  // the watcher alone
  EXPECT_TRUE(one.bytes == merge({}, offered, 2).bytes);
}

// A manager that runs every task on the calling thread alone, and whose workers either cannot
// be started at all, as when the system refuses threads, or start only once they are let go, as
// on a machine whose cores are busy with other programs.
class WithheldWorkers final : public ThreadManager {
 public:
  explicit WithheldWorkers(bool refused) : refused_(refused) {}
  ~WithheldWorkers() override {
    letGo();
    for (std::thread& t : threads_) t.join();
  }
  void letGo() {
    go_.store(true);
    go_.notify_all();
  }
  void terminateThreads(bool) override {}
  int32_t run(int32_t, MultiThreaded* task, ProgressCallback*, bool) override {
    std::atomic<int32_t> progress{0};
    task->run(&task->result, &progress, 0, 1);
    return task->result.load();
  }
  void setLowPriority(bool) override {}
  int32_t runAsync(AsyncTask* object, uint64_t argument) override {
    if (refused_) return -1;
    threads_.emplace_back([this, object, argument] {
      go_.wait(false);
      object->run(argument);
    });
    return 0;
  }
  void setStackSize(uint32_t) override {}
  uint32_t currentThreadIndex() override { return 0xFFFFFFFFu; }
  int32_t threadCount() override { return 4; }
  void setThreadCount(int32_t) override {}

 private:
  const bool refused_;
  std::atomic<bool> go_{false};
  std::vector<std::thread> threads_;
};

// Workers that cannot be started, and workers that come only once every sample was committed,
// leave the whole merge to the calling thread, which neither waits for them nor changes the map.
TEST_F(ParallelIncrementalMerge, WorkersThatCannotStartOrComeLateLeaveTheResultAlone) {
  const std::vector<IrradSample> first = frame(0, 3000, 11), second = frame(1, 3000, 12);
  const Merged one = merge(first, second, 1);
  WithheldWorkers none(true);
  const Merged alone = merge(first, second, 4, DefIrradianceMap::kSamplesPerBlock, &none);
  EXPECT_EQ(alone.stats.offered, second.size());
  EXPECT_TRUE(alone.bytes == one.bytes);

  WithheldWorkers late(false);
  onProgress_ = [&](int32_t done) {
    if (done == static_cast<int32_t>(second.size())) late.letGo();
  };
  const Merged waited = merge(first, second, 4, DefIrradianceMap::kSamplesPerBlock, &late);
  EXPECT_EQ(waited.stats.offered, second.size());
  EXPECT_TRUE(waited.bytes == one.bytes);
}

TEST_F(ParallelIncrementalMerge, EmptyAndSingleSampleSources) {
  const Merged empty = expectSameOnEveryThreadCount(frame(0, 1000, 9), {});
  EXPECT_EQ(empty.progress, "");  // no progress at all
  const Merged one = expectSameOnEveryThreadCount({}, frame(1, 1, 10));
  EXPECT_EQ(one.added, 1u);
  EXPECT_EQ(one.progress, "T1 start done at 1");
}

}  // namespace
}  // namespace LUtils
