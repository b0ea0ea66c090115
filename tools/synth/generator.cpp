#include "synth/generator.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "synth/sampling.h"
#include "synth/scene.h"

namespace synth {

using LUtils::Color;
using LUtils::IrradSample;
using detail::Frame;
using detail::makeFrame;
using detail::Rng;

namespace {

constexpr uint64_t kPilotStream = 0x5eed0f9110ull;
constexpr uint32_t kChunkSamples = 8192;  // samples per independently seeded chunk
constexpr int kPilotX = 128, kPilotY = 64;  // harmonic-distance pilot grid
constexpr int kTilesX = 256, kTilesY = 192;  // tiles of the candidate distribution
constexpr int kPilotPerTile = 4;
// Spacing wanted where it is not clamped: this fraction of the harmonic-mean distance.
constexpr float kSpacingFactor = 0.08f;
// Disc radius for drawing relative to the local mean spacing; 0.8 covers a random
// (Poisson-like) spread of samples with few gaps and moderate overlap.
constexpr float kDiscCover = 0.85f;

// Walker's alias method: draws index i with probability weight[i] / sum in constant time.
class AliasTable {
 public:
  AliasTable() = default;
  explicit AliasTable(const std::vector<double>& weights) {
    const size_t n = weights.size();
    double sum = 0;
    for (double w : weights) sum += w;
    prob_.assign(n, 1.0f);
    alias_.resize(n);
    std::vector<double> scaled(n);
    std::vector<uint32_t> small, large;
    for (size_t i = 0; i < n; ++i) {
      alias_[i] = static_cast<uint32_t>(i);
      scaled[i] = weights[i] * static_cast<double>(n) / sum;
      (scaled[i] < 1.0 ? small : large).push_back(static_cast<uint32_t>(i));
    }
    while (!small.empty() && !large.empty()) {
      const uint32_t s = small.back(), l = large.back();
      small.pop_back();
      prob_[s] = static_cast<float>(scaled[s]);
      alias_[s] = l;
      scaled[l] -= 1.0 - scaled[s];
      if (scaled[l] < 1.0) {
        large.pop_back();
        small.push_back(l);
      }
    }
  }
  int pick(Rng& rng) const {
    const uint64_t x = uint64_t{rng.next()} * prob_.size();
    const auto i = static_cast<size_t>(x >> 32);
    const float f = static_cast<float>(static_cast<uint32_t>(x)) * (1.0f / 4294967296.0f);
    return static_cast<int>(f < prob_[i] ? i : alias_[i]);
  }

 private:
  std::vector<float> prob_;
  std::vector<uint32_t> alias_;
};

// Spacing rules shared by the planning pilot and the generation: ratio = spacing wanted in
// units of the unit-distance pixel (a * distance / t); c = the spacing in effective pixels.
struct Spacing {
  float cMin = 1, cMax = 8;
  float psi = 1;  // effective pixel size at unit distance

  float pixels(float ratio) const { return std::clamp(ratio / psi, cMin, cMax); }
  // Acceptance relative to the densest spacing.
  float accept(float ratio) const {
    const float k = cMin / pixels(ratio);
    return k * k;
  }
};

// Everything generation needs, computed once per call.
struct Planner {
  const Scene& scene = Scene::room();
  Frame frame;
  Spacing spacing;
  AliasTable tiles;              // tiles drawn in proportion to their bound
  std::vector<float> tileBound;  // bound of the clearance acceptance per tile
  bool sees = false;

  explicit Planner(const Params& p) {
    frame = makeFrame(p);
    spacing.cMin = std::ldexp(1.0f, -p.maxRate);
    spacing.cMax = std::ldexp(1.0f, -p.minRate);

    // Pilot: the harmonic distances seen over a stratified grid of the image decide the
    // effective pixel size.
    std::vector<float> ratios;  // a * harmonic distance / t; -1 where no surface is seen
    ratios.reserve(kPilotX * kPilotY);
    Rng rng(p.seed, kPilotStream);
    for (int cell = 0; cell < kPilotX * kPilotY; ++cell) {
      const float u = (static_cast<float>(cell % kPilotX) + rng.uniform()) / kPilotX;
      const float v = (static_cast<float>(cell / kPilotX) + rng.uniform()) / kPilotY;
      const Vector dir = LUtils::normalizeNewton(frame.direction(u, v));
      const Hit h = scene.trace(frame.eye, dir);
      if (h.kind != HitKind::kSurface) {
        ratios.push_back(-1.0f);
        continue;
      }
      const float harmonic = detail::harmonicDistance(scene, h.point, h.normal, rng);
      ratios.push_back(kSpacingFactor * harmonic / h.t);
      sees = true;
    }
    if (!sees) return;

    // The expected count over the image is
    // area / psi^2 * E[(1 / clamp(ratio / psi, cMin, cMax))^2], decreasing in psi.
    auto expected = [&](double psi) {
      double sum = 0;
      for (const float r : ratios) {
        if (r < 0) continue;
        const double c = std::clamp(r / psi, double{spacing.cMin}, double{spacing.cMax});
        sum += 1.0 / (c * c);
      }
      return frame.imageArea() / (psi * psi) * sum / static_cast<double>(ratios.size());
    };
    const double want = std::max<double>(p.count, 1);
    double lo = 1e-12, hi = 1e3;
    for (int i = 0; i < 100; ++i) {
      const double mid = std::sqrt(lo * hi);
      (expected(mid) > want ? lo : hi) = mid;
    }
    spacing.psi = static_cast<float>(std::sqrt(lo * hi));

    // The clearance acceptance (cheap: no rays) over a fine grid of tiles.
    std::vector<float> tileMax(kTilesX * kTilesY, 0.0f);
    for (int tile = 0; tile < kTilesX * kTilesY; ++tile) {
      for (int k = 0; k < kPilotPerTile; ++k) {
        const float u = (static_cast<float>(tile % kTilesX) + rng.uniform()) / kTilesX;
        const float v = (static_cast<float>(tile / kTilesX) + rng.uniform()) / kTilesY;
        const Vector dir = LUtils::normalizeNewton(frame.direction(u, v));
        const Hit h = scene.trace(frame.eye, dir);
        if (h.kind != HitKind::kSurface) continue;
        const float clear = scene.clearance(h.point, h.object, h.face);
        tileMax[tile] = std::max(tileMax[tile], spacing.accept(kSpacingFactor * clear / h.t));
      }
    }

    // Tile bounds of the clearance acceptance: the largest the pilot saw in the tile and its
    // neighbours, with a margin, so that a thin contact line the pilot missed is still sampled
    // densely enough. Should the pilot have missed every surface, all tiles are drawn alike.
    tileBound.assign(tileMax.size(), 0.0f);
    std::vector<double> weights(tileMax.size());
    for (int ty = 0; ty < kTilesY; ++ty) {
      for (int tx = 0; tx < kTilesX; ++tx) {
        float m = 0;
        for (int dy = -1; dy <= 1; ++dy) {
          for (int dx = -1; dx <= 1; ++dx) {
            const int x = tx + dx, y = ty + dy;
            if (x >= 0 && x < kTilesX && y >= 0 && y < kTilesY) {
              m = std::max(m, tileMax[y * kTilesX + x]);
            }
          }
        }
        const int t = ty * kTilesX + tx;
        tileBound[t] = std::min(1.0f, 1.5f * m);
        weights[t] = tileBound[t];
      }
    }
    if (*std::max_element(tileBound.begin(), tileBound.end()) <= 0.0f) {
      std::fill(tileBound.begin(), tileBound.end(), 1.0f);
      std::fill(weights.begin(), weights.end(), 1.0);
    }
    tiles = AliasTable(weights);
  }

  int pickTile(Rng& rng) const { return tiles.pick(rng); }

  // Produces `count` samples of chunk `chunk` into out (cleared first).
  void generateChunk(uint64_t seed, uint64_t chunk, uint32_t count,
                     std::vector<IrradSample>& out) const {
    out.clear();
    Rng rng(seed, chunk);
    while (out.size() < count) {
      const int tile = pickTile(rng);
      const float u = (static_cast<float>(tile % kTilesX) + rng.uniform()) / kTilesX;
      const float v = (static_cast<float>(tile / kTilesX) + rng.uniform()) / kTilesY;
      const Vector dir = LUtils::normalizeNewton(frame.direction(u, v));
      const Hit h = scene.trace(frame.eye, dir);
      if (h.kind != HitKind::kSurface) continue;

      // Two-stage rejection: the clearance bounds the harmonic distance from below, so its
      // acceptance bounds the final one from above and most candidates cost no extra rays.
      const float footprint = h.t * spacing.psi;
      const float acceptClear =
          spacing.accept(kSpacingFactor * scene.clearance(h.point, h.object, h.face) / h.t);
      if (rng.uniform() * tileBound[tile] >= acceptClear) continue;
      const float harmonic = detail::harmonicDistance(scene, h.point, h.normal, rng);
      const float c = spacing.pixels(kSpacingFactor * harmonic / h.t);
      const float acceptHarmonic = (spacing.cMin / c) * (spacing.cMin / c);
      if (rng.uniform() * acceptClear >= acceptHarmonic) continue;

      IrradSample s{};
      s.position = h.point;
      s.normal = h.normal;
      s.packNormal();
      const float radius = c * footprint;
      s.validRadius2 = radius * radius;
      s.hitDistance = harmonic;
      s.footprint = footprint;
      const float cosView = std::max(std::fabs(dot(h.normal, dir)), 0.1f);
      const float disc = kDiscCover * radius / std::sqrt(cosView);
      s.drawRadius2 = (disc / 0.2f) * (disc / 0.2f);
      s.flags = (c >= spacing.cMax ? 3u : 4u) << IrradSample::kReasonShift;
      s.renderId = h.object;

      encodeColour(detail::lightingAt(scene, h.point, h.normal, harmonic, rng).total(), s);
      out.push_back(s);
    }
  }
};

bool finite(const Vector& v) { return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z); }

}  // namespace

View presetView(int index) {
  View v;
  if (index == 1) {
    v.eye = {-0.6f, -2.5f, 1.6f};
    v.target = {-2.4f, 1.6f, 0.7f};
  } else {
    v.eye = {-3.4f, -2.4f, 1.7f};
    v.target = {1.2f, 0.9f, 0.7f};
  }
  return v;
}

std::string checkParams(const Params& p) {
  if (p.count > static_cast<uint32_t>(std::numeric_limits<int32_t>::max())) {
    return "sample count too large (at most 2147483647)";
  }
  if (p.imageWidth < 1 || p.imageHeight < 1 || p.imageWidth > 1000000 ||
      p.imageHeight > 1000000) {
    return "image size must be between 1 and 1000000 pixels each way";
  }
  if (!(p.view.fovX > 0.001f && p.view.fovX < 3.1f)) {
    return "field of view must lie between 0.06 and 177 degrees";
  }
  if (!finite(p.view.eye) || !finite(p.view.target) || !finite(p.view.up)) {
    return "camera coordinates must be finite numbers";
  }
  if (!Scene::room().isFreeSpace(p.view.eye)) {
    return "the eye must be inside the room (x -4..4, y -3..3, z 0..3) and outside the furniture";
  }
  const Vector fwd = p.view.target - p.view.eye;
  if (lengthSquared(fwd) < 1e-8f) return "the target must differ from the eye";
  if (lengthSquared(cross(LUtils::normalizeNewton(fwd), p.view.up)) < 1e-8f) {
    return "the view direction must not be parallel to the up axis";
  }
  if (p.minRate > p.maxRate || p.minRate < -16 || p.maxRate > 16) {
    return "rates must satisfy -16 <= min rate <= max rate <= 16";
  }
  return {};
}

bool encodeColour(const Color& c, IrradSample& s) {
  const float ch[3] = {std::max(c.r, 0.0f), std::max(c.g, 0.0f), std::max(c.b, 0.0f)};
  if (!std::isfinite(ch[0]) || !std::isfinite(ch[1]) || !std::isfinite(ch[2])) return false;
  const float m = std::max({ch[0], ch[1], ch[2]});
  s.colour[0] = s.colour[1] = s.colour[2] = 0;
  s.exponent = 0;
  if (m <= 0.0f) return true;
  int ex = 0;
  std::frexp(m, &ex);  // m = f * 2^ex with f in [0.5, 1): mantissa f * 128
  int e = ex + 128;
  if (e < 0) return true;  // below what the encoding can hold: black
  for (;;) {
    const int shift = std::min(e, 255) - 135;
    long mant[3];
    bool fits = true;
    for (int i = 0; i < 3; ++i) {
      mant[i] = std::lround(std::ldexp(ch[i], -shift));
      if (mant[i] > 127) fits = false;
    }
    if (!fits && e < 255) {
      ++e;  // rounding reached 128
      continue;
    }
    for (int i = 0; i < 3; ++i) s.colour[i] = static_cast<int8_t>(std::min(mant[i], 127L));
    s.exponent = static_cast<uint8_t>(std::min(e, 255));
    return true;
  }
}

IrradianceMapHeader makeHeader(const Params& p) {
  IrradianceMapHeader h;
  h.minRate = p.minRate;
  h.maxRate = p.maxRate;
  auto scale = [](int rate) {
    return rate >= 0 ? 1.0f / static_cast<float>(1u << (rate & 31))
                     : static_cast<float>(1u << ((-rate) & 31));
  };
  h.minRateScale = scale(p.minRate);
  h.maxRateScale = scale(p.maxRate);
  h.containsRenderIds = p.renderIdsInHeader ? 1 : 0;
  if (p.cameraInHeader) {
    const Frame f = makeFrame(p);
    const Vector rows[3] = {f.right, f.up, -f.forward};
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) h.cameraRotation[3 * r + c] = rows[r][c];
    }
    h.cameraFlags = IrradianceMapHeader::kCameraPresent;
    h.cameraPosition[0] = p.view.eye.x;
    h.cameraPosition[1] = p.view.eye.y;
    h.cameraPosition[2] = p.view.eye.z;
    h.cameraFov = p.view.fovX;
    h.cameraTarget = length(p.view.target - p.view.eye);
  }
  return h;
}

Plan planFor(const Params& params) {
  Plan plan;
  if (!checkParams(params).empty()) return plan;
  const Planner planner(params);
  if (!planner.sees) return plan;
  plan.pixelAngle = planner.spacing.psi;
  plan.effectiveWidth = static_cast<int>(std::lround(2.0 * planner.frame.tanX / plan.pixelAngle));
  plan.effectiveHeight = static_cast<int>(std::lround(2.0 * planner.frame.tanY / plan.pixelAngle));
  return plan;
}

int64_t generate(const Params& params, SampleSink& sink) {
  if (!checkParams(params).empty()) return -1;
  if (params.count == 0) return 0;
  const Planner planner(params);
  if (!planner.sees) return -1;

  const uint64_t chunks = (uint64_t{params.count} + kChunkSamples - 1) / kChunkSamples;
  auto chunkSize = [&](uint64_t c) {
    return static_cast<uint32_t>(std::min<uint64_t>(kChunkSamples, params.count - c * kChunkSamples));
  };
  int64_t delivered = 0;
  detail::runChunks<IrradSample>(
      chunks, params.threads, kChunkSamples,
      [&](uint64_t c, std::vector<IrradSample>& out) {
        planner.generateChunk(params.seed, c, chunkSize(c), out);
      },
      [&](const std::vector<IrradSample>& out) {
        if (!sink.append(out.data(), out.size())) return false;
        delivered += static_cast<int64_t>(out.size());
        return true;
      });
  return delivered;
}

int64_t generate(const Params& params, std::vector<IrradSample>& out) {
  struct VectorSink : SampleSink {
    std::vector<IrradSample>& v;
    explicit VectorSink(std::vector<IrradSample>& target) : v(target) {}
    bool append(const IrradSample* s, size_t n) override {
      v.insert(v.end(), s, s + n);
      return true;
    }
  } sink(out);
  out.reserve(out.size() + params.count);
  return generate(params, sink);
}

}  // namespace synth
