// Saving and rebuilding without deleted samples, through real files of both kinds of map.
#include "viewer/map_edits.h"

#include <gtest/gtest.h>

#include <vector>

#include "test_support/scratch_dir.h"

namespace LUtils {
namespace {

class MapEdits : public testing::ScratchDirTest {
 protected:
  MapEdits() : ScratchDirTest("map-edits") {}
  // Deleted: every third sample and the last one.
  static SampleBits deletedOf(uint32_t count) {
    SampleBits bits;
    bits.clear(count);
    for (uint32_t i = 0; i < count; i += 3) bits.set(i);
    bits.set(count - 1);
    return bits;
  }
  static std::vector<float> keptXs(uint32_t count, const SampleBits& deleted) {
    std::vector<float> xs;
    for (uint32_t i = 0; i < count; ++i) {
      if (!deleted.test(i)) xs.push_back(static_cast<float>(i));
    }
    return xs;
  }
};

struct Progress final : ProgressCallback {
  int32_t total = -1, current = 0, steps = 0;
  void setTotal(int32_t t) override { total = t; }
  int32_t getTotal() override { return total; }
  void setProgress(int32_t d) override {
    current = d;
    ++steps;
  }
  int32_t getProgress() override { return current; }
  void setTitle(const char*) override {}
  void start() override {}
  void done() override {}
};

TEST_F(MapEdits, IrradianceMapSavedAndRebuiltWithoutDeletedSamplesInOrder) {
  constexpr uint32_t kCount = 1000;
  DefIrradianceMap map;
  for (uint32_t i = 0; i < kCount; ++i) {
    IrradSample s{};
    s.position = {static_cast<float>(i), 0, 0};
    s.normal = {0, 0, 1};
    s.drawRadius2 = 1.0f;
    map.appendSample(s);
  }
  const SampleBits deleted = deletedOf(kCount);
  const std::vector<float> expected = keptXs(kCount, deleted);

  IrradianceSaveMapCb save(deleted, kCount);
  ASSERT_EQ(map.saveToFile(path("kept.lumap").c_str(), &save), 0);
  DefIrradianceMap loaded;
  ASSERT_EQ(loaded.loadFromFile(path("kept.lumap").c_str(), 0, 0.0f), 0);

  DefIrradianceMap rebuilt;
  Progress progress;
  TransferNotDeletedCb transfer(rebuilt, &map, deleted, kCount, &progress);
  map.enumerateSamples(0, &transfer);
  EXPECT_EQ(progress.total, static_cast<int32_t>(kCount));
  EXPECT_EQ(progress.steps, static_cast<int32_t>(kCount));
  EXPECT_EQ(progress.current, static_cast<int32_t>(kCount));

  for (IrradianceMap* m : {static_cast<IrradianceMap*>(&loaded), static_cast<IrradianceMap*>(&rebuilt)}) {
    std::vector<float> xs;
    struct Xs final : EnumIrradianceSamplesCallback {
      std::vector<float>* xs;
      int process(IrradSample& s) override {
        xs->push_back(s.position.x);
        return 1;
      }
    } cb;
    cb.xs = &xs;
    m->enumerateSamples(0, &cb);
    EXPECT_EQ(xs, expected);
  }
}

TEST_F(MapEdits, LightCacheSavedAndRebuiltWithoutDeletedSamplesInOrder) {
  constexpr uint32_t kCount = 700;
  LightMap cache;
  for (uint32_t i = 0; i < kCount; ++i) {
    LightMapSample* s = cache.insertSample();
    s->position = {static_cast<float>(i), 0, 0};
    s->normal = s->normalB = {0, 0, 1};
    s->radiusSquared = 1.0f;
  }
  cache.rebuildTree();
  const SampleBits deleted = deletedOf(kCount);
  const std::vector<float> expected = keptXs(kCount, deleted);

  LightSaveMapCb save(deleted, kCount);
  ASSERT_EQ(cache.save(path("kept.lulmap").c_str(), &save), 0);
  LightMap loaded, rebuilt;
  ASSERT_EQ(loaded.load(path("kept.lulmap").c_str()), 0);
  copyNotDeleted(cache, deleted, rebuilt);
  for (LightMap* m : {&loaded, &rebuilt}) {
    std::vector<float> xs;
    m->samples().forEach(0, [&](const LightMapSample& s) {
      xs.push_back(s.position.x);
      return true;
    });
    EXPECT_EQ(xs, expected);
  }
}

}  // namespace
}  // namespace LUtils
