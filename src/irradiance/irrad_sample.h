// The irradiance sample: one 84-byte record, the same in memory and in files of versions
// 0xB0000 to 0xD0000 (little-endian).
//
//   offset  width     field
//    0      3 x f32   position
//   12      3 x f32   normal
//   24      f32       validRadius2   squared validity radius: a lookup at p may use the sample
//                                    when |p - position|^2 (normal part stretched) is below it;
//                                    lowered when a neighbour is inserted nearby
//   28      f32       hitDistance    harmonic mean distance to the geometry seen from the sample
//   32      f32       footprint      world size of a pixel at the sample when it was computed;
//                                    scales the ray differentials of an incremental insertion
//   36      u16       packedNormalZ  floor(clamp(nz * 0.5 + 0.5, 0, 1) * 65535)
//   38      u16       packedNormalAngle  floor(clamp(atan2(ny, nx) * 0.5 / pi + 0.5, 0, 1) * 65535)
//   40      4 x u8    colour: three signed 8-bit mantissas (R, G, B) and an unsigned exponent e;
//                     channel = mantissa * 2^(e - 135)
//   44      u32       flags: bits 0-11 a value of the shading context, bit 12 kept, bits 13-15
//                     the reason code of the spacing bound that created the sample, 16-31 kept
//   48      f32       drawRadius2    squared radius that the viewer draws (disc radius
//                                    0.2 * sqrt(drawRadius2))
//   52      i32       renderId       object (render) ID; -1 or 0 when the map keeps no IDs
//   56      4 x u32   gradient       opaque renderer words (irradiance gradients), carried as is
//   72      2 x u32   aux            opaque renderer words, carried as is
//   80      f32       time           shutter time; the load time offset is added to it
#pragma once

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "io/vector.h"

namespace LUtils {

struct IrradSample {
  Vector position;
  Vector normal;
  float validRadius2;
  float hitDistance;
  float footprint;
  uint16_t packedNormalZ;
  uint16_t packedNormalAngle;
  int8_t colour[3];
  uint8_t exponent;
  uint32_t flags;
  float drawRadius2;
  int32_t renderId;
  uint32_t gradient[4];
  uint32_t aux[2];
  float time;

  // Flag word: bits 13-15 hold the reason code of the bound that decided a new sample.
  static constexpr uint32_t kReasonShift = 13;
  static constexpr uint32_t kReasonMask = 0x7u << kReasonShift;
  static constexpr uint32_t kContextMask = 0xFFFu;

  // Decoded colour channel c (0 red, 1 green, 2 blue): mantissa * 2^(e - 135).
  float channel(int c) const { return std::ldexp(static_cast<float>(colour[c]), int{exponent} - 135); }
  Color decodedColour() const { return {channel(0), channel(1), channel(2)}; }

  // Fills packedNormalZ and packedNormalAngle from the normal.
  void packNormal() {
    packedNormalZ = packUnit(normal.z * 0.5f + 0.5f);
    packedNormalAngle =
        packUnit(std::atan2(normal.y, normal.x) * 0.5f / 3.1415927f + 0.5f);
  }
  // The unit direction stored in the two packed fields.
  Vector unpackedNormal() const {
    const float z = static_cast<float>(packedNormalZ) / 65535.0f * 2.0f - 1.0f;
    const float phi = (static_cast<float>(packedNormalAngle) / 65535.0f - 0.5f) * 2.0f * 3.1415927f;
    const float s = std::sqrt(std::fmax(0.0f, 1.0f - z * z));
    return {s * std::cos(phi), s * std::sin(phi), z};
  }

  static uint16_t packUnit(float v) {
    if (!(v > 0.0f)) v = 0.0f;  // NaN packs as 0
    if (v > 1.0f) v = 1.0f;
    return static_cast<uint16_t>(std::floor(v * 65535.0f));
  }
};

// The validity radius as lookups read it and neighbour lowering writes it. The incremental merge
// on several threads lowers radii on the calling thread while its workers look up the next batch
// (irradiance/parallel_incremental.h), so both go through relaxed atomic accesses: plain loads
// and stores on the machines we build for, and no data race.
inline float currentValidRadius2(IrradSample& s) {
  return std::atomic_ref<float>(s.validRadius2).load(std::memory_order_relaxed);
}
inline void lowerValidRadius2(IrradSample& s, float radius2) {
  std::atomic_ref<float>(s.validRadius2).store(radius2, std::memory_order_relaxed);
}

static_assert(sizeof(IrradSample) == 84, "the sample record is 84 bytes");
static_assert(alignof(IrradSample) >= std::atomic_ref<float>::required_alignment);
static_assert(offsetof(IrradSample, position) == 0);
static_assert(offsetof(IrradSample, normal) == 12);
static_assert(offsetof(IrradSample, validRadius2) == 24);
static_assert(offsetof(IrradSample, hitDistance) == 28);
static_assert(offsetof(IrradSample, footprint) == 32);
static_assert(offsetof(IrradSample, packedNormalZ) == 36);
static_assert(offsetof(IrradSample, packedNormalAngle) == 38);
static_assert(offsetof(IrradSample, colour) == 40);
static_assert(offsetof(IrradSample, exponent) == 43);
static_assert(offsetof(IrradSample, flags) == 44);
static_assert(offsetof(IrradSample, drawRadius2) == 48);
static_assert(offsetof(IrradSample, renderId) == 52);
static_assert(offsetof(IrradSample, gradient) == 56);
static_assert(offsetof(IrradSample, aux) == 72);
static_assert(offsetof(IrradSample, time) == 80);

}  // namespace LUtils
