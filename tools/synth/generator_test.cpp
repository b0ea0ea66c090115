#include "synth/generator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <vector>

#include "synth/scene.h"

namespace synth {
namespace {

using LUtils::IrradSample;

std::vector<IrradSample> make(uint32_t count, uint64_t seed, int preset, unsigned threads = 0) {
  Params p;
  p.count = count;
  p.seed = seed;
  p.view = presetView(preset);
  p.threads = threads;
  std::vector<IrradSample> out;
  EXPECT_EQ(generate(p, out), static_cast<int64_t>(count));
  return out;
}

TEST(Generator, ExactCountFromAHandfulToManyChunks) {
  for (uint32_t n : {0u, 1u, 5u, 8191u, 8192u, 20001u}) {
    EXPECT_EQ(make(n, 3, 0).size(), n) << n;
  }
}

TEST(Generator, SamplesLieOnVisibleSurfacesFacingTheCamera) {
  const Scene& scene = Scene::room();
  for (int preset = 0; preset < kPresetCount; ++preset) {
    const View view = presetView(preset);
    for (const IrradSample& s : make(5000, 7, preset)) {
      ASSERT_TRUE(scene.onSurface(s.position, s.renderId, 1e-3f))
          << s.renderId << ": " << s.position.x << " " << s.position.y << " " << s.position.z;
      EXPECT_NEAR(length(s.normal), 1.0f, 1e-4f);
      EXPECT_GT(dot(s.normal, view.eye - s.position), 0.0f);
      // Nothing stands between the eye and the sample.
      const Vector to = s.position - view.eye;
      const Hit h = scene.trace(view.eye, to * (1.0f / length(to)));
      EXPECT_NEAR(h.t, length(to), 1e-3f * length(to));
    }
  }
}

TEST(Generator, FieldsAreConsistent) {
  for (const IrradSample& s : make(3000, 11, 0)) {
    const LUtils::Color c = s.decodedColour();
    for (float ch : {c.r, c.g, c.b}) {
      ASSERT_TRUE(std::isfinite(ch));
      ASSERT_GT(ch, 0.0f);
    }
    EXPECT_GT(s.validRadius2, 0.0f);
    EXPECT_GT(s.drawRadius2, s.validRadius2);  // discs 0.2 * sqrt(r2) still cover the spacing
    EXPECT_GT(s.footprint, 0.0f);
    EXPECT_GT(s.hitDistance, 0.0f);
    // Spacing lies between one and eight footprints (rates 0 and -3).
    const float spacing = std::sqrt(s.validRadius2) / s.footprint;
    EXPECT_GE(spacing, 0.999f);
    EXPECT_LE(spacing, 8.001f);
    IrradSample packed = s;
    packed.packNormal();
    EXPECT_EQ(packed.packedNormalZ, s.packedNormalZ);
    EXPECT_EQ(packed.packedNormalAngle, s.packedNormalAngle);
    EXPECT_EQ(s.time, 0.0f);
  }
}

TEST(Generator, PresetsOverlapPartly) {
  const auto a = make(4000, 1, 0);
  const auto b = make(4000, 2, 1);
  int covered = 0;
  for (const IrradSample& s : a) {
    for (const IrradSample& t : b) {
      if (dot(s.normal, t.normal) > 0.9f && lengthSquared(s.position - t.position) < t.validRadius2) {
        ++covered;
        break;
      }
    }
  }
  EXPECT_GT(covered, static_cast<int>(a.size() / 10));
  EXPECT_LT(covered, static_cast<int>(a.size() * 7 / 10));
}

TEST(Generator, RejectsBadParameters) {
  EXPECT_EQ(checkParams(Params{}), "");
  // Eye outside the room, eye inside the chest, looking straight up, no field of view, rates
  // the wrong way round.
  const std::function<void(Params&)> breakers[] = {
      [](Params& p) { p.view.eye = {10, 0, 1}; },
      [](Params& p) { p.view.eye = {-2, 1.5f, 0.4f}; },
      [](Params& p) { p.view.target = p.view.eye + Vector{0, 0, 1}; },
      [](Params& p) { p.view.fovX = 0; },
      [](Params& p) { p.minRate = 1, p.maxRate = 0; }};
  for (const auto& breaker : breakers) {
    Params p;
    breaker(p);
    EXPECT_NE(checkParams(p), "");
    std::vector<IrradSample> out;
    EXPECT_EQ(generate(p, out), -1);
  }
}

TEST(ColourEncoding, SharedExponentRoundTrip) {
  IrradSample s{};
  for (const LUtils::Color c : {LUtils::Color{1.0f, 0.5f, 0.25f}, LUtils::Color{1e-6f, 3e-6f, 2e-6f},
                                LUtils::Color{1000.0f, 1.0f, 999.0f}, LUtils::Color{0.99999f, 0.0f, 0.0f}}) {
    ASSERT_TRUE(encodeColour(c, s));
    const int m = std::max({int{s.colour[0]}, int{s.colour[1]}, int{s.colour[2]}});
    EXPECT_GE(m, 64);
    EXPECT_LE(m, 127);
    const float big = std::max({c.r, c.g, c.b});
    EXPECT_NEAR(s.channel(0), c.r, big / 120.0f);
    EXPECT_NEAR(s.channel(1), c.g, big / 120.0f);
    EXPECT_NEAR(s.channel(2), c.b, big / 120.0f);
  }
  ASSERT_TRUE(encodeColour({0, -1, 0}, s));
  EXPECT_EQ(s.channel(0) + s.channel(1) + s.channel(2), 0.0f);
  EXPECT_FALSE(encodeColour({NAN, 1, 1}, s));
}

TEST(Header, CameraFrameLooksAlongNegativeThirdRow) {
  Params p;
  const IrradianceMapHeader h = makeHeader(p);
  ASSERT_TRUE(h.hasCamera());
  const Vector fwd = LUtils::normalizeNewton(p.view.target - p.view.eye);
  EXPECT_NEAR(h.cameraRotation[6], -fwd.x, 1e-5f);
  EXPECT_NEAR(h.cameraRotation[7], -fwd.y, 1e-5f);
  EXPECT_NEAR(h.cameraRotation[8], -fwd.z, 1e-5f);
  EXPECT_NEAR(h.cameraRotation[5], std::sqrt(1 - fwd.z * fwd.z), 1e-5f);  // up leans to +z
  EXPECT_EQ(h.cameraPosition[0], double{p.view.eye.x});
  EXPECT_FLOAT_EQ(h.cameraTarget, length(p.view.target - p.view.eye));
  EXPECT_FLOAT_EQ(h.cameraFov, p.view.fovX);
  p.cameraInHeader = false;
  EXPECT_FALSE(makeHeader(p).hasCamera());
}

}  // namespace
}  // namespace synth
