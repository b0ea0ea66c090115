#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_lookup.h"
#include "irradiance/shading.h"

namespace LUtils {

int32_t insertSampleIncrementally(DefIrradianceMap& map, const IrradSample& sample) {
  ThreadData thread;  // the merge runs as thread 0
  ShadeContext context = makeInsertionContext(sample, thread);
  InsertSampleCallback sampler(&sample);
  ShadeData shade;
  shade.sampler = &sampler;
  map.irradiance(thread, context, shade, Color{1.0f, 1.0f, 1.0f}, kLookupColourUnused);
  return sampler.inserted;
}

}  // namespace LUtils
