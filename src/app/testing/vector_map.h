// A test double of the irradiance map: samples in a vector, a settings record and a version, so
// that tests can build exactly the map they need and write it with IrradFormat::writeMapFile.
#pragma once

#include <cstdint>
#include <vector>

#include "irradiance/irradiance_map.h"

namespace cvtest {

class VectorMap final : public LUtils::IrradianceMap {
 public:
  std::vector<LUtils::IrradSample> samples;
  IrradianceMapHeader settings;
  IrradianceMapHeader stored;
  uint32_t version = 0;

  void clear() override { samples.clear(); }
  LUtils::Color irradiance(LUtils::ThreadData&, LUtils::ShadeContext&, LUtils::ShadeData&,
                           const LUtils::Color& color, int) override {
    return color;
  }
  void prepare(int) override {}
  int loadFromFile(const char*, int, float) override { return -2; }
  const IrradianceMapHeader* fileHeader() const override { return &stored; }
  int saveToFile(const char*, SaveCb*) override { return -5; }
  int addSamples(IrradianceMap&, LUtils::ProgressCallback*, int) override { return 0; }
  const char* errorText(int) override { return ""; }
  IrradianceMapHeader* header() override { return &settings; }
  int enumerateSamples(uint32_t first, LUtils::EnumIrradianceSamplesCallback* callback) override {
    if (!callback) return static_cast<int>(samples.size()) - static_cast<int>(first);
    for (size_t i = first; i < samples.size(); ++i) {
      if (!callback->process(samples[i])) break;
    }
    return 0;
  }
  void querySamples(const LUtils::Vector&, LUtils::StoreCB&) override {}
  LUtils::ReadIrradianceMapStream* openReadStream() override { return nullptr; }
  void closeReadStream(LUtils::ReadIrradianceMapStream*) override {}
  LUtils::WriteIrradianceMapStream* openWriteStream() override { return nullptr; }
  void closeWriteStream(LUtils::WriteIrradianceMapStream*) override {}
  int loadAndAddFromFile(const char*, float, LUtils::ProgressCallback*, int) override { return -2; }
  uint32_t formatVersion() const override { return version; }
  void setHeader(const IrradianceMapHeader& h) override { settings = h; }
};

// A sample at `position` with colour mantissas r, g, b (given as bytes) and exponent 128; the
// other fields are distinct, recognisable values.
inline LUtils::IrradSample makeSample(LUtils::Vector position, uint8_t r = 0, uint8_t g = 0,
                                      uint8_t b = 0) {
  LUtils::IrradSample s{};
  s.position = position;
  s.normal = LUtils::Vector(0.0f, 0.0f, 1.0f);
  s.validRadius2 = 0.25f;
  s.hitDistance = 1.5f;
  s.footprint = 0.01f;
  s.packNormal();
  s.colour[0] = static_cast<int8_t>(r);
  s.colour[1] = static_cast<int8_t>(g);
  s.colour[2] = static_cast<int8_t>(b);
  s.exponent = 128;
  s.flags = 0x1234u;
  s.drawRadius2 = 0.04f;
  s.renderId = 7;
  s.gradient[0] = 0xA1u;
  s.gradient[3] = 0xA4u;
  s.aux[1] = 0xB2u;
  s.time = 0.5f;
  return s;
}

}  // namespace cvtest
