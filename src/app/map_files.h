// Loading one map file whose kind is not known in advance: the rule the command line's -load and
// the viewer's open command share for telling an irradiance map from a light cache.
#pragma once

#include <cstdint>
#include <string>

#include "irradiance/irradiance_map.h"

class LightMap;

// Loads `name` into a new map of the kind the file is: a ".lulmap" file is always a light cache;
// any other file is an irradiance map, or a light cache when it does not load as an irradiance
// map (that failed attempt is not reported). Returns 0 with exactly one of `irradiance` and
// `light` set to the new map (the caller owns it; an irradiance map's working settings are its
// file's), or the light-cache load's error code with both null. Prints nothing.
[[nodiscard]] int loadMapFile(const char* name, LUtils::IrradianceMap*& irradiance,
                              LightMap*& light);

// What a map file's first bytes say about it, read without loading it.
struct MapFileProbe {
  enum Kind { kUnknown, kIrradianceMap, kLightCache };
  int openError = 0;       // errno when the file cannot be examined (0 when it can)
  bool directory = false;
  bool regular = false;    // a regular file: only such a file is read (a pipe's bytes would be lost)
  int64_t size = -1;       // bytes, for a regular file
  Kind kind = kUnknown;    // by the name and the version word, as loadMapFile decides
  uint32_t version = 0;
  bool headerComplete = false;
  int64_t declared = 0;    // samples the file says it holds
  int64_t present = 0;     // complete sample records it does hold
};

// Examines `name` as loadMapFile would read it (a regular file only; of anything else it says only
// whether it exists and is a directory): a ".lulmap" name is a light cache, any other file
// an irradiance map when its version word is one, else a light cache when it is one of those.
MapFileProbe probeMapFile(const char* name);

// Why `name` does not load, in a user's words: "no such file", "a directory", "an empty file",
// "not an irradiance map or light cache", "truncated: 999,999 of 1,000,000 samples present", ...
// `loadError` is what loadMapFile returned.
std::string loadFailureReason(const char* name, int loadError);

// 1234567 as "1,234,567".
std::string groupedCount(int64_t value);
