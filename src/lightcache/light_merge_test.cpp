#include "lightcache/light_merge.h"

#include <cstring>
#include <string>
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

TEST(LightMerge, PlainAddsEverySampleInOrderAndReportsProgress) {
  LightMap target;
  addPlaneSamples(target, 30, 0.0f, 1.0f, 0.05f, 1);
  target.rebuildTree();
  RecordingProgress progress;
  mergeLightMaps(target, new LightMap, 0, nullptr, &progress);
  EXPECT_EQ(progress.events, "") << "progress for a source without samples";

  LightMap* source = planeCache(25000, 0.0f, 1.0f, 0.05f, 1);  // more than one block
  const auto last = words(source->samples()[24999]);
  LightMergeCounts counts;
  EXPECT_EQ(mergeLightMaps(target, source, 0, &counts, &progress), 0);
  EXPECT_EQ(counts.added, 25000u);
  EXPECT_EQ(counts.skipped, 0u);
  ASSERT_EQ(target.sampleCount(), 25030u);
  EXPECT_EQ(words(target.samples()[25029]), last);
  EXPECT_FALSE(target.needsRebuild());
  EXPECT_EQ(progress.events, "sd");
  EXPECT_EQ(progress.total, 25000);
  EXPECT_EQ(progress.last, 25000);
}

struct OverlapCase {
  const char* what;
  float sourceX0, sourceRadius;
  uint32_t sourceSeed, sourceId;
  bool flipped;
  double added, tolerance;
};

// Against a target of 5000 samples with id 0 over [0, 1] x [0, 1], facing up: the same samples
// add nothing, but all of them when they carry another id or face the other way; a cache that
// lies elsewhere (dense within itself) adds everything, one that covers half the target's area
// adds about half (plus a rim of one radius).
TEST(LightMerge, IncrementalAddsOnlyUncoveredSamples) {
  const OverlapCase cases[] = {{"itself", 0.0f, 0.02f, 2, 0, false, 0.0, 0.0},
                               {"another id", 0.0f, 0.02f, 2, 1, false, 5000.0, 0.0},
                               {"facing away", 0.0f, 0.02f, 2, 0, true, 5000.0, 0.0},
                               {"disjoint", 2.0f, 0.05f, 4, 0, false, 5000.0, 0.0},
                               {"half overlapping", 0.5f, 0.02f, 6, 0, false, 2500.0, 250.0}};
  for (const OverlapCase& c : cases) {
    SCOPED_TRACE(c.what);
    LightMap target;
    addPlaneSamples(target, 5000, 0.0f, 1.0f, 0.02f, 2);
    LightMergeCounts counts;
    LightMap* source =
        planeCache(5000, c.sourceX0, c.sourceX0 + 1.0f, c.sourceRadius, c.sourceSeed, c.sourceId);
    source->samples().forEach(0, [&](LightMapSample& s) {
      if (c.flipped) s.normal = s.normalB = {0.0f, 0.0f, -1.0f};
      return true;
    });
    // The target's tree is built by the merge itself, as after insertions.
    EXPECT_EQ(mergeLightMaps(target, source, 1, &counts), 0);
    EXPECT_EQ(counts.added + counts.skipped, 5000u);
    EXPECT_NEAR(double(counts.added), c.added, c.tolerance);
    ASSERT_EQ(target.sampleCount(), 5000u + counts.added);
    // The rebuilt tree covers the added samples.
    struct Any : LightMapStoreCb {
      int n = 0;
      int store(LightMapSample&) override { return ++n, 0; }
    } any;
    target.query(target.samples()[target.sampleCount() - 1].position, nullptr, any);
    EXPECT_EQ(any.n, 1);
  }
}

// Coverage tested on several threads, in stretches of the source, keeps the same samples in the
// same order and reports the same progress as on one.
TEST(LightMerge, IncrementalOnEveryThreadCountKeepsTheSameSamples) {
  std::vector<LightMapSample> one;
  std::string oneProgress;
  for (int32_t threads : {1, 2, 3, 8}) {
    LightMap target;
    addPlaneSamples(target, 5000, 0.0f, 1.0f, 0.02f, 2);
    RecordingProgress progress;
    LightMergeCounts counts;
    EXPECT_EQ(mergeLightMaps(target, planeCache(140000, 0.5f, 1.5f, 0.003f, 6), 1, &counts,
                             &progress, threads),
              0);
    EXPECT_GT(counts.added, 50000u);
    EXPECT_GT(counts.skipped, 50000u);
    std::vector<LightMapSample> all;
    target.samples().forEach(0, [&](LightMapSample& s) { return all.push_back(s), true; });
    const std::string events = progress.events + std::to_string(progress.last);
    if (threads == 1) {
      one = all;
      oneProgress = events;
      continue;
    }
    ASSERT_EQ(all.size(), one.size()) << threads << " threads";
    EXPECT_EQ(std::memcmp(all.data(), one.data(), all.size() * sizeof(LightMapSample)), 0)
        << threads << " threads";
    EXPECT_EQ(events, oneProgress) << threads << " threads";
  }
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

}  // namespace
