// Fuzzes the irradiance-map reader, fed from memory: whatever the bytes, a load ends with a
// status, holds no more samples than the bytes carry, and saves into a file that loads into the
// same samples and saves into the same bytes.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LUtils::DefIrradianceMap map(fuzz::kBlock);
  if (fuzz::loadIrradiance(map, data, size, 0) != 0) return 0;
  fuzz::checkIrradianceCount(map, size);
  fuzz::checkIrradianceRoundTrip(map);
  return 0;
}
