// Fuzzes the light-cache reader on an in-memory FILE: whatever the bytes, a load ends with a
// status, holds no more samples than the bytes carry, its tree answers as a scan of the
// placeable samples does, and it saves into a file that loads into the same samples and saves
// into the same bytes.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LightMap map(fuzz::kBlock);
  const int result = fuzz::loadLight(map, data, size);
  const size_t n = map.sampleCount();
  FUZZ_CHECK(n <= (size > 8 ? (size - 8) / fuzz::kShortestLightRecord : 0),
             "%zu samples from %zu bytes", n, size);
  if (result != 0 && result != -4) return 0;
  fuzz::checkLightIndex(map);
  fuzz::checkLightRoundTrip(map);
  return 0;
}
