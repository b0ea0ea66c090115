// The incremental merge on realistic maps: two frames of a walk through the synthesised room, seen
// from overlapping cameras. Prints the counts and the coverage that the merge report quotes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/sample_kdtree.h"
#include "irradiance/synth_frame_test_util.h"
#include "synth/generator.h"

namespace LUtils {
namespace {

void fill(DefIrradianceMap& map, const std::vector<IrradSample>& samples, int view) {
  synth::Params p;
  p.view = synth::presetView(view);
  map.setHeader(synth::makeHeader(p));
  for (const IrradSample& s : samples) map.appendSample(s);
}

// Whether some sample's validity sphere contains p.
bool covered(const SampleKdTree& tree, const Vector& p) {
  bool any = false;
  tree.forEachContaining(p, [&](IrradSample&) { any = true; });
  return any;
}

double coverage(DefIrradianceMap& map, const std::vector<Vector>& probes) {
  SampleKdTree tree;
  tree.build(map.samples());
  size_t n = 0;
  for (const Vector& p : probes) n += covered(tree, p);
  return static_cast<double>(n) / static_cast<double>(probes.size());
}

TEST(IncrementalMergeScene, SecondCameraAddsWhereTheFirstSawNothing) {
  constexpr uint32_t kCount = 20000;
  const std::vector<IrradSample> first = frame(0, kCount, 1);
  const std::vector<IrradSample> second = frame(1, kCount, 2);

  // Probe points on surfaces either camera sees, from independent draws.
  std::vector<Vector> probes;
  for (int view = 0; view < 2; ++view) {
    for (const IrradSample& s : frame(view, 5000, 100 + view)) probes.push_back(s.position);
  }

  DefIrradianceMap plain, incremental, source;
  fill(plain, first, 0);
  fill(incremental, first, 0);
  fill(source, second, 1);
  const double coverageFirst = coverage(plain, probes);
  SampleKdTree firstTree;
  firstTree.build(plain.samples());  // the plain merge only appends: the first map's samples stay

  plain.addSamples(source, nullptr, 0);
  incremental.prepare(0);
  incremental.addSamples(source, nullptr, 1);

  // Split the second map's samples by whether the first map already covered their point, and
  // see which of them the incremental merge kept: the kept ones follow the first map's samples,
  // byte for byte and in enumeration order.
  size_t seenBefore = 0, keptSeenBefore = 0, newArea = 0, keptNewArea = 0;
  size_t next = first.size();  // the kept samples follow in enumeration order
  for (const IrradSample& s : second) {
    const bool kept = next < incremental.samples().size() &&
                      std::memcmp(&incremental.samples()[next], &s, sizeof s) == 0;
    if (kept) ++next;
    if (covered(firstTree, s.position)) {
      ++seenBefore;
      keptSeenBefore += kept;
    } else {
      ++newArea;
      keptNewArea += kept;
    }
  }
  ASSERT_EQ(next, incremental.samples().size()) << "kept samples must appear in enumeration order";

  const double coveragePlain = coverage(plain, probes);
  const double coverageIncremental = coverage(incremental, probes);
  const size_t added = incremental.samples().size() - first.size();
  std::printf(
      "first map %zu samples, second %zu: plain merge %zu, incremental %zu (+%zu)\n"
      "second map's samples where the first covered: %zu, kept %zu (%.1f%%)\n"
      "second map's samples where the first had none: %zu, kept %zu (%.1f%%)\n"
      "probe coverage: first alone %.4f, plain merge %.4f, incremental merge %.4f\n",
      first.size(), second.size(), plain.samples().size(), incremental.samples().size(), added,
      seenBefore, keptSeenBefore, 100.0 * keptSeenBefore / seenBefore, newArea, keptNewArea,
      100.0 * keptNewArea / newArea, coverageFirst, coveragePlain, coverageIncremental);

  // The cameras overlap, and each sees something the other does not.
  EXPECT_GT(seenBefore, second.size() / 4);
  EXPECT_GT(newArea, second.size() / 10);
  // Most samples on surfaces both saw are dropped...
  EXPECT_LT(keptSeenBefore * 2, seenBefore);
  // ...while the new surfaces are covered nearly as well as by keeping everything (the kept
  // samples' neighbours had their radii lowered, which costs a little coverage).
  EXPECT_GT(coveragePlain, coverageFirst + 0.05);
  EXPECT_GT(coverageIncremental, coverageFirst + 0.8 * (coveragePlain - coverageFirst));
  EXPECT_LT(added, second.size() * 3 / 4);
}

}  // namespace
}  // namespace LUtils
