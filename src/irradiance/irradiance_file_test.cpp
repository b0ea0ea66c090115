// Map files: round trips for every version, the reader's leniencies and error codes, and saves that
// must never destroy the file they replace.
#include "irradiance/irradiance_file.h"

#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "io/stream.h"
#include "irradiance/def_irradiance_map.h"

namespace {

using LUtils::DefIrradianceMap;
using LUtils::IrradSample;
namespace fs = std::filesystem;

constexpr uint32_t kOldVersions[] = {0x10000, 0x20000, 0x30000, 0x40000, 0x50000,
                                     0x60000, 0x70000, 0x80000, 0x90000, 0xA0000};
constexpr uint32_t kCurrentVersions[] = {0xB0000, 0xC0000, 0xD0000};

std::string tempDir() {
  static const std::string dir = [] {
    std::string d = std::string(CACHEVIEW_TEST_TMPDIR) + "/irradiance_file." + std::to_string(getpid());
    fs::create_directories(d);
    return d;
  }();
  return dir;
}

std::string tempPath(const std::string& name) { return tempDir() + "/" + name; }

std::vector<uint8_t> readBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

[[maybe_unused]] void writeBytes(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

template <class T>
void put(std::vector<uint8_t>& bytes, const T& value) {
  const auto* p = reinterpret_cast<const uint8_t*>(&value);
  bytes.insert(bytes.end(), p, p + sizeof value);
}

// A sample with every byte meaningful: random floats and random opaque words.
IrradSample randomSample(std::mt19937& rng) {
  std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
  IrradSample s{};
  s.position = {coord(rng), coord(rng), coord(rng)};
  s.normal = LUtils::normalizeNewton({coord(rng), coord(rng), coord(rng) + 0.5f});
  s.validRadius2 = std::abs(coord(rng));
  s.hitDistance = std::abs(coord(rng));
  s.footprint = std::abs(coord(rng)) * 0.01f;
  s.packNormal();
  for (auto& c : s.colour) c = static_cast<int8_t>(rng());
  s.exponent = static_cast<uint8_t>(rng());
  s.flags = static_cast<uint32_t>(rng());
  s.drawRadius2 = std::abs(coord(rng));
  s.renderId = static_cast<int32_t>(rng() % 50) - 2;
  for (auto& g : s.gradient) g = static_cast<uint32_t>(rng());
  for (auto& a : s.aux) a = static_cast<uint32_t>(rng());
  s.time = std::abs(coord(rng)) * 0.01f;
  return s;
}

void fill(DefIrradianceMap& map, size_t n, uint32_t seed = 7) {
  std::mt19937 rng(seed);
  for (size_t i = 0; i < n; ++i) map.appendSample(randomSample(rng));
}

IrradianceMapHeader unusualHeader() {
  IrradianceMapHeader h;
  h.colorThreshold = 0.25f;
  h.normalThreshold = 0.125f;
  h.distanceThreshold = 0.75f;
  h.timeDependence = 0.0f;
  h.word4 = 11;
  h.word5 = 12;
  h.calcPassInterpSamples = 13;
  h.word7 = 14;
  h.word8 = 15;
  h.interpolationMode = 1;
  h.word10 = 16;
  h.word11 = 17;
  h.word12 = 18;
  h.minRate = -4;
  h.maxRate = 2;
  h.word15 = 19;
  h.word16 = 20;
  h.containsRenderIds = 1;
  h.supportsAnimBlending = 1;
  h.exposure[0] = 2.0f;
  h.exposure[1] = 3.0f;
  h.exposure[2] = 4.0f;
  h.cameraFlags = 1;
  for (int i = 0; i < 9; ++i) h.cameraRotation[i] = static_cast<float>(i) * 0.5f;
  h.cameraPosition[0] = 1.5;
  h.cameraPosition[1] = -2.25;
  h.cameraPosition[2] = 1e10;
  h.cameraFov = 0.7f;
  h.cameraTarget = 12.5f;
  return h;
}

// Writes `map` with `header` as a file of `version`.
void writeVersion(const std::string& path, uint32_t version, const IrradianceMapHeader& header,
                  DefIrradianceMap& map) {
  PFileStream file;
  ASSERT_EQ(file.openForWriting(path.c_str(), 0), 0);
  PBufferedStream out(PBufferedStream::kWriting, &file, 4096);
  ASSERT_EQ(IrradFormat::writeMapFile(out, version, header, map, nullptr), 0);
  ASSERT_EQ(out.close(), 0);
}

void expectSameSamples(DefIrradianceMap& a, DefIrradianceMap& b) {
  ASSERT_EQ(a.samples().size(), b.samples().size());
  for (size_t i = 0; i < a.samples().size(); ++i) {
    ASSERT_EQ(std::memcmp(&a.samples()[i], &b.samples()[i], sizeof(IrradSample)), 0) << "sample " << i;
  }
}

TEST(IrradianceFile, SaveAndLoadGiveTheSameBytes) {
  DefIrradianceMap map;
  fill(map, 70000);  // more than two storage blocks and several write batches
  map.setHeader(unusualHeader());
  const std::string path = tempPath("current.lumap");
  ASSERT_EQ(map.saveToFile(path.c_str(), nullptr), 0);
  EXPECT_EQ(fs::file_size(path), 12 + 160 + 70000u * 84);

  DefIrradianceMap loaded;
  ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 0.0f), 0);
  EXPECT_EQ(loaded.formatVersion(), 0xD0000u);
  expectSameSamples(map, loaded);

  // Saving the loaded map again reproduces the file byte for byte.
  loaded.setHeader(*loaded.fileHeader());
  const std::string again = tempPath("current-again.lumap");
  ASSERT_EQ(loaded.saveToFile(again.c_str(), nullptr), 0);
  EXPECT_EQ(readBytes(path), readBytes(again));
}

// The header fields a version stores keep their values; the others keep their defaults.
void expectHeaderAsStored(uint32_t version, const IrradianceMapHeader& written,
                          const IrradianceMapHeader& read) {
  IrradianceMapHeader expected;  // old versions store no header
  if (version >= 0xB0000) {
    expected = written;
    if (version != 0xD0000) {
      const IrradianceMapHeader defaults;
      std::memcpy(expected.exposure, defaults.exposure, sizeof defaults.exposure);
      expected.cameraFlags = defaults.cameraFlags;
      std::memcpy(expected.cameraRotation, defaults.cameraRotation, sizeof defaults.cameraRotation);
      std::memcpy(expected.cameraPosition, defaults.cameraPosition, sizeof defaults.cameraPosition);
      expected.cameraFov = defaults.cameraFov;
      expected.cameraTarget = defaults.cameraTarget;
    }
    expected.updateRateScales();
  }
  EXPECT_EQ(std::memcmp(&expected, &read, sizeof expected), 0) << std::hex << version;
}

TEST(IrradianceFile, EveryVersionRoundTrips) {
  DefIrradianceMap map;
  fill(map, 3000);
  const IrradianceMapHeader header = unusualHeader();
  for (uint32_t version : kCurrentVersions) {
    const std::string path = tempPath("v.lumap");
    writeVersion(path, version, header, map);
    DefIrradianceMap loaded;
    ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 0.0f), 0) << std::hex << version;
    EXPECT_EQ(loaded.formatVersion(), version);
    expectSameSamples(map, loaded);
    expectHeaderAsStored(version, header, *loaded.fileHeader());
    EXPECT_EQ(loaded.header()->containsRenderIds, 1);
  }
  for (uint32_t version : kOldVersions) {
    const std::string path = tempPath("v.lumap");
    writeVersion(path, version, header, map);
    EXPECT_EQ(fs::file_size(path), 8 + 3000u * IrradFormat::recordSize(version));
    DefIrradianceMap loaded;
    ASSERT_EQ(loaded.loadFromFile(path.c_str(), 0, 5.0f), 0) << std::hex << version;
    EXPECT_EQ(loaded.formatVersion(), version);
    expectHeaderAsStored(version, header, *loaded.fileHeader());
    ASSERT_EQ(loaded.samples().size(), map.samples().size());
    for (size_t i = 0; i < map.samples().size(); ++i) {
      IrradSample expected;
      IrradFormat::decodeOldRecord(version, [&] {
        static uint8_t record[148];
        IrradFormat::encodeOldRecord(version, map.samples()[i], record);
        return record;
      }(), expected);
      ASSERT_EQ(std::memcmp(&expected, &loaded.samples()[i], sizeof expected), 0) << i;
      EXPECT_EQ(loaded.samples()[i].time, 0.0f);  // no time offset for old versions
    }
  }
}

}  // namespace
