// Light caches of the synthesiser's room: fixed-size samples on the surfaces one camera sees, as a
// renderer's light cache places them, and lulmap files of any of the six versions.
//
// Camera rays spread evenly over the image; each that meets a surface becomes a sample there, with
// the surface normal (as both normals), the object's render ID as its id, and the lighting the
// irradiance maps use: valueA holds all the light arriving, valueB the direct part only, each with
// a weight of one path. The sample's radius is a fixed size in the image, so it grows in
// proportion to the distance from the camera; the size follows from the count so that the spheres
// cover the image a few times over. The opaque words hold the camera ray (direction, distance,
// image position) and where the sample was made (chunk, index): nothing reads them, but none is
// zero, so a file whose words are out of place shows. Output is a pure function of the parameters
// and the seed, whatever the number of threads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "lightcache/light_map.h"
#include "synth/generator.h"

namespace synth {

// True for the versions a light-cache file can be written in: 0x10000, 0x20000, ... 0x60000.
bool isLightCacheVersion(uint32_t version);
// Bytes per sample record in a file of that version (0 for other versions).
size_t lightRecordBytes(uint32_t version);

// The sample size: a sample's radius divided by its distance from the eye.
float lightSampleSize(const Params& params);

// Generates params.count light-cache samples (appended). Returns the number made, or -1 when
// checkParams rejects the parameters or the camera sees no surface.
int64_t generateLightCache(const Params& params, std::vector<LightMapSample>& out);
// The same into a light cache, whose tree is rebuilt afterwards.
int64_t generateLightCache(const Params& params, LightMap& map);

// One sample as a record of the given version: the words that version keeps, in its places, zero
// elsewhere. `record` holds lightRecordBytes(version) bytes.
void encodeLightRecord(const LightMapSample& sample, uint32_t version, unsigned char* record);

// Generates a light cache and writes it to `path` in the given version (the target is replaced
// only once the new file is complete). Returns 0, or a non-zero code with a message for the user
// in `message`: -1 bad parameters or version, else a file error code (-2 open, -5 write).
int writeLightCacheFile(const char* path, uint32_t version, const Params& params,
                        std::string& message);

}  // namespace synth
