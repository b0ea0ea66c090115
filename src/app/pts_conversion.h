// Conversion of an irradiance map into a PTS point list: one text line per sample, in the map's
// enumeration order, "v x y z" or "v x y z r g b", each ended by CR LF.
#pragma once

#include "irradiance/irrad_sample.h"

// Modes of the conversion: positions only, or positions and colour bytes.
constexpr int kPtsPositions = 1;
constexpr int kPtsPositionsAndColours = 2;

// Loads `from` and writes its samples to `to` (created or truncated). Prints "Conversion
// completed successfully." once both files are open, before the samples are written; write
// errors are not reported. Returns the process exit status: 3 when `from` cannot be loaded or
// `to` cannot be created, 0 otherwise.
int convertIrradianceMap(const char* from, const char* to, int mode);

namespace pts {

// The longest line formatLine() writes, terminator included.
constexpr int kLineCapacity = 264;

// Writes exactly what printf("%0.4f") prints for `value` widened to double (nan, -nan, inf and
// -inf included) and returns the end; `out` needs room for 64 characters.
char* formatFixed4(char* out, float value);

// Writes exactly what printf("%d") prints for `value` and returns the end.
char* formatInt(char* out, int value);

// Formats the sample's line for `mode` ("v %0.4f %0.4f %0.4f\r\n", or with " %d %d %d" for the
// three colour mantissas read as signed bytes before the CR LF) and returns its end; for any
// other mode writes nothing and returns `out`. `out` needs kLineCapacity characters.
char* formatLine(char* out, const LUtils::IrradSample& sample, int mode);

}  // namespace pts
