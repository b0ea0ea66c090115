// Adding a map file to the map in memory after deletions, for both kinds of map: what is kept,
// in which order, and what the console shows.
#include "viewer/file_commands.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <string>
#include <vector>

#include "app/process_state.h"
#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "test_support/scratch_dir.h"

namespace LUtils {
namespace {

class FileCommands : public testing::ScratchDirTest {
 protected:
  FileCommands() : ScratchDirTest("file-commands") {}
  void TearDown() override {
    deleteIrradianceMap(gIrradianceMap);
    gIrradianceMap = nullptr;
    delete gLightMap;
    gLightMap = nullptr;
    ScratchDirTest::TearDown();
  }
  static std::string consoleText(std::FILE* f) {
    std::string text(static_cast<size_t>(std::ftell(f)), '\0');
    std::rewind(f);
    EXPECT_EQ(std::fread(text.data(), 1, text.size(), f), text.size());
    return text;
  }
};

// Samples at x = first, first + 1, ...
IrradianceMap* irradianceRow(float first, int count) {
  auto* map = static_cast<DefIrradianceMap*>(newIrradianceMap());
  for (int i = 0; i < count; ++i) {
    IrradSample s{};
    s.position = {first + static_cast<float>(i), 0, 0};
    s.normal = {0, 0, 1};
    s.packNormal();
    s.drawRadius2 = s.validRadius2 = 0.25f;
    map->appendSample(s);
  }
  return map;
}

std::vector<float> xsOf(IrradianceMap& map) {
  struct Xs final : EnumIrradianceSamplesCallback {
    std::vector<float> xs;
    int process(IrradSample& s) override {
      xs.push_back(s.position.x);
      return 1;
    }
  } cb;
  map.enumerateSamples(0, &cb);
  return cb.xs;
}

TEST_F(FileCommands, IrradianceAddRebuildsWithoutDeletedSamplesThenAppendsTheFile) {
  IrradianceMap* added = irradianceRow(100.0f, 4);
  ASSERT_EQ(added->saveToFile(path("b.lumap").c_str(), nullptr), 0);
  deleteIrradianceMap(added);
  gIrradianceMap = irradianceRow(0.0f, 6);
  SampleBits deleted;
  deleted.clear(6);
  deleted.set(0);
  deleted.set(4);

  std::FILE* console = std::tmpfile();
  int lastPercent = -1;
  MergeProgress progress([&](const char*, int percent) { lastPercent = percent; }, console);
  ASSERT_EQ(addMapFile(path("b.lumap").c_str(), false, deleted, progress, console),
            AddResult::kAdded);
  EXPECT_EQ(xsOf(*gIrradianceMap), (std::vector<float>{1, 2, 3, 5, 100, 101, 102, 103}));
  EXPECT_EQ(lastPercent, 100);
  const std::string text = consoleText(console);
  EXPECT_NE(text.find("\rRebuilding the map...done      \n"), std::string::npos) << text;
  EXPECT_NE(text.find("\rAdding samples...done      \n"), std::string::npos) << text;
  std::fclose(console);

  // A file that is no irradiance map changes nothing and prints nothing.
  testing::writeWholeFile(path("junk.lumap"), "\xFF\xD8\xFF\xE0 not a map");
  std::FILE* quiet = std::tmpfile();
  MergeProgress silent({}, quiet);
  EXPECT_EQ(addMapFile(path("junk.lumap").c_str(), true, SampleBits{}, silent, quiet),
            AddResult::kIrradianceLoadFailed);
  EXPECT_EQ(xsOf(*gIrradianceMap).size(), 8u);
  EXPECT_EQ(std::ftell(quiet), 0);
  std::fclose(quiet);
}

TEST_F(FileCommands, LightCacheAddRebuildsWithoutDeletedSamplesAndReportsBadFiles) {
  const auto row = [](LightMap& cache, float first, int count) {
    for (int i = 0; i < count; ++i) {
      LightMapSample* s = cache.insertSample();
      *s = LightMapSample{};
      s->position = {first + static_cast<float>(i), 0, 0};
      s->normal = s->normalB = {0, 0, 1};
      s->radiusSquared = 0.01f;
    }
    cache.rebuildTree();
  };
  LightMap other;
  row(other, 50.0f, 3);
  ASSERT_EQ(other.save(path("b.lulmap").c_str(), nullptr), 0);
  gLightMap = new LightMap();
  row(*gLightMap, 0.0f, 5);
  SampleBits deleted;
  deleted.clear(5);
  deleted.set(1);

  std::FILE* console = std::tmpfile();
  MergeProgress progress({}, console);
  ASSERT_EQ(addMapFile(path("b.lulmap").c_str(), false, deleted, progress, console),
            AddResult::kAdded);
  std::vector<float> xs;
  gLightMap->samples().forEach(0, [&](const LightMapSample& s) {
    xs.push_back(s.position.x);
    return true;
  });
  EXPECT_EQ(xs, (std::vector<float>{0, 2, 3, 4, 50, 51, 52}));

  const std::string missing = path("none.lulmap");
  const long before = std::ftell(console);
  EXPECT_EQ(addMapFile(missing.c_str(), false, SampleBits{}, progress, console),
            AddResult::kLightCacheLoadFailed);
  EXPECT_EQ(consoleText(console).substr(static_cast<size_t>(before)),
            "Error loading file \"" + missing + "\"\n");
  EXPECT_EQ(gLightMap->sampleCount(), 7u);

  // A folder is no map either.
  const std::string folder = path("folder.lulmap");
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  EXPECT_EQ(addMapFile(folder.c_str(), false, SampleBits{}, progress, console),
            AddResult::kLightCacheLoadFailed);
  EXPECT_EQ(gLightMap->sampleCount(), 7u);
  std::fclose(console);
}

}  // namespace
}  // namespace LUtils
