// Writing a map's samples as a PLY point cloud, for the point-cloud tools users already have.
//
// One vertex per sample of the file, in the map's order, with these properties:
//
//   x y z                      float  position
//   nx ny nz                   float  normal
//   scalar_colour_r _g _b      float  the decoded colour channels
//   red green blue             uchar  the colour as the viewer draws it: channel x brightness,
//                                     0 to 1 mapped to 0 to 255 (rounded, clamped)
//   scalar_radius              float  the radius of the disc the viewer draws
//   irradiance maps:
//     scalar_render_id         int    the object (render) ID
//     scalar_time              float  the shutter time
//     scalar_flags             uint   the flag word
//   light caches:
//     scalar_id                uint   the sample's identifier
//
// The "scalar_" prefix makes CloudCompare read a property as a scalar field of that name; other
// readers take the properties by name and ignore those they do not know.
#pragma once

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>

#include "render/sample_source.h"

namespace ply {

enum class Encoding { BinaryLittleEndian, Ascii };

struct ExportOptions {
  Encoding encoding = Encoding::BinaryLittleEndian;
  // The scale of the 8-bit colours; NaN means the viewer's automatic brightness, 1 / (2 x the
  // average intensity of the drawable samples).
  float brightness = std::numeric_limits<float>::quiet_NaN();
  // Written as a comment line of the header (the program and the map's name).
  std::string comment;
};

// The viewer's byte for a colour channel already scaled by the brightness.
uint8_t colourByte(float scaled);

// The brightness the export of `map` uses under `options`.
float exportBrightness(const LUtils::DrawnMap& map, const ExportOptions& options);

// Writes the header and every sample of `map` (a light cache when one is given, else the
// irradiance map) to `out`, formatting the samples through a fixed-size buffer straight from the
// map. Returns the number of samples written, or -1 when writing fails.
int64_t writePly(std::FILE* out, const LUtils::DrawnMap& map, const ExportOptions& options);

}  // namespace ply
