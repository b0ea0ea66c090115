#include "irradiance/irradiance_map_header.h"

namespace {

// 1 / 2^rate for rate >= 0, 2^-rate for rate < 0; the shift is taken modulo 32, so rates beyond
// the word size wrap instead of overflowing.
float rateScale(int32_t rate) {
  if (rate >= 0) return 1.0f / static_cast<float>(1u << (static_cast<uint32_t>(rate) & 31u));
  return static_cast<float>(1u << ((0u - static_cast<uint32_t>(rate)) & 31u));
}

}  // namespace

void IrradianceMapHeader::updateRateScales() {
  minRateScale = rateScale(minRate);
  maxRateScale = rateScale(maxRate);
}
