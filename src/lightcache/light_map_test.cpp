#include "lightcache/light_map.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <string>
#include <thread>
#include <vector>

#include "io/file_errors.h"
#include "lightcache/light_test_util.h"

namespace {

using lighttest::words;

// Each version's record size and where its words land in the sample, as runs of
// {sample word, record word, count}; sample words that no run reaches stay zero.
struct VersionCase {
  uint32_t version;
  uint32_t recordWords;
  std::vector<std::array<uint32_t, 3>> runs;
};
const VersionCase kVersions[] = {{0x10000, 11, {{0, 0, 7}, {14, 7, 4}, {18, 7, 4}, {22, 3, 3}}},
                                 {0x20000, 15, {{0, 0, 7}, {14, 7, 4}, {18, 7, 4}, {22, 3, 3}}},
                                 {0x30000, 18, {{0, 0, 7}, {14, 7, 11}}},
                                 {0x40000, 20, {{0, 0, 7}, {14, 7, 11}}},
                                 {0x50000, 30, {{0, 0, 7}, {14, 14, 11}, {28, 28, 1}}},
                                 {0x60000, 30, {{0, 0, 7}, {8, 8, 17}, {26, 26, 3}}}};

const VersionCase& versionCase(uint32_t version) {
  return *std::find_if(std::begin(kVersions), std::end(kVersions),
                       [&](const VersionCase& v) { return v.version == version; });
}

// Record word i of record r: a float near 2 whose low bits tell the record and word apart.
uint32_t fileWord(uint32_t r, uint32_t i) { return 0x40000000u | (r << 8) | i; }

std::vector<uint32_t> fileOf(uint32_t version, int32_t count, uint32_t records) {
  std::vector<uint32_t> w = {version, uint32_t(count)};
  for (uint32_t r = 0; r < records; ++r) {
    for (uint32_t i = 0; i < versionCase(version).recordWords; ++i) w.push_back(fileWord(r, i));
  }
  return w;
}

// The sample words record r of a file of `version` must give.
std::vector<uint32_t> expectedWords(uint32_t version, uint32_t r) {
  std::vector<uint32_t> w(30, 0);
  for (const auto& [to, from, n] : versionCase(version).runs) {
    for (uint32_t i = 0; i < n; ++i) w[to + i] = fileWord(r, from + i);
  }
  return w;
}

std::string bytesOf(const std::vector<uint32_t>& w) {
  return std::string(reinterpret_cast<const char*>(w.data()), 4 * w.size());
}

class LightMapFile : public lighttest::ScratchDir {};

TEST_F(LightMapFile, EveryVersionMapsItsWordsAndSavesAsTheNewest) {
  for (const VersionCase& v : kVersions) {
    SCOPED_TRACE(v.version);
    const std::string in = path("in.lulmap"), out = path("out.lulmap");
    writeWords(in, fileOf(v.version, 3, 3));
    LightMap map;
    ASSERT_EQ(map.load(in.c_str()), 0);
    ASSERT_EQ(map.sampleCount(), 3u);
    for (uint32_t r = 0; r < 3; ++r)
      EXPECT_EQ(words(map.samples()[r]), expectedWords(v.version, r));
    EXPECT_FALSE(map.needsRebuild());
    EXPECT_NE(map.treeRoot(), nullptr);

    // The newest version: header, then the samples exactly as in memory, alignment words zero.
    // That version's own row above shows such a file reads back word for word.
    ASSERT_EQ(map.save(out.c_str(), nullptr), 0);
    std::vector<uint32_t> saved = {0x60000, 3};
    for (uint32_t r = 0; r < 3; ++r) {
      const auto w = expectedWords(v.version, r);
      saved.insert(saved.end(), w.begin(), w.end());
    }
    EXPECT_EQ(readBytes(out), bytesOf(saved));

    // Records after a non-positive count are not read.
    for (int32_t count : {0, -5}) {
      writeWords(in, fileOf(v.version, count, 1));
      EXPECT_EQ(map.load(in.c_str()), 0);
      EXPECT_EQ(map.sampleCount(), v.version == 0x60000 ? 0u : 3u) << count;
    }
  }
}

TEST_F(LightMapFile, BadFilesAreRefusedAndLeaveTheSamplesAlone) {
  const std::string good = path("good.lulmap");
  writeWords(good, fileOf(0x30000, 2, 2));
  LightMap map;
  ASSERT_EQ(map.load(good.c_str()), 0);

  const std::string p = path("bad.lulmap");
  for (uint32_t unknown : {0u, 0x60001u, 0x70000u}) {
    std::vector<uint32_t> w = fileOf(0x60000, 1, 1);
    w[0] = unknown;
    writeWords(p, w);
    EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError) << unknown;
  }
  writeWords(p, {0x60000}, 1);  // version word cut
  EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  writeWords(p, {0x60000});  // no count
  EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  // Cut inside the last record, and a huge count: nothing is read, not even the complete records,
  // and a newest-version file does not wipe what is held.
  for (uint32_t version : {0x40000u, 0x60000u}) {
    writeWords(p, fileOf(version, 3, 3), 7);
    EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
    writeWords(p, fileOf(version, 0x7FFFFFFF, 1));
    EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  }
  EXPECT_EQ(map.load(path("missing.lulmap").c_str()), LUtils::kFileOpenError);
  EXPECT_EQ(map.load(nullptr), LUtils::kFileEmptyName);

  ASSERT_EQ(map.sampleCount(), 2u);
  EXPECT_EQ(words(map.samples()[1]), expectedWords(0x30000, 1));
}

TEST_F(LightMapFile, ACutStreamKeepsOnlyItsCompleteRecords) {
  const std::string fifo = path("pipe");
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::thread writer([&] { writeWords(fifo, fileOf(0x50000, 4, 3), 10); });
  LightMap map;
  EXPECT_EQ(map.load(fifo.c_str()), LUtils::kFileReadError);
  writer.join();
  ASSERT_EQ(map.sampleCount(), 2u);
  EXPECT_EQ(words(map.samples()[1]), expectedWords(0x50000, 1));
}

TEST_F(LightMapFile, OlderVersionsAddAndTheNewestReplaces) {
  const std::string v3 = path("v3.lulmap"), v2 = path("v2.lulmap"), v6 = path("v6.lulmap");
  LightMap map;
  lighttest::addPlaneSamples(map, 5, 10.0f, 20.0f, 0.01f, 1);
  writeWords(v3, fileOf(0x30000, 3, 3));
  writeWords(v2, fileOf(0x20000, 2, 2));
  writeWords(v6, fileOf(0x60000, 1, 1));

  ASSERT_EQ(map.load(v3.c_str()), 0);
  ASSERT_EQ(map.load(v2.c_str()), 0);
  ASSERT_EQ(map.sampleCount(), 10u);
  // The rebuilt tree finds every sample at its own position.
  struct Find : LightMapStoreCb {
    const LightMapSample* wanted = nullptr;
    bool found = false;
    int store(LightMapSample& x) override { return found |= &x == wanted, 1; }
  } find;
  for (size_t i = 0; i < map.sampleCount(); ++i) {
    find.wanted = &map.samples()[i];
    find.found = false;
    map.query(find.wanted->position, nullptr, find);
    EXPECT_TRUE(find.found) << i;
  }

  ASSERT_EQ(map.load(v6.c_str()), 0);
  ASSERT_EQ(map.sampleCount(), 1u);
  EXPECT_EQ(words(map.samples()[0]), expectedWords(0x60000, 0));
  EXPECT_EQ(map.treeRoot(), nullptr);  // one sample has no tree
}

// Passes the samples whose first value word is even, and gives a count of its own.
class EvenValues : public LightMap::SaveCb {
 public:
  explicit EvenValues(int n) : n_(n) {}
  bool accept(const LightMapSample& s) override { return s.valueA[0] % 2 == 0; }
  int count() override { return n_; }

 private:
  int n_;
};

TEST_F(LightMapFile, SaveFilterNamesAndFailures) {
  LightMap map;
  lighttest::addPlaneSamples(map, 50000, 0.0f, 1.0f, 0.01f, 2);  // three blocks
  EXPECT_EQ(map.save(nullptr, nullptr), 0);
  EXPECT_EQ(map.save("", nullptr), 0);

  // The filter's count is written as it stands even though accept passes 25000 samples.
  const std::string p = path("f.lulmap");
  EvenValues filter(7);
  ASSERT_EQ(map.save(p.c_str(), &filter), 0);
  std::vector<uint32_t> expected = {0x60000, 7};
  for (size_t i = 0; i < 50000; i += 2) {
    const auto w = words(map.samples()[i]);
    expected.insert(expected.end(), w.begin(), w.end());
  }
  const std::string saved = readBytes(p);
  EXPECT_EQ(saved, bytesOf(expected));

  EXPECT_EQ(map.save(path("no/such/dir.lulmap").c_str(), nullptr), LUtils::kFileOpenError);
  EXPECT_EQ(map.save("/dev/full", nullptr), LUtils::kFileWriteError);

  // A file-size limit makes the write fail part way, as a full disk would: the old file stays.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  rlimit small = old;
  small.rlim_cur = 100000;
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int result = map.save(p.c_str(), nullptr);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, oldHandler);
  EXPECT_EQ(result, LUtils::kFileWriteError);
  EXPECT_EQ(readBytes(p), saved);
}

TEST(LightMapFilters, SampleFilterRejectsBackFacing) {
  LightMapSample s{};
  s.normal = {0.0f, 0.0f, 1.0f};
  EXPECT_TRUE(LightMapSampleFilter({0.0f, 0.0f, 1.0f}).accept(s));
  EXPECT_TRUE(LightMapSampleFilter({1.0f, 0.0f, 0.0101f}).accept(s));
  EXPECT_FALSE(LightMapSampleFilter({1.0f, 0.0f, 0.0099f}).accept(s));
  EXPECT_FALSE(LightMapSampleFilter({0.0f, 0.0f, -1.0f}).accept(s));
}

TEST(LightMapFilters, StoreFilterChecksIdNormalAndPlane) {
  LightMapSample s{};
  s.position = {0.0f, 0.0f, 0.0f};
  s.normal = s.normalB = {0.0f, 0.0f, 1.0f};
  s.id = 7;
  const LUtils::Vector up(0.0f, 0.0f, 1.0f);
  // In the tangent plane, same id and normal.
  EXPECT_TRUE(LightMapFilter_store({1.0f, 0.0f, 0.0f}, up, up, 7).accept(s));
  EXPECT_FALSE(LightMapFilter_store({1.0f, 0.0f, 0.0f}, up, up, 8).accept(s));
  // normalB at 0.8 passes, below it fails.
  EXPECT_TRUE(LightMapFilter_store({1.0f, 0.0f, 0.0f}, {0.6f, 0.0f, 0.8f}, up, 7).accept(s));
  EXPECT_FALSE(LightMapFilter_store({1.0f, 0.0f, 0.0f}, {0.61f, 0.0f, 0.79f}, up, 7).accept(s));
  // Off the plane: d = (1, 0, 0.2) gives 0.04 > 0.0104; d = (1, 0, 0.1) gives 0.01 <= 0.0101.
  EXPECT_FALSE(LightMapFilter_store({1.0f, 0.0f, 0.2f}, up, up, 7).accept(s));
  EXPECT_TRUE(LightMapFilter_store({1.0f, 0.0f, 0.1f}, up, up, 7).accept(s));
  // Opposite signs along the two vectors make the product negative: accepted.
  EXPECT_TRUE(LightMapFilter_store({1.0f, 0.0f, 0.5f}, up, -up, 7).accept(s));
  // Any id matches every sample without further tests.
  EXPECT_TRUE(LightMapFilter_store({0.0f, 0.0f, 5.0f}, -up, up, 0xFFFFFFFFu).accept(s));
}

}  // namespace
