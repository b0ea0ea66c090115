// Loading one map file whose kind is not known in advance: the rule the command line's -load and
// the viewer's open command share for telling an irradiance map from a light cache.
#pragma once

#include "irradiance/irradiance_map.h"

class LightMap;

// Loads `name` into a new map of the kind the file is: a ".lulmap" file is always a light cache;
// any other file is an irradiance map, or a light cache when it does not load as an irradiance
// map (that failed attempt is not reported). Returns 0 with exactly one of `irradiance` and
// `light` set to the new map (the caller owns it; an irradiance map's working settings are its
// file's), or the light-cache load's error code with both null. Prints nothing.
[[nodiscard]] int loadMapFile(const char* name, LUtils::IrradianceMap*& irradiance,
                              LightMap*& light);
