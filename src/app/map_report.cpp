#include "app/map_report.h"

#include <cstdarg>
#include <cstdio>

namespace {

// Appends printf-formatted text.
__attribute__((format(printf, 2, 3))) void appendf(std::string& text, const char* format, ...) {
  char line[512];
  va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  if (length <= 0) return;
  if (static_cast<size_t>(length) < sizeof line) {
    text.append(line, static_cast<size_t>(length));
    return;
  }
  // Huge %g values never get here, but a line is never cut either.
  std::string longLine(static_cast<size_t>(length) + 1, '\0');
  va_start(args, format);
  std::vsnprintf(longLine.data(), longLine.size(), format, args);
  va_end(args);
  text.append(longLine.data(), static_cast<size_t>(length));
}

const char* yesNo(bool value) { return value ? "yes" : "no"; }

}  // namespace

std::string irradianceMapReport(LUtils::IrradianceMap* map) {
  std::string text;
  if (!map) return text;

  // The record size is the sample layout's, not something the map is asked for.
  appendf(text, "Sample size (bytes): %i\n", 84);
  appendf(text, "Number of samples: %i\n", map->enumerateSamples(0, nullptr));

  const int32_t version = static_cast<int32_t>(map->formatVersion());
  if (version != 0) appendf(text, "Format version: %i (0x%X)\n", version >> 16, version);
  if (version < 0xB0000) return text;

  const IrradianceMapHeader& h = *map->header();
  appendf(text, "Time dependent: %s\n", yesNo(h.timeDependence != 0.0f));
  appendf(text, "Min rate: %i\n", h.minRate);
  appendf(text, "Max rate: %i\n", h.maxRate);
  appendf(text, "Contains render IDs: %s\n", yesNo(h.containsRenderIds != 0));
  appendf(text, "Supports animation blending: %s\n", yesNo(h.supportsAnimBlending != 0));
  appendf(text, "Calc. pass interpolation samples: %i\n", h.calcPassInterpSamples);
  // Only the low byte of the camera flags counts; bit 0 says whether a camera is stored.
  if ((static_cast<uint8_t>(h.cameraFlags) & 1u) == 0) {
    text += "Camera information: none\n";
    return text;
  }
  text += "Camera information: yes\n";
  text += "  Camera transformation:\n";
  for (int row = 0; row < 3; ++row) {
    const float* r = h.cameraRotation + 3 * row;
    appendf(text, "    (%g, %g, %g),\n", double{r[0]}, double{r[1]}, double{r[2]});
  }
  appendf(text, "    (%g, %g, %g)\n", h.cameraPosition[0], h.cameraPosition[1],
          h.cameraPosition[2]);
  appendf(text, "  Exposure RGB: (%g, %g, %g)\n", double{h.exposure[0]}, double{h.exposure[1]},
          double{h.exposure[2]});
  appendf(text, "  Camera FOV: %g\n", double{h.cameraFov});
  appendf(text, "  Camera target: %g\n", double{h.cameraTarget});
  return text;
}

std::string lightCacheReport(int sampleCount) {
  std::string text;
  appendf(text, "Number of samples: %i\nSample size (bytes): %i", sampleCount, 120);
  return text;
}
