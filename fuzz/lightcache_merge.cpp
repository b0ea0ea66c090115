// Fuzzes the light-cache merge on whatever loads: a second copy of the cache merged into it
// incrementally, then plainly. Every source sample is either added or skipped, a plain merge adds
// them all, the rebuilt tree answers as a scan of the placeable samples does, and the result
// survives a save.
#include "harness.h"
#include "lightcache/light_merge.h"

namespace {

LightMap* loadCopy(const uint8_t* data, size_t size) {
  auto* copy = new LightMap(fuzz::kBlock);
  const int result = fuzz::loadLight(*copy, data, size);
  FUZZ_CHECK(result == 0 || result == -4, "a second load fails with %d", result);
  return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LightMap map(fuzz::kBlock);
  const int result = fuzz::loadLight(map, data, size);
  if (result != 0 && result != -4) return 0;
  const size_t n = map.sampleCount();

  for (int incremental : {1, 0}) {
    const size_t before = map.sampleCount();
    LightMergeCounts counts;
    FUZZ_CHECK(mergeLightMaps(map, loadCopy(data, size), incremental, &counts) == 0,
               "the merge failed");
    FUZZ_CHECK(counts.added + counts.skipped == n, "%zu added, %zu skipped of %zu", counts.added,
               counts.skipped, n);
    FUZZ_CHECK(!incremental ? counts.added == n : true, "a plain merge skipped samples");
    FUZZ_CHECK(map.sampleCount() == before + counts.added, "the count does not add up");
    fuzz::checkLightIndex(map);
  }
  fuzz::checkLightRoundTrip(map);
  return 0;
}
