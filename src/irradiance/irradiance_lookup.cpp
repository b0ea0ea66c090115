#include "irradiance/irradiance_lookup.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

#include "irradiance/def_irradiance_map.h"
#include "irradiance/sample_kdtree.h"
#include "threads/multi_reader_lock.h"

namespace LUtils {

namespace {

constexpr float kSamePointDistance2 = 1e-8f;
constexpr float kTiny = 1e-12f;

// Packs a unit direction into the two 16-bit direction fields, as IrradSample::packNormal does
// for the normal.
void packDirection(const Vector& d, IrradSample& s) {
  s.packedNormalZ = IrradSample::packUnit(d.z * 0.5f + 0.5f);
  s.packedNormalAngle = IrradSample::packUnit(std::atan2(d.y, d.x) * 0.5f / 3.1415927f + 0.5f);
}

// Holds the read side of the map's lock while the map is multi-threaded.
class ReadGuard {
 public:
  ReadGuard(DefIrradianceMap& map, uint32_t thread)
      : lock_(map.multiThreaded() ? &map.multiReaderLock() : nullptr), thread_(thread) {
    if (lock_) lock_->readLock(thread_);
  }
  ~ReadGuard() { release(); }
  void release() {
    if (lock_) lock_->readUnlock(thread_);
    lock_ = nullptr;
  }

 private:
  MultiReaderLock* lock_;
  uint32_t thread_;
};

}  // namespace

Color sampleColour(const IrradSample& s) {
  // 2^(e - 135) is a normal float for e >= 9; build it from its bits. Exact either way.
  const float scale = s.exponent >= 9
                          ? std::bit_cast<float>(static_cast<uint32_t>(s.exponent - 8) << 23)
                          : std::ldexp(1.0f, int{s.exponent} - 135);
  return {s.colour[0] * scale, s.colour[1] * scale, s.colour[2] * scale};
}

LookupSettings LookupSettings::fromHeader(const IrradianceMapHeader& h) {
  LookupSettings s;
  s.lowerFactor = h.maxRateScale;
  s.upperFactor = h.minRateScale;
  s.colorThreshold = h.colorThreshold;
  s.intensityThreshold = h.distanceThreshold;
  return s;
}

float lookupFootprint(const ShadeContext& c) {
  const float d1 = lengthSquared(c.dPdx + c.dPdy);
  const float d2 = lengthSquared(c.dPdx - c.dPdy);
  return std::sqrt(std::max(d1, d2) * 0.5f);
}

void collectCandidates(const SampleKdTree& tree, const ShadeContext& context,
                       const LookupSettings& settings, std::vector<LookupCandidate>& out,
                       const InsertionGrid::CellBatch* later) {
  const Vector p = context.position;
  const Vector n = context.normal;
  const float w = settings.normalStretch;
  tree.forEachContaining(p, later, [&](IrradSample& s) {
    LookupCandidate c;
    if (testCandidate(s, p, n, w, c)) out.push_back(c);
  });
}

void collectCandidates(const SampleKdTree& tree, const ShadeContext& context,
                       const LookupSettings& settings,
                       std::span<const SampleKdTree::TreeHit> treeHits,
                       std::vector<LookupCandidate>& out, const InsertionGrid::Unlisted* later,
                       const SampleKdTree::Probe* probe) {
  const Vector p = context.position;
  const Vector n = context.normal;
  const float w = settings.normalStretch;
  tree.forEachContaining(p, treeHits, later, probe, [&](IrradSample& s) {
    LookupCandidate c;
    if (testCandidate(s, p, n, w, c)) out.push_back(c);
  });
}

SpacingDecision decideSpacing(const LookupSettings& settings, float f,
                              const std::vector<LookupCandidate>& candidates) {
  SpacingDecision d;
  d.footprint = f;
  d.lower = settings.lowerFactor * f;
  d.bound = settings.upperFactor * f;
  d.reason = kReasonUpperSpacing;
  d.nearestDistance2 = std::numeric_limits<float>::infinity();

  double weightSum = 0.0, errorSum = 0.0, plainErrorSum = 0.0, intensitySum = 0.0;
  for (const LookupCandidate& c : candidates) {
    if (c.distance2 < d.nearestDistance2 || !d.nearest) {
      d.nearestDistance2 = c.distance2;
      d.nearest = &c;
    }
    const float r = std::max(c.sample->hitDistance, kTiny);
    weightSum += c.weight;
    errorSum += c.weight / r;
    plainErrorSum += 1.0 / r;
    const Color col = sampleColour(*c.sample);
    intensitySum += (col.r + col.g + col.b) * 0.33333334f;
  }
  if (!candidates.empty()) {
    const double count = static_cast<double>(candidates.size());
    d.errorRate = static_cast<float>(weightSum > 0.0 ? errorSum / weightSum : plainErrorSum / count);
    d.intensity = static_cast<float>(intensitySum / count);
  }

  // Colour limit: the distance over which the estimated error grows to the threshold.
  const float t = settings.colorThreshold;
  if (t >= kTiny) {
    const float g = d.errorRate * (1.0f / t - 1.0f);
    if (g >= kTiny && 1.0f / g < d.bound) {
      d.bound = 1.0f / g;
      d.reason = kReasonColour;
    }
  } else {
    d.bound = 1e-6f;
    d.reason = kReasonColour;
  }
  // Intensity limit: bright surroundings ask for closer samples.
  const float u = settings.intensityThreshold;
  if (u > 1e-6f && d.intensity > 1e-8f && d.nearest) {
    const float limit =
        (1.0f - u) * (d.nearest->sample->hitDistance + f) / (u * 2.0f * d.intensity);
    if (limit < d.bound) {
      d.bound = limit;
      d.reason = kReasonIntensity;
    }
  }

  const float s = std::max(d.lower, d.bound);
  const float nd2 = d.nearestDistance2;
  d.covered = !(nd2 > s * s && nd2 >= d.lower * d.lower);
  d.samePoint = d.nearest && nd2 < kSamePointDistance2;
  return d;
}

Color interpolateColour(const std::vector<LookupCandidate>& candidates) {
  if (candidates.empty()) return {};
  double sum[3] = {0, 0, 0}, weightSum = 0;
  for (const LookupCandidate& c : candidates) {
    const Color col = sampleColour(*c.sample);
    sum[0] += c.weight * col.r;
    sum[1] += c.weight * col.g;
    sum[2] += c.weight * col.b;
    weightSum += c.weight;
  }
  if (!(weightSum > 0.0)) {
    sum[0] = sum[1] = sum[2] = 0.0;
    for (const LookupCandidate& c : candidates) {
      const Color col = sampleColour(*c.sample);
      sum[0] += col.r;
      sum[1] += col.g;
      sum[2] += col.b;
    }
    weightSum = static_cast<double>(candidates.size());
  }
  return {static_cast<float>(sum[0] / weightSum), static_cast<float>(sum[1] / weightSum),
          static_cast<float>(sum[2] / weightSum)};
}

Color irradianceLookup(DefIrradianceMap& map, ThreadData& thread, ShadeContext& context,
                       ShadeData& shade, const Color& color, int flags) {
  // One candidate list per thread, reused from lookup to lookup.
  thread_local std::vector<LookupCandidate> candidates;
  candidates.clear();

  const LookupSettings settings = LookupSettings::fromHeader(*map.header());
  const uint32_t threadIndex = context.thread ? context.thread->threadIndex : thread.threadIndex;
  ReadGuard read(map, threadIndex);
  collectCandidates(map.kdTree(), context, settings, candidates);
  const SpacingDecision decision =
      decideSpacing(settings, lookupFootprint(context), candidates);

  if (!createsSample(decision, context, shade, flags)) {
    if (flags & kLookupColourUnused) return {};
    const Color c = interpolateColour(candidates);
    return {c.r * color.r, c.g * color.g, c.b * color.b};
  }
  // The sampler may take long (a renderer traces rays here): it runs without the lock. The
  // neighbours stay where they are, since samples never move.
  read.release();
  Color result;
  createSample(map, threadIndex, context, shade, decision, candidates, result);
  return {result.r * color.r, result.g * color.g, result.b * color.b};
}

bool createsSample(const SpacingDecision& decision, const ShadeContext& context,
                   const ShadeData& shade, int flags) {
  return !decision.samePoint && !decision.covered && context.allowNewSamples &&
         !(flags & kLookupNoNewSamples) && shade.sampler;
}

IrradSample* createSample(DefIrradianceMap& map, uint32_t threadIndex, ShadeContext& context,
                          ShadeData& shade, const SpacingDecision& decision,
                          std::span<const LookupCandidate> candidates, Color& result,
                          std::vector<LoweredRadius>* lowered, SampleIndexer* indexer) {
  IrradSample record{};
  record.position = context.position;
  record.normal = context.normal;
  const float spacing = decision.spacing();
  record.validRadius2 = spacing * spacing;
  record.drawRadius2 = record.validRadius2;
  record.footprint = decision.footprint;
  record.flags = (context.sampleFlags & IrradSample::kContextMask) |
                 (decision.reason << IrradSample::kReasonShift);
  packDirection(context.direction, record);
  record.time = context.time;
  shade.sampler->compute(result, context, map, record);
  return storeSample(map, threadIndex, record, candidates, lowered, indexer);
}

namespace {

IrradSample* sampleOf(IrradSample* s) { return s; }
IrradSample* sampleOf(const LookupCandidate& c) { return c.sample; }

template <class Candidate>
IrradSample* storeAndLower(DefIrradianceMap& map, uint32_t threadIndex, const IrradSample& record,
                           std::span<const Candidate> candidates,
                           std::vector<LoweredRadius>* lowered, SampleIndexer* indexer) {
  const bool guarded = map.multiThreaded() != 0;
  if (guarded) map.multiReaderLock().writeLock(threadIndex);
  IrradSample* stored = map.appendSample(record);
  if (stored) {
    if (indexer) {
      indexer->index(*stored);
    } else {
      map.kdTree().insert(*stored);
    }
    const float newRadius = std::sqrt(std::max(stored->validRadius2, 0.0f));
    for (const Candidate& c : candidates) {
      IrradSample* s = sampleOf(c);
      const float limit = length(s->position - stored->position) + newRadius;
      const float before2 = currentValidRadius2(*s);
      if (before2 > limit * limit) {
        lowerValidRadius2(*s, limit * limit);
        if (lowered) lowered->push_back({s, before2});
      }
    }
  }
  if (guarded) map.multiReaderLock().writeUnlock(threadIndex);
  return stored;
}

}  // namespace

IrradSample* storeSample(DefIrradianceMap& map, uint32_t threadIndex, const IrradSample& record,
                         std::span<const LookupCandidate> candidates,
                         std::vector<LoweredRadius>* lowered, SampleIndexer* indexer) {
  return storeAndLower(map, threadIndex, record, candidates, lowered, indexer);
}

IrradSample* storeSample(DefIrradianceMap& map, uint32_t threadIndex, const IrradSample& record,
                         std::span<IrradSample* const> candidates,
                         std::vector<LoweredRadius>* lowered, SampleIndexer* indexer) {
  return storeAndLower(map, threadIndex, record, candidates, lowered, indexer);
}

}  // namespace LUtils
