// The irradiance lookup of the default map: finds the samples whose validity regions contain a
// shading point, decides by the map's spacing rules whether they cover it, and then either
// interpolates their colours or has the sampler compute a new sample, which it stores, indexes
// and lets lower its neighbours' radii. The incremental merge drives it with the source samples.
//
// How the map's settings drive it:
//   footprint f         the longer diagonal of the pixel parallelogram spanned by the context's
//                       two ray differentials, divided by sqrt(2): the differential length for a
//                       square pixel, the major axis for one seen at a grazing angle
//   lower spacing a     maxRateScale * f  (max rate: no two samples closer than 2^-maxRate pixels)
//   upper spacing b     minRateScale * f  (min rate: one sample at least every 2^-minRate pixels)
//   colour threshold t  colorThreshold (header word 0)
//   intensity threshold u  distanceThreshold (header word 2)
//   error estimate e    Ward's translational error rate: a sample whose harmonic mean distance to
//                       the scene is R predicts a relative irradiance change of about 1/R per unit
//                       of distance, so e is the interpolation-weighted mean of 1/R
//   weights             w_i = (1 - sqrt(s_i / r_i^2)) * (n . n_i): one at the sample, falling to
//                       zero at the edge of its validity region (s_i is the stretched squared
//                       offset), times the agreement of the normals; back-facing samples weigh 0
//   neighbour lowering  a neighbour's validity radius is cut to its distance to the new sample
//                       plus the new sample's radius, so no region reaches farther past the new
//                       sample than the new sample's own (neighbour clamping)
// Every interpolation mode of the header uses these weights.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/irradiance_map_header.h"
#include "irradiance/sample_kdtree.h"
#include "irradiance/shading.h"

namespace LUtils {

class DefIrradianceMap;
class IrradianceMap;
class ProgressCallback;

// Lookup flags (the irradiance operation's `flags`).
enum IrradianceLookupFlags : int {
  // Interpolate only: never create a sample here.
  kLookupNoNewSamples = 1,
  // The caller ignores the returned colour (the incremental merge): skip the interpolation.
  kLookupColourUnused = 2,
};

// The settings of one lookup, taken from the map's working header.
struct LookupSettings {
  // Factor on the offset's component along the point's normal before its squared length is
  // compared with a candidate's validity radius: with the default only samples practically in the
  // point's tangent plane qualify.
  static constexpr float kDefaultNormalStretch = 1.0e18f;

  float lowerFactor = 1.0f;   // a = lowerFactor * f
  float upperFactor = 8.0f;   // b = upperFactor * f
  float colorThreshold = 0.16f;
  float intensityThreshold = 0.1f;
  float normalStretch = kDefaultNormalStretch;

  static LookupSettings fromHeader(const IrradianceMapHeader& header);
};

// A sample that passed the candidate test.
struct LookupCandidate {
  IrradSample* sample;
  float distance2;  // plain squared distance to the point
  float weight;     // interpolation weight (0 for a back-facing sample)
};

// Reason codes of the bound that decided the spacing, kept in bits 13-15 of a new sample's flags.
enum SpacingReason : uint32_t {
  kReasonUpperSpacing = 3,
  kReasonColour = 4,
  kReasonIntensity = 5,
};

struct SpacingDecision {
  float footprint = 0.0f;
  float lower = 0.0f;          // a
  float bound = 0.0f;          // b after the colour and intensity limits
  uint32_t reason = kReasonUpperSpacing;
  float nearestDistance2 = 0.0f;  // infinite when there is no candidate
  const LookupCandidate* nearest = nullptr;
  float errorRate = 0.0f;      // e
  float intensity = 0.0f;      // m
  bool covered = false;
  bool samePoint = false;      // the nearest candidate is closer than 1e-4 (squared 1e-8)

  // The spacing a sample created here gets as its validity radius.
  float spacing() const { return lower > bound ? lower : bound; }
};

// The footprint f of a shading context.
float lookupFootprint(const ShadeContext& context);

// The candidate test of one sample whose validity sphere contains p: the offset's component
// along the point's normal n is stretched by `stretch` and the squared length compared with the
// sample's validity value. Fills `out` and returns true when the sample qualifies.
inline bool testCandidate(IrradSample& s, const Vector& p, const Vector& n, float stretch,
                          LookupCandidate& out) {
  const Vector o = p - s.position;
  const float d2 = lengthSquared(o);
  const float along = dot(o, n);
  const float stretchedAlong = along * stretch;
  const float stretched2 = std::max(d2 - along * along, 0.0f) + stretchedAlong * stretchedAlong;
  const float radius2 = currentValidRadius2(s);
  if (!(stretched2 < radius2)) return false;
  const float cosine = dot(n, s.normal);
  const float falloff = 1.0f - std::sqrt(stretched2 / radius2);
  out = {&s, d2, cosine > 0.0f ? falloff * cosine : 0.0f};
  return true;
}

// Appends the candidates for the context's point among the samples of the tree, and of `later`
// when given: entries begun in the tree and not yet listed (SampleKdTree::forEachContaining).
void collectCandidates(const SampleKdTree& tree, const ShadeContext& context,
                       const LookupSettings& settings, std::vector<LookupCandidate>& out,
                       const InsertionGrid::CellBatch* later = nullptr);
// The same, where SampleKdTree::walk() found the static tree's hits for the point; `later`
// holds the samples begun and not yet listed, and `probe` the point's cells asked for ahead
// (SampleKdTree::CellsAhead).
void collectCandidates(const SampleKdTree& tree, const ShadeContext& context,
                       const LookupSettings& settings,
                       std::span<const SampleKdTree::TreeHit> treeHits,
                       std::vector<LookupCandidate>& out,
                       const InsertionGrid::Unlisted* later = nullptr,
                       const SampleKdTree::Probe* probe = nullptr);

// The spacing test over collected candidates.
SpacingDecision decideSpacing(const LookupSettings& settings, float footprint,
                              const std::vector<LookupCandidate>& candidates);

// The weighted mean colour of the candidates (plain mean when every weight is 0; black when
// there is no candidate).
Color interpolateColour(const std::vector<LookupCandidate>& candidates);

// The whole lookup on a default map (the map's irradiance operation).
Color irradianceLookup(DefIrradianceMap& map, ThreadData& thread, ShadeContext& context,
                       ShadeData& shade, const Color& color, int flags);

// Whether the lookup creates a sample where it reached `decision`.
bool createsSample(const SpacingDecision& decision, const ShadeContext& context,
                   const ShadeData& shade, int flags);

// Where createSample() indexes the sample it stores: by default the map's kd-tree, at once.
class SampleIndexer {
 public:
  virtual ~SampleIndexer() = default;
  virtual void index(IrradSample& stored) = 0;
};

// The lookup's second half where it creates a sample: fills the record, has the sampler compute
// it (writing its colour into `result`), then stores it as storeSample() does.
struct LoweredRadius {
  IrradSample* sample;
  float before2;
};
IrradSample* createSample(DefIrradianceMap& map, uint32_t threadIndex, ShadeContext& context,
                          ShadeData& shade, const SpacingDecision& decision,
                          std::span<const LookupCandidate> candidates, Color& result,
                          std::vector<LoweredRadius>* lowered = nullptr,
                          SampleIndexer* indexer = nullptr);
// Under the write side of the lock while the map is multi-threaded: stores `record`, indexes it
// (through `indexer` when given) and lowers the radii of the candidates that reach past it;
// those are appended to `lowered` when given, each with its squared radius before. Returns the
// stored sample, or null when the storage could not grow. The incremental merge's sampler
// answers with the offered sample whole, so a merge that has decided already stores the offered
// sample itself.
IrradSample* storeSample(DefIrradianceMap& map, uint32_t threadIndex, const IrradSample& record,
                         std::span<const LookupCandidate> candidates,
                         std::vector<LoweredRadius>* lowered = nullptr,
                         SampleIndexer* indexer = nullptr);
// The same, with the candidates given by their samples alone.
IrradSample* storeSample(DefIrradianceMap& map, uint32_t threadIndex, const IrradSample& record,
                         std::span<IrradSample* const> candidates,
                         std::vector<LoweredRadius>* lowered = nullptr,
                         SampleIndexer* indexer = nullptr);

// The per-sample step of the incremental merge: offers one source sample to the map's own lookup
// at the sample's point (thread index 0), with a sampler that answers with the sample itself.
// Returns 1 when the map stored it, 0 when it was covered.
int32_t insertSampleIncrementally(DefIrradianceMap& map, const IrradSample& sample);

// The incremental merge on the calling thread: offers the first `count` samples of `source`
// (not `map` itself) one by one, in order, exactly as insertSampleIncrementally() would, and
// advances `progress` (may be null) after each; the caller starts and finishes the progress.
// The source is read in runs, and the static tree's part of every lookup of a run is walked
// first, several walks at a time (SampleKdTree::walk): only the inserted samples and the radii
// as they stand are looked at when each sample's turn comes, so the map is the same.
void addIncrementallyInRuns(DefIrradianceMap& map, IrradianceMap& source, int32_t count,
                            ProgressCallback* progress);

// The decoded colour of a sample, without a library call per channel.
Color sampleColour(const IrradSample& s);

}  // namespace LUtils
