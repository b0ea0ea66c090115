// The two kinds of map behind one small adaptor, as drawing, picking, bounds, brightness and
// selection boxes read them: a sample count, and for a run of indices each sample's position,
// normal, drawn disc radius (by its kind's rule) and colour.
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

#include "io/placement.h"
#include "io/vector.h"
#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"

namespace LUtils {

// One sample as it is drawn.
struct DrawnSample {
  Vector position;
  Vector normal;
  float radius;  // of the drawn disc
  Color colour;  // decoded, before the brightness

  // The rule of the spatial indexes (io/placement.h), for the drawn disc: a sample with a
  // non-finite position or a radius that is not finite and positive is neither drawn, nor
  // picked, nor counted in the bounds or the brightness. It keeps its index, and a save keeps it.
  bool drawable() const { return placeable(position, radius * radius); }
};

// The map the viewer shows: a light cache when one is given, else the irradiance map.
struct DrawnMap {
  IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
};

namespace detail {
// 2^(e - 135) for every exponent byte: the colour decode without a call to ldexp per channel
// (the product of a mantissa and an exact power of two rounds as ldexp does).
inline const std::array<float, 256>& exponentScales() {
  static const std::array<float, 256> scales = [] {
    std::array<float, 256> t{};
    for (int e = 0; e < 256; ++e) t[static_cast<size_t>(e)] = std::ldexp(1.0f, e - 135);
    return t;
  }();
  return scales;
}
}  // namespace detail

// Irradiance samples: disc radius 0.2 x sqrt(drawRadius2), colour mantissa x 2^(e - 135).
class IrradianceSampleSource {
 public:
  explicit IrradianceSampleSource(IrradianceMap& map) : map_(map) {}
  uint32_t count() const { return static_cast<uint32_t>(map_.numSamples()); }

  static DrawnSample drawn(const IrradSample& s) {
    const float scale = detail::exponentScales()[s.exponent];
    return {s.position, s.normal, 0.2f * std::sqrt(s.drawRadius2),
            {static_cast<float>(s.colour[0]) * scale, static_cast<float>(s.colour[1]) * scale,
             static_cast<float>(s.colour[2]) * scale}};
  }

  // Calls f(sample) for the samples from index `first` on, in enumeration order, until f
  // returns false or the map ends.
  template <class F>
  void forEach(uint32_t first, F&& f) const {
    struct Cb final : EnumIrradianceSamplesCallback {
      F* f;
      explicit Cb(F* fn) : f(fn) {}
      int process(IrradSample& s) override { return (*f)(drawn(s)) ? 1 : 0; }
    } cb(&f);
    map_.enumerateSamples(first, &cb);
  }

 private:
  IrradianceMap& map_;
};

// Light-cache samples: disc radius sqrt(radiusSquared) (no 0.2 factor), colour the stored floats.
class LightSampleSource {
 public:
  explicit LightSampleSource(LightMap& map) : map_(map) {}
  // Read under the light cache's lock; the samples themselves are read without it.
  uint32_t count() const { return static_cast<uint32_t>(map_.sampleCount()); }

  static DrawnSample drawn(const LightMapSample& s) {
    return {s.position, s.normal, s.radius(), s.colour()};
  }

  template <class F>
  void forEach(uint32_t first, F&& f) const {
    map_.samples().forEach(first, [&f](const LightMapSample& s) { return f(drawn(s)); });
  }

 private:
  LightMap& map_;
};

template <class Map>
struct SampleSourceOf;
template <>
struct SampleSourceOf<IrradianceMap> {
  using type = IrradianceSampleSource;
};
template <>
struct SampleSourceOf<LightMap> {
  using type = LightSampleSource;
};

// Calls f(source) with the adaptor of the map shown; nothing when there is no map.
template <class F>
void withSampleSource(const DrawnMap& map, F&& f) {
  if (map.light != nullptr) {
    f(LightSampleSource(*map.light));
  } else if (map.irradiance != nullptr) {
    f(IrradianceSampleSource(*map.irradiance));
  }
}

}  // namespace LUtils
