// The information report of an irradiance map: sample size and count, format version, the
// stored settings and the camera. -info prints it; the viewer shows it in its properties box.
#pragma once

#include <string>

#include "irradiance/irradiance_map.h"

// The report of `map`, every line ended by a newline; a null map gives the empty text.
std::string irradianceMapReport(LUtils::IrradianceMap* map);

// The viewer's shorter description of a light cache (two lines, the last without a newline).
std::string lightCacheReport(int sampleCount);
