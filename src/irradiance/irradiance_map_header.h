// The irradiance map's settings block. The first 19 words are stored in every current file (at
// header offsets 0-75), the exposure and camera fields only from version 0xD0000 (76-159); the two
// rate scales are derived on load and never stored.
#pragma once

#include <cstdint>

namespace IrradFormat {
// File format versions. The high 16 bits are the major number.
constexpr uint32_t kVersionMin = 0x10000;
constexpr uint32_t kVersionLastOld = 0xA0000;      // samples only, no header
constexpr uint32_t kVersionHeader = 0xB0000;       // parameter header, 84-byte samples
constexpr uint32_t kVersionHeaderC = 0xC0000;
constexpr uint32_t kVersionCamera = 0xD0000;       // header adds exposure and camera
constexpr uint32_t kVersionCurrent = 0xD0000;
constexpr uint32_t kHeaderSizeB = 76;               // header bytes of versions 0xB0000, 0xC0000
constexpr uint32_t kHeaderSizeD = 160;              // header bytes of version 0xD0000
}  // namespace IrradFormat

struct IrradianceMapHeader {
  // Stored words 0-18, in file order. Words the program does not interpret keep their number as
  // their name; they are read, kept and written back unchanged.
  float colorThreshold = 0.16f;     // 0: interpolation error allowed relative to irradiance
  float normalThreshold = 0.5f;     // 1
  float distanceThreshold = 0.1f;   // 2: intensity (second) threshold of the spacing test
  float timeDependence = 0.8f;      // 3: the map is time dependent when this is not 0
  int32_t word4 = 0;                // 4
  int32_t word5 = 20;               // 5
  int32_t calcPassInterpSamples = 15;  // 6
  int32_t word7 = 1;                // 7
  int32_t word8 = 0;                // 8
  int32_t interpolationMode = 3;    // 9
  int32_t word10 = 1;               // 10
  int32_t word11 = 0;               // 11
  int32_t word12 = 1;               // 12
  int32_t minRate = -3;             // 13
  int32_t maxRate = 0;              // 14
  int32_t word15 = 0;               // 15
  int32_t word16 = 0;               // 16
  int32_t containsRenderIds = 0;    // 17
  int32_t supportsAnimBlending = 0;  // 18

  // Derived on load from the rates: 1 / 2^rate for rate >= 0, 2^-rate below (shift mod 32).
  float minRateScale = 8.0f;
  float maxRateScale = 1.0f;

  // Version 0xD0000 only.
  float exposure[3] = {1.0f, 1.0f, 1.0f};
  uint32_t cameraFlags = 0;  // bit 0: camera information present
  float cameraRotation[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};  // row-major
  double cameraPosition[3] = {0.0, 0.0, 0.0};
  float cameraFov = 0.0f;
  float cameraTarget = 0.0f;

  static constexpr uint32_t kCameraPresent = 1u;
  bool hasCamera() const { return (cameraFlags & kCameraPresent) != 0; }

  // Recomputes minRateScale and maxRateScale from minRate and maxRate.
  void updateRateScales();
};
