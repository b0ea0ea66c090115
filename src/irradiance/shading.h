// The renderer-side data that an irradiance lookup runs in, reduced to what this program needs:
// the calling thread, a shading point with its ray differentials, and the sampler that computes a
// new sample when the lookup decides that the map needs one. The incremental merge fills them
// from a source sample (makeInsertionContext) and answers the lookup's request with that sample
// (InsertSampleCallback).
#pragma once

#include <cstdint>

#include "io/vector.h"
#include "irradiance/irrad_sample.h"

namespace LUtils {

class IrradianceMap;
struct ShadeContext;

// The calling thread: its index selects its slot of the map's multi-reader lock.
struct ThreadData {
  uint32_t threadIndex = 0;
};

// One shading point.
struct ShadeContext {
  ThreadData* thread = nullptr;
  Vector position;
  Vector normal;     // unit surface normal at the point
  Vector direction;  // unit direction of the ray that reached the point
  // World-space offsets to the neighbouring pixels' hits; the lookup's footprint derives from them.
  Vector dPdx, dPdy;
  float time = 0.0f;
  // The 12-bit value a new sample carries in the low bits of its flag word.
  uint32_t sampleFlags = 0;
  // Cleared where the renderer may only interpolate (a new sample would not be computed).
  bool allowNewSamples = true;
};

// Computes the irradiance for a new sample that the lookup is creating.
class IrradianceSampler {
 public:
  virtual ~IrradianceSampler() = default;
  // Fills `record` (the lookup has set position, normal, radius, flags and direction fields) and
  // writes the sample's colour into `result`, which it also returns.
  virtual Color compute(Color& result, ShadeContext& context, IrradianceMap& map,
                        IrradSample& record) = 0;
  // Kept for the renderer's interface; both samplers of this program return 0.
  virtual float reserved() { return 0.0f; }
};

// Shade data: what the lookup needs of the renderer's shading state.
struct ShadeData {
  IrradianceSampler* sampler = nullptr;
};

// Answers every request with black and touches no sample.
class NullIrradianceSampler : public IrradianceSampler {
 public:
  Color compute(Color& result, ShadeContext& context, IrradianceMap& map,
                IrradSample& record) override;
};

// The sampler of the incremental merge: it answers the lookup's request with the source sample
// on offer, copied whole, and remembers that it was asked.
class InsertSampleCallback : public IrradianceSampler {
 public:
  explicit InsertSampleCallback(const IrradSample* offered) : sample(offered) {}
  Color compute(Color& result, ShadeContext& context, IrradianceMap& map,
                IrradSample& record) override;

  const IrradSample* sample;
  int32_t inserted = 0;
};

// The shading context of the incremental merge for one source sample: thread index of `thread`,
// the sample's position and normal, the ray direction decoded from its packed direction fields,
// and ray differentials along an orthonormal frame around that direction, scaled by the sample's
// footprint, so that the lookup sees the footprint the sample was made with.
ShadeContext makeInsertionContext(const IrradSample& sample, ThreadData& thread);

}  // namespace LUtils
