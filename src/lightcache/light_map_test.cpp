#include "lightcache/light_map.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "io/file_errors.h"
#include "lightcache/light_test_util.h"

namespace {

using lighttest::words;

struct VersionCase {
  uint32_t version;
  uint32_t recordWords;
};
const VersionCase kVersions[] = {{0x10000, 11}, {0x20000, 15}, {0x30000, 18},
                                 {0x40000, 20}, {0x50000, 30}, {0x60000, 30}};

// Record word i of record r: a float near 2 whose low bits tell the record and word apart.
uint32_t fileWord(uint32_t r, uint32_t i) { return 0x40000000u | (r << 8) | i; }

std::vector<uint32_t> fileOf(uint32_t version, int32_t count, uint32_t records, uint32_t recWords) {
  std::vector<uint32_t> w = {version, uint32_t(count)};
  for (uint32_t r = 0; r < records; ++r) {
    for (uint32_t i = 0; i < recWords; ++i) w.push_back(fileWord(r, i));
  }
  return w;
}

// The sample words a record of each version must give, written out word by word.
std::vector<uint32_t> expectedWords(uint32_t version, uint32_t r) {
  std::vector<uint32_t> w(30, 0);
  auto f = [&](uint32_t i) { return fileWord(r, i); };
  for (uint32_t i = 0; i <= 6; ++i) w[i] = f(i);
  switch (version) {
    case 0x10000:
    case 0x20000:
      for (uint32_t i = 0; i < 4; ++i) w[14 + i] = w[18 + i] = f(7 + i);
      for (uint32_t i = 0; i < 3; ++i) w[22 + i] = f(3 + i);
      break;
    case 0x30000:
    case 0x40000:
      for (uint32_t i = 14; i <= 24; ++i) w[i] = f(i - 7);
      break;
    case 0x50000:
      for (uint32_t i = 14; i <= 24; ++i) w[i] = f(i);
      w[28] = f(28);
      break;
    default:
      for (uint32_t i = 8; i <= 24; ++i) w[i] = f(i);
      for (uint32_t i = 26; i <= 28; ++i) w[i] = f(i);
  }
  return w;
}

class LightMapFile : public lighttest::ScratchDir {};

TEST_F(LightMapFile, EveryVersionMapsItsWords) {
  for (const VersionCase& v : kVersions) {
    SCOPED_TRACE(v.version);
    const std::string p = path("v.lulmap");
    writeWords(p, fileOf(v.version, 3, 3, v.recordWords));
    LightMap map;
    ASSERT_EQ(map.load(p.c_str()), 0);
    ASSERT_EQ(map.sampleCount(), 3u);
    for (uint32_t r = 0; r < 3; ++r) EXPECT_EQ(words(map.samples()[r]), expectedWords(v.version, r));
    EXPECT_FALSE(map.needsRebuild());
    EXPECT_NE(map.treeRoot(), nullptr);
    // Records after a non-positive count are not read.
    for (int32_t count : {0, -5}) {
      writeWords(p, fileOf(v.version, count, 1, v.recordWords));
      EXPECT_EQ(map.load(p.c_str()), 0);
      EXPECT_EQ(map.sampleCount(), v.version == 0x60000 ? 0u : 3u) << count;
    }
  }
}

TEST_F(LightMapFile, SaveAndLoadKeepEveryWordThatIsStored) {
  for (const VersionCase& v : kVersions) {
    SCOPED_TRACE(v.version);
    const std::string in = path("in.lulmap"), out = path("out.lulmap");
    writeWords(in, fileOf(v.version, 2, 2, v.recordWords));
    LightMap a;
    ASSERT_EQ(a.load(in.c_str()), 0);
    ASSERT_EQ(a.save(out.c_str(), nullptr), 0);
    // The newest version: header, then the samples exactly as in memory.
    std::string expected(8 + 2 * 120, '\0');
    const uint32_t header[2] = {0x60000, 2};
    std::memcpy(expected.data(), header, 8);
    std::memcpy(expected.data() + 8, &a.samples()[0], 120);
    std::memcpy(expected.data() + 128, &a.samples()[1], 120);
    EXPECT_EQ(readBytes(out), expected);

    LightMap b;
    ASSERT_EQ(b.load(out.c_str()), 0);
    ASSERT_EQ(b.sampleCount(), 2u);
    for (uint32_t r = 0; r < 2; ++r) EXPECT_EQ(words(b.samples()[r]), expectedWords(v.version, r));
  }
}

TEST_F(LightMapFile, BadFilesAreRefusedAndLeaveTheSamplesAlone) {
  const std::string good = path("good.lulmap");
  writeWords(good, fileOf(0x30000, 2, 2, 18));
  LightMap map;
  ASSERT_EQ(map.load(good.c_str()), 0);

  const std::string p = path("bad.lulmap");
  writeWords(p, fileOf(0x70000, 1, 1, 30));
  EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  writeWords(p, {0x60000}, 1);  // version word cut
  EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  writeWords(p, {0x60000});  // no count
  EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
  // Cut inside the last record, and a huge count: nothing is read, not even the complete records,
  // and a newest-version file does not wipe what is held.
  for (uint32_t version : {0x40000u, 0x60000u}) {
    const uint32_t recWords = version == 0x40000 ? 20 : 30;
    writeWords(p, fileOf(version, 3, 3, recWords), 7);
    EXPECT_EQ(map.load(p.c_str()), LUtils::kFileFormatError);
    writeWords(p, fileOf(version, 0x7FFFFFFF, 1, recWords));
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
  std::thread writer([&] { writeWords(fifo, fileOf(0x50000, 4, 3, 30), 10); });
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
  writeWords(v3, fileOf(0x30000, 3, 3, 18));
  writeWords(v2, fileOf(0x20000, 2, 2, 15));
  writeWords(v6, fileOf(0x60000, 1, 1, 30));

  ASSERT_EQ(map.load(v3.c_str()), 0);
  ASSERT_EQ(map.load(v2.c_str()), 0);
  ASSERT_EQ(map.sampleCount(), 10u);
  // The rebuilt tree finds every sample at its own position.
  for (size_t i = 0; i < map.sampleCount(); ++i) {
    LightMapSample& s = map.samples()[i];
    struct Find : LightMapStoreCb {
      LightMapSample* wanted;
      bool found = false;
      int store(LightMapSample& x) override {
        found |= &x == wanted;
        return 1;
      }
    } find;
    find.wanted = &s;
    map.query(s.position, nullptr, find);
    EXPECT_TRUE(find.found) << i;
  }

  ASSERT_EQ(map.load(v6.c_str()), 0);
  ASSERT_EQ(map.sampleCount(), 1u);
  EXPECT_EQ(words(map.samples()[0]), expectedWords(0x60000, 0));
  EXPECT_EQ(map.treeRoot(), nullptr);  // one sample has no tree
}

class CountOnly : public LightMap::SaveCb {
 public:
  explicit CountOnly(int n) : n_(n) {}
  bool accept(const LightMapSample& s) override { return s.valueA[0] % 2 == 0; }
  int count() override { return n_; }

 private:
  int n_;
};

TEST_F(LightMapFile, SaveFilterAndNames) {
  LightMap map;
  lighttest::addPlaneSamples(map, 5, 0.0f, 1.0f, 0.1f, 2);
  EXPECT_EQ(map.save(nullptr, nullptr), 0);
  EXPECT_EQ(map.save("", nullptr), 0);

  // The filter's count is written as it stands even though accept passes 3 samples.
  const std::string p = path("f.lulmap");
  CountOnly filter(7);
  ASSERT_EQ(map.save(p.c_str(), &filter), 0);
  const std::string bytes = readBytes(p);
  ASSERT_EQ(bytes.size(), 8u + 3 * 120);
  uint32_t header[2];
  std::memcpy(header, bytes.data(), 8);
  EXPECT_EQ(header[0], 0x60000u);
  EXPECT_EQ(header[1], 7u);
  EXPECT_EQ(0, std::memcmp(bytes.data() + 8 + 120, &map.samples()[2], 120));

  EXPECT_EQ(map.save(path("no/such/dir.lulmap").c_str(), nullptr), LUtils::kFileOpenError);
  EXPECT_EQ(map.save("/dev/full", nullptr), LUtils::kFileWriteError);
}

TEST_F(LightMapFile, AFailedWriteKeepsTheOldFile) {
  const std::string p = path("old.lulmap");
  writeWords(p, fileOf(0x60000, 1, 1, 30));
  const std::string before = readBytes(p);

  LightMap big;
  lighttest::addPlaneSamples(big, 50000, 0.0f, 1.0f, 0.01f, 3);
  // A file-size limit makes the write fail part way, as a full disk would.
  rlimit old{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  rlimit small = old;
  small.rlim_cur = 100000;
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const int result = big.save(p.c_str(), nullptr);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, oldHandler);

  EXPECT_EQ(result, LUtils::kFileWriteError);
  EXPECT_EQ(readBytes(p), before);
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
