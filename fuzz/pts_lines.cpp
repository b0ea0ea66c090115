// Fuzzes the PTS conversion of whatever irradiance map loads: every sample's line, in both modes,
// is exactly what printf makes of the same format ("v %0.4f %0.4f %0.4f" and the three colour
// mantissas with " %d"), within the line capacity. The conversion's own entry point opens files
// by name, so the harness checks the formatting it writes each line with.
#include <cstdio>
#include <cstring>

#include "app/pts_conversion.h"
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LUtils::DefIrradianceMap map(fuzz::kBlock);
  if (fuzz::loadIrradiance(map, data, size, 0) != 0) return 0;
  for (size_t i = 0; i < map.sampleCount(); ++i) {
    const LUtils::IrradSample& s = map.samples()[i];
    char expected[2 * pts::kLineCapacity];
    char line[pts::kLineCapacity];
    for (int mode : {kPtsPositions, kPtsPositionsAndColours}) {
      int n = std::snprintf(expected, sizeof expected, "v %0.4f %0.4f %0.4f",
                            double{s.position.x}, double{s.position.y}, double{s.position.z});
      if (mode == kPtsPositionsAndColours) {
        n += std::snprintf(expected + n, sizeof expected - n, " %d %d %d", int{s.colour[0]},
                           int{s.colour[1]}, int{s.colour[2]});
      }
      n += std::snprintf(expected + n, sizeof expected - n, "\r\n");
      const char* end = pts::formatLine(line, s, mode);
      const size_t length = static_cast<size_t>(end - line);
      FUZZ_CHECK(length <= pts::kLineCapacity, "a line of %zu characters", length);
      FUZZ_CHECK(length == static_cast<size_t>(n) && std::memcmp(line, expected, length) == 0,
                 "line %.*s differs from printf's %s", static_cast<int>(length), line, expected);
    }
    const char* none = pts::formatLine(line, s, 0);
    FUZZ_CHECK(none == line, "mode 0 wrote a line");
  }
  return 0;
}
