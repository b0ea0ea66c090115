// Fuzzes what the viewer and the batch tool do with every irradiance map they open: load it with
// its index (prepare for insertion), then merge a second copy of it into it incrementally, as
// `cacheview -incremental -load A -load A` does. The index must answer as a scan of the
// placeable samples does, before and after the merge, and the merged map must survive a save.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LUtils::DefIrradianceMap map(fuzz::kBlock);
  if (fuzz::loadIrradiance(map, data, size, 1) != 0) return 0;
  fuzz::checkIrradianceCount(map, size);
  fuzz::checkIrradianceIndex(map);

  LUtils::DefIrradianceMap copy(fuzz::kBlock);
  FUZZ_CHECK(fuzz::loadIrradiance(copy, data, size, 0) == 0, "a second load fails");
  const size_t before = map.sampleCount();
  // Old versions carry no camera: the batch tool adds their samples plainly.
  const int incremental = map.formatVersion() >= IrradFormat::kVersionCamera ? 1 : 0;
  map.prepare(0);
  map.addSamples(copy, nullptr, incremental);
  // A plain merge leaves the index alone until the next prepare, as the viewer's load does.
  if (!incremental) map.prepare(0);
  const size_t after = map.sampleCount();
  FUZZ_CHECK(after >= before && after <= 2 * before, "%zu samples merged into %zu", after, before);
  FUZZ_CHECK(incremental || after == 2 * before, "a plain merge dropped samples");
  fuzz::checkIrradianceIndex(map);
  fuzz::checkIrradianceRoundTrip(map);
  return 0;
}
