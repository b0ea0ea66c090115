// The synthesiser's maps as the program's own objects: samples appended to a default irradiance
// map with matching settings, and map files of any version the reader accepts.
#pragma once

#include <cstdint>
#include <string>

#include "irradiance/def_irradiance_map.h"
#include "synth/generator.h"

namespace synth {

// Appends params.count samples to the map and sets its working settings to makeHeader(params).
// Returns the number appended, or -1 when the parameters are rejected or the storage is full.
int64_t generate(const Params& params, LUtils::DefIrradianceMap& map);

// True for the versions a map file can be written in: 0x10000, 0x20000, ... 0xD0000.
bool isWritableVersion(uint32_t version);

// Generates a map and writes it to `path` in the given version (the target is replaced only
// once the new file is complete). Returns 0, or a non-zero code with a message for the user in
// `message`: -1 bad parameters or version, else a file error code (-2 open, -5 write).
int writeMapFile(const char* path, uint32_t version, const Params& params, std::string& message);

}  // namespace synth
