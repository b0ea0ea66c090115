#include "lightcache/light_merge.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "lightcache/light_test_util.h"
#include "threads/progress_callback.h"

namespace {

using lighttest::addPlaneSamples;
using lighttest::words;

// A source built like addPlaneSamples with the same seed holds the same samples.
LightMap* planeCache(size_t n, float x0, float x1, float r, uint32_t seed, uint32_t id = 0) {
  auto* map = new LightMap;
  addPlaneSamples(*map, n, x0, x1, r, seed, id);
  return map;
}

TEST(LightMerge, PlainAddsEverySampleInOrder) {
  LightMap target;
  addPlaneSamples(target, 30, 0.0f, 1.0f, 0.05f, 1);
  target.rebuildTree();
  LightMap* source = planeCache(25000, 0.0f, 1.0f, 0.05f, 1);  // more than one block
  const auto last = words(source->samples()[24999]);
  LightMergeCounts counts;
  EXPECT_EQ(mergeLightMaps(target, source, 0, &counts), 0);
  EXPECT_EQ(counts.added, 25000u);
  EXPECT_EQ(counts.skipped, 0u);
  ASSERT_EQ(target.sampleCount(), 25030u);
  EXPECT_EQ(words(target.samples()[25029]), last);
  EXPECT_FALSE(target.needsRebuild());
}

TEST(LightMerge, IncrementalWithItselfAddsNothing) {
  LightMap target;
  addPlaneSamples(target, 5000, 0.0f, 1.0f, 0.02f, 2);
  LightMergeCounts counts;
  // The target's tree is built by the merge itself, as after insertions.
  EXPECT_EQ(mergeLightMaps(target, planeCache(5000, 0.0f, 1.0f, 0.02f, 2), 1, &counts), 0);
  EXPECT_EQ(counts.added, 0u);
  EXPECT_EQ(counts.skipped, 5000u);
  EXPECT_EQ(target.sampleCount(), 5000u);
}

TEST(LightMerge, IncrementalWithADisjointCacheAddsEverything) {
  LightMap target;
  addPlaneSamples(target, 5000, 0.0f, 1.0f, 0.02f, 3);
  target.rebuildTree();
  LightMergeCounts counts;
  // Densely overlapping within itself, but nowhere near the target.
  EXPECT_EQ(mergeLightMaps(target, planeCache(5000, 2.0f, 3.0f, 0.05f, 4), 1, &counts), 0);
  EXPECT_EQ(counts.added, 5000u);
  EXPECT_EQ(counts.skipped, 0u);
  ASSERT_EQ(target.sampleCount(), 10000u);

  // The rebuilt tree covers the added samples.
  struct Any : LightMapStoreCb {
    int n = 0;
    int store(LightMapSample&) override { return ++n, 0; }
  } any;
  target.query(target.samples()[9999].position, nullptr, any);
  EXPECT_EQ(any.n, 1);
}

TEST(LightMerge, IncrementalWithAHalfOverlappingCacheAddsTheUncoveredHalf) {
  LightMap target;
  addPlaneSamples(target, 20000, 0.0f, 1.0f, 0.02f, 5);
  target.rebuildTree();
  LightMergeCounts counts;
  EXPECT_EQ(mergeLightMaps(target, planeCache(20000, 0.5f, 1.5f, 0.02f, 6), 1, &counts), 0);
  std::printf("half-overlapping merge: %zu added, %zu skipped of 20000\n", counts.added,
              counts.skipped);
  EXPECT_EQ(counts.added + counts.skipped, 20000u);
  // Source samples with x up to 1 lie in the target's area (plus a rim of one radius).
  EXPECT_NEAR(double(counts.added), 10000.0, 500.0);
  EXPECT_EQ(target.sampleCount(), 20000u + counts.added);
}

TEST(LightMerge, CoverageNeedsTheSameIdAndFacing) {
  LightMap target;
  addPlaneSamples(target, 2000, 0.0f, 1.0f, 0.05f, 7, /*id=*/1);
  LightMergeCounts counts;
  mergeLightMaps(target, planeCache(1000, 0.0f, 1.0f, 0.05f, 8, /*id=*/2), 1, &counts);
  EXPECT_EQ(counts.added, 1000u);

  // Same place and id, but facing the other way.
  LightMap* flipped = planeCache(1000, 0.0f, 1.0f, 0.05f, 9, 1);
  flipped->samples().forEach(0, [](LightMapSample& s) {
    s.normal = s.normalB = {0.0f, 0.0f, -1.0f};
    return true;
  });
  mergeLightMaps(target, flipped, 1, &counts);
  EXPECT_EQ(counts.added, 1000u);

  // Same place, id and facing: covered.
  mergeLightMaps(target, planeCache(1000, 0.0f, 1.0f, 0.05f, 10, 1), 1, &counts);
  EXPECT_EQ(counts.added, 0u);
}

TEST(LightMerge, EmptyTargetNullSourceAndSelf) {
  LightMap target;
  LightMergeCounts counts;
  EXPECT_EQ(mergeLightMaps(target, planeCache(100, 0.0f, 1.0f, 0.5f, 11), 1, &counts), 0);
  EXPECT_EQ(counts.added, 100u);  // a source arrives whole into an empty target

  EXPECT_EQ(mergeLightMaps(target, nullptr, 1, &counts), 0);
  EXPECT_EQ(counts.added, 0u);
  EXPECT_EQ(mergeLightMaps(target, &target, 0, &counts), -1);
  EXPECT_EQ(target.sampleCount(), 100u);
}

class RecordingProgress final : public LUtils::ProgressCallback {
 public:
  void setTotal(int32_t t) override { total = t; }
  int32_t getTotal() override { return total; }
  void setProgress(int32_t d) override { last = d; }
  int32_t getProgress() override { return last; }
  void setTitle(const char*) override {}
  void start() override { events += "s"; }
  void done() override { events += "d"; }
  int32_t total = 0, last = 0;
  std::string events;
};

TEST(LightMerge, ReportsProgressOnlyForSamples) {
  LightMap target;
  RecordingProgress progress;
  mergeLightMaps(target, new LightMap, 0, nullptr, &progress);
  EXPECT_EQ(progress.events, "");
  mergeLightMaps(target, planeCache(10000, 0.0f, 1.0f, 0.1f, 12), 0, nullptr, &progress);
  EXPECT_EQ(progress.events, "sd");
  EXPECT_EQ(progress.total, 10000);
  EXPECT_EQ(progress.last, 10000);
}

}  // namespace
