// The default map: merging with progress, enumeration, the brute-force query, render-ID
// preparation, the sample streams and the settings' derived rate scales.
#include "irradiance/def_irradiance_map.h"

#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "test_support/scratch_dir.h"
#include "threads/progress_callback.h"

namespace LUtils {
namespace {

IrradSample sampleAt(float x, float validRadius2 = 1.0f, int32_t renderId = 0) {
  IrradSample s{};
  s.position = {x, 0, 0};
  s.normal = {0, 0, 1};
  s.validRadius2 = validRadius2;
  s.renderId = renderId;
  s.flags = 0xA5A5A5A5u;
  s.time = 0.25f;
  return s;
}

// Samples at x = 0, 1, ... n - 1.
void fillRow(DefIrradianceMap& map, size_t n) {
  for (size_t i = 0; i < n; ++i) map.appendSample(sampleAt(static_cast<float>(i)));
}

// Records every progress call as text.
class RecordingProgress final : public ProgressCallback {
 public:
  void setTotal(int32_t total) override { calls.push_back("total " + std::to_string(total)); }
  int32_t getTotal() override { return 0; }
  void setProgress(int32_t done) override { calls.push_back("at " + std::to_string(done)); }
  int32_t getProgress() override { return 0; }
  void setTitle(const char*) override {}
  void start() override { calls.push_back("start"); }
  void done() override { calls.push_back("done"); }

  std::vector<std::string> calls;
};

TEST(DefIrradianceMap, PlainAddCopiesEverySampleWithProgressAndIntoItselfOnce) {
  DefIrradianceMap source, target, empty, self;
  target.appendSample(sampleAt(9));
  fillRow(source, 3);
  RecordingProgress progress, untouched;
  EXPECT_EQ(target.addSamples(source, &progress, 0), 0);
  EXPECT_EQ(progress.calls, (std::vector<std::string>{"total 3", "at 0", "start", "at 1", "at 2",
                                                       "at 3", "done"}));
  ASSERT_EQ(target.samples().size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(std::memcmp(&target.samples()[i + 1], &source.samples()[i], sizeof(IrradSample)), 0);
  }
  EXPECT_EQ(source.samples().size(), 3u);
  // An empty source returns at once and leaves the progress untouched.
  EXPECT_EQ(target.addSamples(empty, &untouched, 0), 0);
  EXPECT_TRUE(untouched.calls.empty());
  // A map added to itself doubles once, also when the storage grows a block under the
  // enumeration.
  const size_t n = DefIrradianceMap::kSamplesPerBlock + 10;
  fillRow(self, n);
  self.addSamples(self, nullptr, 0);
  ASSERT_EQ(self.samples().size(), 2 * n);
  EXPECT_EQ(self.samples()[2 * n - 1].position.x, static_cast<float>(n - 1));
}

// Records the x of each sample it is handed, by enumeration (going on until `stopAfter`) or by
// a query.
struct Recorder : EnumIrradianceSamplesCallback, StoreCB {
  explicit Recorder(int stop = INT_MAX) : stopAfter(stop) {}
  int process(IrradSample& s) override {
    seen.push_back(s.position.x);
    return static_cast<int>(seen.size()) < stopAfter;
  }
  void store(IrradSample& s) override { seen.push_back(s.position.x); }
  int stopAfter;
  std::vector<float> seen;
};

TEST(DefIrradianceMap, Enumeration) {
  DefIrradianceMap map;
  EXPECT_EQ(map.numSamples(), 0);
  fillRow(map, 10);
  EXPECT_EQ(map.numSamples(), 10);
  EXPECT_EQ(map.enumerateSamples(4, nullptr), 6);
  EXPECT_EQ(map.enumerateSamples(12, nullptr), 0);
  Recorder all, two(2);
  EXPECT_EQ(map.enumerateSamples(7, &all), 3);
  EXPECT_EQ(all.seen, (std::vector<float>{7, 8, 9}));
  EXPECT_EQ(map.enumerateSamples(0, &two), 2);
  EXPECT_EQ(two.seen, (std::vector<float>{0, 1}));
  map.freeSamples();
  EXPECT_EQ(map.numSamples(), 0);
}

TEST(DefIrradianceMap, QueryFindsSamplesWhoseRegionHoldsThePoint) {
  DefIrradianceMap map;
  map.appendSample(sampleAt(0, 1.0f));   // reaches 1 (strictly less)
  map.appendSample(sampleAt(3, 4.0f));   // reaches 2
  map.appendSample(sampleAt(10, 0.0f));  // reaches nothing
  // At x = 1 both boundaries hold: 1 is not below 1, 4 not below 4.
  const std::pair<float, std::vector<float>> cases[] = {
      {1.0f, {}}, {1.5f, {3}}, {0.5f, {0}}, {10.0f, {}}};
  for (const auto& [x, expected] : cases) {
    Recorder found;
    map.querySamples({x, 0, 0}, found);
    EXPECT_EQ(found.seen, expected) << x;
  }
}

TEST(DefIrradianceMap, PrepareClampsOrIndexesRenderIds) {
  DefIrradianceMap map;
  for (int32_t id : {5, -7, -1, 0, 2, 5, INT_MAX}) map.appendSample(sampleAt(0, 1, id));
  EXPECT_EQ(map.built(), 0);

  map.header()->containsRenderIds = 1;
  map.prepare(0);
  EXPECT_EQ(map.built(), 1);
  EXPECT_EQ(map.minRenderId(), 2);
  EXPECT_EQ(map.maxRenderId(), INT_MAX);
  ASSERT_EQ(map.samplesWithRenderId(5).size(), 2u);
  EXPECT_EQ(map.samplesWithRenderId(5)[1], &map.samples()[5]);
  EXPECT_EQ(map.samplesWithRenderId(INT_MAX).size(), 1u);
  EXPECT_TRUE(map.samplesWithRenderId(3).empty());
  EXPECT_TRUE(map.samplesWithRenderId(-7).empty());

  map.header()->containsRenderIds = 0;
  map.prepare(0);
  std::vector<int32_t> ids;
  for (size_t i = 0; i < map.samples().size(); ++i) ids.push_back(map.samples()[i].renderId);
  EXPECT_EQ(ids, (std::vector<int32_t>{0, -1, -1, 0, 0, 0, 0}));
  EXPECT_TRUE(map.samplesWithRenderId(5).empty());

  map.clear();
  EXPECT_EQ(map.built(), 0);
}

TEST(DefIrradianceMap, SampleStreams) {
  DefIrradianceMap map;
  WriteIrradianceMapStream* writer = map.openWriteStream();
  ASSERT_NE(writer, nullptr);
  EXPECT_EQ(map.openWriteStream(), nullptr);  // one writer at a time
  for (int i = 0; i < 3; ++i) writer->write(sampleAt(static_cast<float>(i)));
  EXPECT_EQ(writer->written(), 3u);
  map.closeWriteStream(writer);
  writer = map.openWriteStream();
  EXPECT_NE(writer, nullptr);
  map.closeWriteStream(writer);

  // Two readers keep their own places.
  ReadIrradianceMapStream* a = map.openReadStream();
  ReadIrradianceMapStream* b = map.openReadStream();
  IrradSample s;
  ASSERT_TRUE(a->read(s) && a->read(s));
  EXPECT_EQ(s.position.x, 1.0f);
  ASSERT_TRUE(b->read(s));
  EXPECT_EQ(s.position.x, 0.0f);
  ASSERT_TRUE(a->read(s));
  EXPECT_FALSE(a->read(s));
  map.closeReadStream(a);
  map.closeReadStream(b);
  // Streams left open are freed with the map.
  map.openReadStream();
  map.openWriteStream();
}

TEST(DefIrradianceMap, LockedModeAppendsFromSeveralThreads) {
  DefIrradianceMap map;
  map.setLockedMode(true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&map] {
      for (int i = 0; i < 20000; ++i) map.appendSample(sampleAt(0));
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(map.numSamples(), 80000);
}

using DefIrradianceMapFile = testing::ScratchDirTest;

TEST_F(DefIrradianceMapFile, LoadAndAddKeepsWhatIsThere) {
  DefIrradianceMap map, source;
  map.appendSample(sampleAt(1));
  EXPECT_EQ(map.loadAndAddFromFile(nullptr, 0.0f, nullptr, 0), -1);
  EXPECT_EQ(map.loadAndAddFromFile("/nonexistent/map.lumap", 0.0f, nullptr, 0), -2);
  EXPECT_EQ(map.numSamples(), 1);
  // The source is read with the time offset, then appended after the existing sample.
  const std::string path = this->path("add.lumap");
  source.appendSample(sampleAt(4));
  ASSERT_EQ(source.saveToFile(path.c_str(), nullptr), 0);
  EXPECT_EQ(map.loadAndAddFromFile(path.c_str(), 1.0f, nullptr, 0), 0);
  ASSERT_EQ(map.numSamples(), 2);
  EXPECT_EQ(map.samples()[1].position, Vector(4, 0, 0));
  EXPECT_EQ(map.samples()[1].time, 1.25f);
  EXPECT_EQ(map.formatVersion(), 0u);  // the target was never loaded itself
}

TEST(IrradianceMapHeader, RateScales) {
  IrradianceMapHeader h;
  const std::pair<int32_t, float> cases[] = {{-3, 8.0f},   {0, 1.0f},  {2, 0.25f},
                                             {31, 1.0f / 2147483648.0f}, {33, 0.5f},
                                             {-33, 2.0f},  {INT_MIN, 1.0f}};
  for (const auto& [rate, scale] : cases) {
    h.minRate = h.maxRate = rate;
    h.updateRateScales();
    EXPECT_EQ(h.minRateScale, scale) << rate;
    EXPECT_EQ(h.maxRateScale, scale) << rate;
  }
}

}  // namespace
}  // namespace LUtils
