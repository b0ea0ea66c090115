// The batch tool's incremental merge, end to end: what it prints, and which samples the written map
// keeps.
#include <algorithm>
#include <string>
#include <vector>

#include "cli_fixture.h"

namespace cvtest {
namespace {

using LUtils::IrradSample;

// A sample on the plane z = -1, facing up, with a validity radius of 0.5 and a footprint of 0.1,
// so that the default spacing rules cover every point of its validity region.
IrradSample planeSample(float x, float y, uint8_t shade) {
  IrradSample s = makeSample({x, y, -1.0f}, shade, shade, shade);
  s.footprint = 0.1f;
  s.hitDistance = 10.0f;
  return s;
}

// The target as the preparation leaves it: a map that keeps no render IDs has them clamped
// into -1..0.
std::vector<IrradSample> prepared(std::vector<IrradSample> samples) {
  for (IrradSample& s : samples) s.renderId = std::clamp(s.renderId, -1, 0);
  return samples;
}

class Incremental : public CliTest {};

TEST_F(Incremental, KeepsOnlySamplesOutsideTheTargetsRegions) {
  const std::vector<IrradSample> a = {planeSample(0, 0, 1), planeSample(2, 0, 2),
                                      planeSample(4, 0, 3)};
  const std::vector<IrradSample> b = {planeSample(0.3f, 0, 4), planeSample(1, 0, 5),
                                      planeSample(4.2f, 0.1f, 6), planeSample(10, 0, 7)};
  writeMap("a.lumap", a);
  writeMap("b.lumap", b);
  expectRun({"-incremental", "-load", "a.lumap", "-load", "b.lumap", "-save",
                           "c.lumap", "-nodisplay"}, 0,
            "Loaded irradiance map file \"a.lumap\"\n"
            "Loaded irradiance map file \"b.lumap\"\n"
            "Incrementally adding samples...\rIncrementally adding samples...25.00"
            "\rIncrementally adding samples...50.00\rIncrementally adding samples...75.00"
            "\rIncrementally adding samples...100.00\rIncrementally adding samples...done      \n"
            "Saved irradiance map file \"c.lumap\"\n");
  const std::vector<IrradSample> c = readMap("c.lumap");
  ASSERT_EQ(c.size(), 5u);
  const std::vector<IrradSample> target = prepared(a);
  const IrradSample expected[] = {target[0], target[1], target[2], b[1], b[3]};
  for (size_t i = 0; i < c.size(); ++i) EXPECT_TRUE(sameBytes(c[i], expected[i])) << i;
}

TEST_F(Incremental, AMapMergedIntoItselfAddsNothing) {
  std::vector<IrradSample> a;
  for (int i = 0; i < 50; ++i) a.push_back(planeSample(0.25f * i, 0.1f * (i % 7), 1));
  writeMap("a.lumap", a);
  const RunResult r = run({"-incremental", "-load", "a.lumap", "-load", "a.lumap", "-load",
                           "a.lumap", "-save", "c.lumap", "-nodisplay"});
  EXPECT_EQ(r.status, 0);
  const std::vector<IrradSample> c = readMap("c.lumap");
  ASSERT_EQ(c.size(), a.size());
  const std::vector<IrradSample> target = prepared(a);
  for (size_t i = 0; i < c.size(); ++i) EXPECT_TRUE(sameBytes(c[i], target[i])) << i;
}

TEST_F(Incremental, OldSourceIsAddedWhole) {
  const std::vector<IrradSample> a = {planeSample(0, 0, 1)};
  // Both lie inside the first sample's region: an incremental add would drop them.
  const std::vector<IrradSample> old = {planeSample(0.1f, 0, 2), planeSample(0.2f, 0, 3)};
  writeMap("a.lumap", a);
  writeMap("old.lumap", old, IrradFormat::kVersionHeaderC);
  writeMap("new.lumap", old);
  expectRun({"-incremental", "-load", "a.lumap", "-load", "old.lumap", "-load",
                           "new.lumap", "-save", "c.lumap", "-nodisplay"}, 0,
            "Loaded irradiance map file \"a.lumap\"\n"
            "Loaded irradiance map file \"old.lumap\"\n"
            "Warning: This irradiance map does not support incremental add, will add all "
            "samples\n"
            "Adding samples...\rAdding samples...50.00\rAdding samples...100.00"
            "\rAdding samples...done      \n"
            "Loaded irradiance map file \"new.lumap\"\n"
            "Incrementally adding samples...\rIncrementally adding samples...50.00"
            "\rIncrementally adding samples...100.00\rIncrementally adding samples...done      \n"
            "Saved irradiance map file \"c.lumap\"\n");
  // The target is prepared before the first incremental merge, so it indexes the old map's
  // samples too, and the new map's copies of them are the same points.
  EXPECT_EQ(readMap("c.lumap").size(), 3u);
}

}  // namespace
}  // namespace cvtest
