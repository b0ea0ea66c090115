#include "synth/map_output.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "io/file_errors.h"
#include "test_support/scratch_dir.h"

namespace synth {
namespace {

using LUtils::IrradSample;

std::string tempPath(const std::string& name) { return LUtils::testing::testTmpPath("synth_" + name); }

std::vector<char> fileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<IrradSample> samplesOf(LUtils::DefIrradianceMap& map) {
  std::vector<IrradSample> out;
  map.samples().forEach(0, [&](const IrradSample& s) {
    out.push_back(s);
    return true;
  });
  return out;
}

TEST(MapOutput, GeneratesIntoAMapWithItsHeader) {
  Params p;
  p.count = 777;
  p.view = presetView(1);
  p.renderIdsInHeader = true;
  LUtils::DefIrradianceMap map;
  ASSERT_EQ(generate(p, map), 777);
  EXPECT_EQ(map.numSamples(), 777);
  EXPECT_TRUE(map.header()->hasCamera());
  EXPECT_EQ(map.header()->containsRenderIds, 1);
  std::vector<IrradSample> direct;
  generate(p, direct);
  const auto stored = samplesOf(map);
  ASSERT_EQ(stored.size(), direct.size());
  EXPECT_EQ(std::memcmp(stored.data(), direct.data(), direct.size() * sizeof(IrradSample)), 0);
}

// The same seed gives the same file whatever the thread count; another seed another file.
TEST(MapOutput, SameSeedSameBytes) {
  Params p;
  p.count = 9000;  // more than one chunk
  const std::string a = tempPath("a.lumap"), b = tempPath("b.lumap");
  std::string message;
  p.threads = 1;
  ASSERT_EQ(writeMapFile(a.c_str(), 0xD0000, p, message), 0);
  p.threads = 2;
  ASSERT_EQ(writeMapFile(b.c_str(), 0xD0000, p, message), 0);
  const auto bytes = fileBytes(a);
  EXPECT_EQ(bytes.size(), 12u + 160u + 9000u * 84u);
  EXPECT_EQ(bytes, fileBytes(b));
  p.seed = 2;
  ASSERT_EQ(writeMapFile(b.c_str(), 0xD0000, p, message), 0);
  EXPECT_NE(bytes, fileBytes(b));
}

TEST(MapOutput, FailuresLeaveNoFileAndSayWhy) {
  Params p;
  p.count = 10;
  std::string message;
  const std::string path = tempPath("bad.lumap");
  std::filesystem::remove(path);
  EXPECT_EQ(writeMapFile(path.c_str(), 0x10001, p, message), -1);
  EXPECT_NE(message.find("version"), std::string::npos);
  EXPECT_EQ(writeMapFile(path.c_str(), 0xE0000, p, message), -1);
  p.view.eye = {0, 0, -1};
  EXPECT_EQ(writeMapFile(path.c_str(), 0xD0000, p, message), -1);
  EXPECT_NE(message.find("eye"), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(path));
  p = Params{};
  const std::string missing = tempPath("no/such/dir/x.lumap");
  EXPECT_EQ(writeMapFile(missing.c_str(), 0xD0000, p, message), LUtils::kFileOpenError);
  EXPECT_NE(message.find(missing), std::string::npos);
}

}  // namespace
}  // namespace synth
