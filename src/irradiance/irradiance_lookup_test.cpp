#include "irradiance/irradiance_lookup.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/shading.h"

namespace LUtils {
namespace {

// A sample on the plane z = 0 facing up. With the default settings (a = f, b = 8f, t = 0.16,
// u = 0.1) and these defaults, every point of its region lies within the spacing b = 0.8.
IrradSample planeSample(float x, float y, float radius = 0.5f, float footprint = 0.1f) {
  IrradSample s{};
  s.position = {x, y, 0.0f};
  s.normal = {0.0f, 0.0f, 1.0f};
  s.packNormal();
  s.validRadius2 = radius * radius;
  s.hitDistance = 10.0f;
  s.footprint = footprint;
  s.colour[0] = s.colour[1] = s.colour[2] = 64;
  s.exponent = 129;  // channel = 64 / 64 = 1
  s.flags = 0x10000u | 0x5u;
  s.drawRadius2 = 0.04f;
  s.renderId = -1;
  return s;
}

std::vector<IrradSample> contents(DefIrradianceMap& map) {
  std::vector<IrradSample> out;
  for (size_t i = 0; i < map.samples().size(); ++i) out.push_back(map.samples()[i]);
  return out;
}

bool sameBytes(const IrradSample& a, const IrradSample& b) { return std::memcmp(&a, &b, sizeof a) == 0; }

// A context at p on the plane, looking straight down, with a square footprint f.
ShadeContext contextAt(ThreadData& thread, Vector p, float f) {
  ShadeContext c;
  c.thread = &thread;
  c.position = p;
  c.normal = {0, 0, 1};
  c.direction = {0, 0, -1};
  c.dPdx = {f, 0, 0};
  c.dPdy = {0, f, 0};
  return c;
}

// Records what the lookup asked for and answers with a fixed colour.
class RecordingSampler : public IrradianceSampler {
 public:
  Color compute(Color& result, ShadeContext&, IrradianceMap&, IrradSample& record) override {
    requests.push_back(record);
    record.colour[0] = record.colour[1] = record.colour[2] = 32;
    record.exponent = 129;
    result = {0.5f, 0.5f, 0.5f};
    return result;
  }
  std::vector<IrradSample> requests;
};

TEST(InsertionContext, FrameAroundTheStoredDirection) {
  for (const Vector n : {Vector{0, 0, 1}, Vector{0.6f, 0.0f, -0.8f}, Vector{0.0f, 1.0f, 0.0f},
                         Vector{-0.48f, 0.6f, 0.64f}}) {
    IrradSample s = planeSample(1, 2, 0.5f, 0.25f);
    s.normal = n;
    s.packNormal();
    ThreadData thread;
    const ShadeContext c = makeInsertionContext(s, thread);
    EXPECT_EQ(c.thread, &thread);
    EXPECT_EQ(c.position, s.position);
    const Vector d = s.unpackedNormal();
    EXPECT_EQ(c.direction, d);
    EXPECT_NEAR(length(c.dPdx), 0.25f, 1e-5f);
    EXPECT_NEAR(length(c.dPdy), 0.25f, 1e-4f);
    EXPECT_NEAR(dot(c.dPdx, d), 0.0f, 1e-5f);
    EXPECT_NEAR(dot(c.dPdy, d), 0.0f, 1e-5f);
    EXPECT_NEAR(dot(c.dPdx, c.dPdy), 0.0f, 1e-5f);
    // The lookup sees the footprint the sample was made with.
    EXPECT_NEAR(lookupFootprint(c), 0.25f, 1e-4f);
  }
  // A sheared pixel's footprint follows the longer diagonal, (2, 1, 0) and not (0, -1, 0).
  ShadeContext sheared;
  sheared.dPdx = {1, 0, 0};
  sheared.dPdy = {1, 1, 0};
  EXPECT_FLOAT_EQ(lookupFootprint(sheared), std::sqrt(2.5f));
}

TEST(InsertionSamplers, CopyTheOfferedSampleOrAnswerBlack) {
  DefIrradianceMap map;
  ThreadData thread;
  IrradSample offered = planeSample(3, 4);
  offered.colour[1] = -64;
  ShadeContext c = makeInsertionContext(offered, thread);
  IrradSample record{};
  Color result{9, 9, 9};
  InsertSampleCallback insert(&offered);
  const Color got = insert.compute(result, c, map, record);
  EXPECT_TRUE(sameBytes(record, offered));
  EXPECT_EQ(insert.inserted, 1);
  EXPECT_EQ(result, (Color{1.0f, -1.0f, 1.0f}));
  EXPECT_EQ(got, result);

  NullIrradianceSampler none;
  IrradSample untouched = planeSample(5, 5);
  const IrradSample before = untouched;
  EXPECT_EQ(none.compute(result, c, map, untouched), (Color{0, 0, 0}));
  EXPECT_EQ(result, (Color{0, 0, 0}));
  EXPECT_TRUE(sameBytes(untouched, before));
}

// Every exponent, on both sides of the one (9) where the fast path starts.
TEST(SampleColour, MatchesTheSharedExponentDecoding) {
  IrradSample s{};
  s.colour[0] = 127;
  s.colour[1] = -128;
  s.colour[2] = 1;
  for (int e = 0; e < 256; ++e) {
    s.exponent = static_cast<uint8_t>(e);
    EXPECT_EQ(sampleColour(s), s.decodedColour()) << e;
  }
}

TEST(IncrementalAdd, IntoEmptyMapKeepsEnumerationOrderAndDropsCoveredOnes) {
  DefIrradianceMap source;
  // 0 stored; 1 inside 0; 2 stored; 3 inside 2; 4 just outside 0's region; 5 inside 4.
  const IrradSample offered[] = {planeSample(0, 0), planeSample(0.3f, 0.1f), planeSample(3, 0),
                                 planeSample(3.2f, -0.2f), planeSample(0, 0.55f),
                                 planeSample(0.1f, 0.9f)};
  for (const IrradSample& s : offered) source.appendSample(s);
  DefIrradianceMap target;
  target.prepare(0);
  EXPECT_EQ(target.addSamples(source, nullptr, 1), 0);
  ASSERT_EQ(target.samples().size(), 3u);
  const size_t kept[] = {0, 2, 4};
  for (size_t i = 0; i < 3; ++i) EXPECT_TRUE(sameBytes(target.samples()[i], offered[kept[i]])) << i;
  // After the incremental add the index knows every stored sample.
  EXPECT_EQ(target.kdTree().size(), 3u);
}

TEST(IncrementalAdd, MapIntoPreparedCopyOfItselfAddsNothing) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(-20.0f, 20.0f), r(0.05f, 1.0f);
  DefIrradianceMap source, target;
  for (int i = 0; i < 3000; ++i) {
    // Overlapping regions of every size, and on three different planes.
    IrradSample s = planeSample(u(rng), u(rng), r(rng), 0.001f + r(rng) * 0.01f);
    const float a = s.position.x, b = s.position.y;
    const Vector positions[3] = {{a, b, 0}, {a, 5, b}, {-7, a, b}};
    const Vector normals[3] = {{0, 0, 1}, {0, -1, 0}, {1, 0, 0}};
    s.position = positions[i % 3];
    s.normal = normals[i % 3];
    s.packNormal();
    source.appendSample(s);
    target.appendSample(s);
  }
  target.prepare(0);
  const std::vector<IrradSample> before = contents(target);
  target.addSamples(source, nullptr, 1);
  const std::vector<IrradSample> after = contents(target);
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) ASSERT_TRUE(sameBytes(after[i], before[i])) << i;

  // The same under the multi-reader lock.
  target.setMultiThreaded(1);
  target.addSamples(source, nullptr, 1);
  EXPECT_EQ(target.samples().size(), before.size());
}

TEST(IncrementalAdd, WithoutPreparationTheLookupSeesOnlyWhatItInserted) {
  DefIrradianceMap source, target;
  source.appendSample(planeSample(0, 0));
  target.appendSample(planeSample(0, 0));
  target.addSamples(source, nullptr, 1);
  EXPECT_EQ(target.samples().size(), 2u);
  // Plain adds leave the index alone until the next preparation.
  target.prepare(0);
  target.addSamples(source, nullptr, 0);
  EXPECT_EQ(target.kdTree().size(), 2u);
  EXPECT_EQ(target.samples().size(), 3u);
  target.setMultiThreaded(1);
  target.addSamples(source, nullptr, 0);
  EXPECT_EQ(target.samples().size(), 4u);
}

// The lookup as a renderer calls it.
class Lookup : public ::testing::Test {
 protected:
  void SetUp() override { map.prepare(0); }
  // The lookup of the colour (1, 2, 1) at p with footprint f, or in context c; with the
  // recording sampler unless told otherwise.
  Color at(Vector p, float f, int flags = 0) { return at(contextAt(thread, p, f), flags); }
  Color at(ShadeContext c, int flags = 0, bool withSampler = true) {
    ShadeData shade;
    if (withSampler) shade.sampler = &sampler;
    return map.irradiance(thread, c, shade, Color{1.0f, 2.0f, 1.0f}, flags);
  }
  IrradSample* store(const IrradSample& s) {
    IrradSample* stored = map.appendSample(s);
    map.kdTree().insert(*stored);
    return stored;
  }
  uint32_t reason(size_t request) const {
    return (sampler.requests.at(request).flags & IrradSample::kReasonMask) >> IrradSample::kReasonShift;
  }

  DefIrradianceMap map;
  ThreadData thread;
  RecordingSampler sampler;
};

TEST_F(Lookup, CoveredPointsAreInterpolated) {
  IrradSample a = planeSample(0, 0);
  IrradSample b = planeSample(0.4f, 0);
  b.colour[0] = 0;
  store(a);
  store(b);
  // At a's position only a... and b (distance 0.4 < 0.5) qualify; a weighs far more.
  const Color c = at({0.0f, 0.0f, 0.0f}, 0.1f);
  EXPECT_TRUE(sampler.requests.empty());
  EXPECT_EQ(map.samples().size(), 2u);
  // Weights: a 1, b 1 - 0.4/0.5 = 0.2; red 1 and 0, green and blue 1; times the colour (1,2,1).
  EXPECT_NEAR(c.r, 1.0f / 1.2f, 1e-5f);
  EXPECT_NEAR(c.g, 2.0f, 1e-5f);
  EXPECT_NEAR(c.b, 1.0f, 1e-5f);
}

TEST_F(Lookup, OnlySamplesInTheTangentPlaneQualify) {
  store(planeSample(0, 0));
  at({0.1f, 0.0f, 1e-3f}, 0.1f);  // slightly above the plane
  ASSERT_EQ(sampler.requests.size(), 1u);
  IrradSample facing = planeSample(5, 0);
  facing.normal = {0, 0, -1};  // the other side of a thin sheet: qualifies, weighs nothing
  store(facing);
  EXPECT_EQ(at({5.1f, 0.0f, 0.0f}, 0.1f), (Color{1.0f, 2.0f, 1.0f}));  // plain mean of 0 weights
  IrradSample front = planeSample(5.2f, 0);
  front.colour[0] = 0;
  store(front);
  EXPECT_EQ(at({5.1f, 0.0f, 0.0f}, 0.1f), (Color{0.0f, 2.0f, 1.0f}));  // the front side's alone
  EXPECT_EQ(sampler.requests.size(), 1u);
}

TEST_F(Lookup, NewSampleRecordAndReasonCodes) {
  // Nothing found: the upper spacing b decides (code 3), and the new sample gets it as radius.
  ShadeContext c = contextAt(thread, {1, 2, 0}, 0.1f);
  c.sampleFlags = 0xABC;
  c.time = 0.75f;
  EXPECT_EQ(at(c), (Color{0.5f, 1.0f, 0.5f}));  // what the sampler computed, times the colour
  ASSERT_EQ(sampler.requests.size(), 1u);
  const IrradSample& r = sampler.requests[0];
  EXPECT_EQ(r.position, (Vector{1, 2, 0}));
  EXPECT_EQ(r.normal, (Vector{0, 0, 1}));
  EXPECT_NEAR(r.validRadius2, 0.64f, 1e-6f);
  EXPECT_EQ(r.flags, 0xABCu | (3u << 13));
  EXPECT_EQ(r.packedNormalZ, 0);  // the ray direction (0, 0, -1)
  EXPECT_EQ(r.packedNormalAngle, 32767);  // atan2(0, 0) = 0 -> floor(0.5 * 65535)
  EXPECT_EQ(r.time, 0.75f);
  ASSERT_EQ(map.samples().size(), 1u);
  EXPECT_EQ(map.samples()[0].colour[0], 32);  // what the sampler computed is stored
  EXPECT_EQ(map.kdTree().size(), 1u);

  // A neighbour close to the scene (small harmonic distance): the colour limit decides (code 4).
  IrradSample near = planeSample(10, 0, 2.0f);
  near.hitDistance = 0.5f;  // 1/g = 0.5 / (1/0.16 - 1) = 0.095
  store(near);
  at({10.5f, 0, 0}, 0.05f);  // a = 0.05 below the limit, which becomes the radius
  ASSERT_EQ(sampler.requests.size(), 2u);
  EXPECT_EQ(reason(1), 4u);
  EXPECT_NEAR(sampler.requests[1].validRadius2, 0.0952381f * 0.0952381f, 1e-6f);

  // A bright neighbour: the intensity limit decides (code 5).
  IrradSample bright = planeSample(20, 0, 2.0f);
  bright.hitDistance = 1000.0f;
  bright.exponent = 136;  // channels of 128: limit = 0.9 * (1000 + 0.1) / (0.2 * 128) = 35.2
  store(bright);
  at({21.0f, 0, 0}, 0.1f);  // b = 0.8 wins over 35.2: covered? no, 1.0 > 0.8
  ASSERT_EQ(sampler.requests.size(), 3u);
  EXPECT_EQ(reason(2), 3u);
  bright.hitDistance = 1.0f;
  bright.position = {30, 0, 0};
  store(bright);  // colour limit 0.19, intensity limit 0.9 * (1 + 0.01) / 25.6 = 0.0355
  at({30.5f, 0, 0}, 0.01f);
  ASSERT_EQ(sampler.requests.size(), 4u);
  EXPECT_EQ(reason(3), 5u);
  EXPECT_NEAR(sampler.requests[3].validRadius2, 0.0355078f * 0.0355078f, 1e-7f);
}

// A zero colour threshold leaves only the lower spacing a = f, which the new sample gets as its
// radius (code 4); even a far smaller footprint never samples the same point again.
TEST_F(Lookup, ZeroColourThresholdSamplesAtTheLowerSpacingButNotTwiceAtAPoint) {
  map.header()->colorThreshold = 0.0f;
  store(planeSample(0, 0));
  at({0.05f, 0, 0}, 0.01f);  // a = 0.01 < 0.05: not covered
  ASSERT_EQ(sampler.requests.size(), 1u);
  EXPECT_EQ(reason(0), 4u);
  EXPECT_NEAR(sampler.requests[0].validRadius2, 0.0001f, 1e-9f);
  at({0.055f, 0, 0}, 0.01f);  // within a of the new sample: covered
  at({5e-5f, 0, 0}, 1e-6f);  // squared distance 2.5e-9 from the first: the same point
  EXPECT_EQ(sampler.requests.size(), 1u);
  at({2e-4f, 0, 0}, 1e-6f);  // 4e-8: a new point, not covered
  EXPECT_EQ(sampler.requests.size(), 2u);
}

TEST_F(Lookup, CreationCanBeForbidden) {
  at({0, 0, 0}, 0.1f, kLookupNoNewSamples);
  ShadeContext c = contextAt(thread, {0, 0, 0}, 0.1f);
  c.allowNewSamples = false;
  EXPECT_EQ(at(c), (Color{0, 0, 0}));
  c.allowNewSamples = true;
  at(c, 0, false);  // no sampler
  EXPECT_TRUE(sampler.requests.empty());
  EXPECT_EQ(map.samples().size(), 0u);
}

TEST_F(Lookup, NeighboursAreClampedToTheNewSample) {
  IrradSample* wide = store(planeSample(0, 0, 1.0f));
  IrradSample* other = store(planeSample(0.9f, 0, 0.2f));
  at({0.5f, 0, 0}, 0.01f);  // b = 0.08: not covered by wide's centre 0.5 away
  ASSERT_EQ(sampler.requests.size(), 1u);
  const float r = 0.08f;  // the new sample's radius
  EXPECT_NEAR(wide->validRadius2, (0.5f + r) * (0.5f + r), 1e-5f);
  EXPECT_NEAR(other->validRadius2, 0.04f, 1e-7f);  // did not contain the point: untouched
  // The map's query follows the lowered radius.
  struct Count : StoreCB {
    void store(IrradSample&) override { ++n; }
    int n = 0;
  } inside, outside;
  map.querySamples({-0.55f, 0, 0}, inside);
  map.querySamples({-0.6f, 0, 0}, outside);
  EXPECT_EQ(inside.n, 1);
  EXPECT_EQ(outside.n, 0);
}

}  // namespace
}  // namespace LUtils
