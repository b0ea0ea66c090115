// The irradiance map file format on the writing side, for every version the reader accepts, and
// the record layouts of the old versions (0x10000-0xA0000), which store samples only.
#pragma once

#include <cstdint>

#include "irradiance/irradiance_map.h"

class PStream;

namespace IrradFormat {

// Record bytes of a version's sample records; 0 for a version that has none.
uint32_t recordSize(uint32_t version);

// Converts one old record (versions 0x10000-0xA0000) into the current sample; fields the record
// lacks are 0, the packed normal is computed from the normal.
void decodeOldRecord(uint32_t version, const uint8_t* record, LUtils::IrradSample& out);

// The inverse, for writing old files (tests and the sample synthesiser): fills recordSize(version)
// bytes with what that version keeps of the sample.
void encodeOldRecord(uint32_t version, const LUtils::IrradSample& in, uint8_t* record);

// Writes a whole map file of the given version: 12 + H bytes of header for the current versions,
// 8 bytes for the old ones, then the samples (only those saveCb accepts, with its count()).
// Returns 0, kFileWriteError (also when saveCb accepts a different number of samples than its
// count()), or kFileFormatError for a version whose records the reader does not know.
int writeMapFile(PStream& out, uint32_t version, const IrradianceMapHeader& header,
                 LUtils::IrradianceMap& map, LUtils::IrradianceMap::SaveCb* saveCb);

}  // namespace IrradFormat
