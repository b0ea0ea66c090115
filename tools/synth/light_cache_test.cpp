#include "synth/light_cache.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "io/file_errors.h"
#include "lightcache/light_merge.h"
#include "synth/scene.h"
#include "test_support/scratch_dir.h"

namespace synth {
namespace {

using LUtils::Vector;

std::string tempPath(const std::string& name) {
  return LUtils::testing::testTmpPath("synth_" + name);
}

std::vector<LightMapSample> samplesOf(LightMap& map) {
  std::vector<LightMapSample> out;
  map.samples().forEach(0, [&](const LightMapSample& s) {
    out.push_back(s);
    return true;
  });
  return out;
}

bool sameWords(const void* a, const void* b, size_t words) {
  return std::memcmp(a, b, 4 * words) == 0;
}

Params lightParams(uint32_t count, int preset, uint64_t seed) {
  Params p;
  p.count = count;
  p.view = presetView(preset);
  p.seed = seed;
  return p;
}

// Every version written reads back through the light cache's own reader with the words that
// version keeps: older versions lose the second value group and normal (the reader copies the
// first), the ids, and the opaque words.
TEST(LightCacheFile, EveryVersionLoadsBackWithItsFields) {
  const Params p = lightParams(700, 1, 5);
  std::vector<LightMapSample> made;
  ASSERT_EQ(generateLightCache(p, made), 700);
  // The generated samples make every check below count: second values, ids and opaque words
  // all differ from what an older version's reader fills in.
  for (const LightMapSample& s : made) {
    ASSERT_FALSE(sameWords(s.valueA, s.valueB, 4));
    ASSERT_NE(s.id, 0u);
    ASSERT_NE(s.extra[0] | s.aux[1], 0u);
  }

  const uint32_t zero[6] = {};
  for (uint32_t version = LightMap::kVersion1; version <= LightMap::kVersion6; version += 0x10000) {
    SCOPED_TRACE(testing::Message() << "version 0x" << std::hex << version);
    char name[16];
    std::snprintf(name, sizeof name, "v%u.lulmap", version >> 16);
    const std::string path = tempPath(name);
    std::string message;
    ASSERT_EQ(writeLightCacheFile(path.c_str(), version, p, message), 0) << message;
    EXPECT_EQ(std::filesystem::file_size(path), 8 + 700 * lightRecordBytes(version));

    LightMap loaded(256);  // several blocks
    ASSERT_EQ(loaded.load(path.c_str()), 0);
    const auto back = samplesOf(loaded);
    ASSERT_EQ(back.size(), made.size());
    for (size_t i = 0; i < back.size(); ++i) {
      const LightMapSample& m = made[i];
      const LightMapSample& b = back[i];
      ASSERT_TRUE(sameWords(&b, &m, 7)) << "position, normal, radius of sample " << i;
      ASSERT_TRUE(sameWords(b.valueA, m.valueA, 4)) << i;
      const bool two = version >= LightMap::kVersion3;
      ASSERT_TRUE(sameWords(b.valueB, two ? m.valueB : m.valueA, 4)) << i;
      ASSERT_TRUE(sameWords(&b.normalB, two ? &m.normalB : &m.normal, 3)) << i;
      ASSERT_EQ(b.id, version >= LightMap::kVersion5 ? m.id : 0u) << i;
      const bool opaque = version == LightMap::kVersion6;
      ASSERT_TRUE(sameWords(b.extra, opaque ? m.extra : zero, 6)) << i;
      ASSERT_TRUE(sameWords(b.aux, opaque ? m.aux : zero, 2)) << i;
    }
  }

  // Refusals leave no file behind and say why.
  std::string message;
  const std::string path = tempPath("bad.lulmap");
  std::filesystem::remove(path);
  EXPECT_EQ(writeLightCacheFile(path.c_str(), 0x70000, p, message), -1);
  EXPECT_NE(message.find("version"), std::string::npos);
  Params outside = p;
  outside.view.eye = {0, 0, -1};
  EXPECT_EQ(writeLightCacheFile(path.c_str(), LightMap::kVersion6, outside, message), -1);
  EXPECT_FALSE(std::filesystem::exists(path));
  const std::string missing = tempPath("no/such/dir/x.lulmap");
  EXPECT_EQ(writeLightCacheFile(missing.c_str(), LightMap::kVersion6, p, message),
            LUtils::kFileOpenError);
  EXPECT_NE(message.find(missing), std::string::npos);
}

// The same seed gives the same file whatever the thread count; another seed another file.
TEST(LightCacheFile, SameSeedSameBytes) {
  Params p = lightParams(9000, 0, 1);  // more than one chunk
  const std::string a = tempPath("a.lulmap"), b = tempPath("b.lulmap");
  std::string message;
  p.threads = 1;
  ASSERT_EQ(writeLightCacheFile(a.c_str(), LightMap::kVersion6, p, message), 0);
  p.threads = 3;
  ASSERT_EQ(writeLightCacheFile(b.c_str(), LightMap::kVersion6, p, message), 0);
  LightMap first, second;
  ASSERT_EQ(first.load(a.c_str()), 0);
  ASSERT_EQ(second.load(b.c_str()), 0);
  const auto x = samplesOf(first), y = samplesOf(second);
  ASSERT_EQ(x.size(), 9000u);
  ASSERT_EQ(y.size(), 9000u);
  EXPECT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof(LightMapSample)), 0);
  p.seed = 2;
  std::vector<LightMapSample> other;
  generateLightCache(p, other);
  ASSERT_EQ(other.size(), 9000u);
  EXPECT_NE(std::memcmp(x.data(), other.data(), x.size() * sizeof(LightMapSample)), 0);
}

// Samples lie on surfaces the eye sees, face it, carry the id of the object they lie on, and
// their radius is the sample size times their distance from the eye.
TEST(LightCache, SamplesSitOnVisibleSurfacesWithRadiusGrowingWithDistance) {
  const Scene& scene = Scene::room();
  const Params p = lightParams(3000, 0, 7);
  std::vector<LightMapSample> samples;
  ASSERT_EQ(generateLightCache(p, samples), 3000);
  const float size = lightSampleSize(p);
  float nearest = 1e9f, farthest = 0.0f;
  for (const LightMapSample& s : samples) {
    const Vector toEye = p.view.eye - s.position;
    const float distance = LUtils::length(toEye);
    ASSERT_TRUE(scene.onSurface(s.position, static_cast<int32_t>(s.id), 1e-3f));
    ASSERT_GT(dot(toEye, s.normal), 0.0f);
    const Hit h = scene.trace(p.view.eye, LUtils::normalizeNewton(s.position - p.view.eye));
    ASSERT_NEAR(h.t, distance, 1e-3f * distance) << "hidden sample";
    ASSERT_NEAR(s.radius(), size * distance, 1e-3f * s.radius());
    // valueA holds all the light, valueB its direct part.
    for (int c = 0; c < 3; ++c) {
      const float all = std::bit_cast<float>(s.valueA[c]),
                  direct = std::bit_cast<float>(s.valueB[c]);
      ASSERT_GT(all, direct);
      ASSERT_GE(direct, 0.0f);
    }
    nearest = std::min(nearest, s.radius());
    farthest = std::max(farthest, s.radius());
  }
  EXPECT_GT(farthest, 3.0f * nearest);
}

// The two camera presets overlap partly: merging the second frame's cache into the first adds
// every sample plainly, and incrementally only those the first frame does not already cover.
TEST(LightCache, IncrementalMergeOfThePresetsSkipsTheOverlap) {
  auto frame = [](int preset, LightMap& map) {
    ASSERT_EQ(generateLightCache(lightParams(20000, preset, preset + 1), map), 20000);
  };
  for (int incremental = 0; incremental <= 1; ++incremental) {
    LightMap target;
    frame(0, target);
    auto* source = new LightMap;
    frame(1, *source);
    LightMergeCounts counts;
    ASSERT_EQ(mergeLightMaps(target, source, incremental, &counts), 0);
    if (!incremental) {
      EXPECT_EQ(target.sampleCount(), 40000u);
    } else {
      EXPECT_GT(counts.skipped, 2000u);
      EXPECT_GT(counts.added, 4000u);
      EXPECT_EQ(target.sampleCount(), 20000u + counts.added);
    }
  }
}

}  // namespace
}  // namespace synth
