// The reference octree cache and the map's incremental merge keep exactly the same samples, byte
// for byte and in the same order, radii lowered alike: the cache applies the same rule through
// a plain octree, so this also checks the map's index (kd-tree and insertion grid) against one
// written without any of its tricks.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "octree_cache.h"
#include "synth/generator.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;

std::vector<IrradSample> frame(int view, uint32_t count, uint64_t seed) {
  synth::Params p;
  p.count = count;
  p.seed = seed;
  p.view = synth::presetView(view);
  std::vector<IrradSample> out;
  synth::generate(p, out);
  return out;
}

IrradianceMapHeader header() { return synth::makeHeader(synth::Params{}); }

// Offers `offered` to a map holding `base` (prepared) and to the octree built over `base`, and
// expects the same samples in both. Returns the number kept.
size_t expectSameSamples(const std::vector<IrradSample>& base,
                         const std::vector<IrradSample>& offered) {
  // Small storage blocks, so that the merge crosses block boundaries.
  DefIrradianceMap map(1024), source(1024);
  map.setHeader(header());
  for (const IrradSample& s : base) map.appendSample(s);
  for (const IrradSample& s : offered) source.appendSample(s);
  map.prepare(0);
  map.addSamples(source, nullptr, 1);

  reference::OctreeCache cache(header());
  for (const IrradSample& s : base) cache.add(s);
  size_t kept = 0;
  for (const IrradSample& s : offered) kept += cache.offer(s);

  const std::vector<IrradSample>& expected = cache.samples();
  EXPECT_EQ(map.samples().size(), expected.size());
  EXPECT_EQ(map.samples().size(), base.size() + kept);
  size_t differing = 0;
  for (size_t i = 0; i < std::min(expected.size(), map.samples().size()); ++i) {
    if (std::memcmp(&map.samples()[i], &expected[i], sizeof(IrradSample)) != 0) {
      if (differing++ == 0) ADD_FAILURE() << "first differing sample: " << i;
    }
  }
  EXPECT_EQ(differing, 0u);
  return kept;
}

TEST(ReferenceOctreeCache, KeepsTheSamplesOfTheIncrementalMerge) {
  const std::vector<IrradSample> first = frame(0, 20000, 1);
  // The same camera again: few samples are kept.
  const size_t sameCamera = expectSameSamples(first, frame(0, 20000, 2));
  // The second camera sees surfaces the first did not.
  const size_t secondCamera = expectSameSamples(first, frame(1, 20000, 3));
  // Into an empty map: the offered frame thins itself out.
  const size_t empty = expectSameSamples({}, frame(1, 30000, 4));
  EXPECT_GT(sameCamera, 0u);
  EXPECT_LT(sameCamera, secondCamera);
  EXPECT_GT(empty, 1000u);
  EXPECT_LT(empty, 30000u);
}

// Samples no index can place stay in the map but cover nothing; samples far outside the first
// ones make the octree grow its root; a sample offered twice finds itself.
TEST(ReferenceOctreeCache, AgreesOnUnplaceableFarAndRepeatedSamples) {
  std::vector<IrradSample> base = frame(0, 2000, 5);
  std::vector<IrradSample> offered = frame(1, 3000, 6);
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  base[10].validRadius2 = nan;
  base[11].position.x = inf;
  base[12].validRadius2 = -1.0f;
  offered[20].validRadius2 = nan;
  offered[21].position.y = nan;
  offered[22].validRadius2 = 0.0f;
  for (int i = 0; i < 50; ++i) {
    IrradSample far = offered[100 + i];
    far.position = far.position * 1000.0f + LUtils::Vector{1e6f, -3e5f, 7e5f};
    far.validRadius2 *= static_cast<float>(1 + i);
    offered.push_back(far);
    offered.push_back(far);  // the same point again
  }
  offered.push_back(offered[5]);
  expectSameSamples(base, offered);
}

}  // namespace
