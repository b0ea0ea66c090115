// What the fuzz harnesses share: a check that stops the run with a message (a fuzzer reports
// an abort as a finding, with the input that caused it), the loads and saves of both kinds of
// map from and to memory, and the comparison of each index with a scan of every sample.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "io/placement.h"
#include "io/stream.h"
#include "irradiance/def_irradiance_map.h"
#include "irradiance/irradiance_file.h"
#include "lightcache/light_map.h"

#define FUZZ_CHECK(condition, ...)                                                     \
  do {                                                                                 \
    if (!(condition)) {                                                                \
      std::fprintf(stderr, "%s:%d: check failed: %s: ", __FILE__, __LINE__, #condition); \
      std::fprintf(stderr, __VA_ARGS__);                                               \
      std::fputc('\n', stderr);                                                        \
      std::abort();                                                                    \
    }                                                                                  \
  } while (0)

namespace fuzz {

// Maps up to this many samples are checked against a scan of all samples: the scan costs the
// square of the count, and small maps reach every branch of the indexes' arithmetic anyway.
constexpr size_t kScanLimit = 64;

// Samples (and light-cache tree nodes) per storage block: a map of a few samples then spans
// several blocks, and costs no full-size block per input.
constexpr uint32_t kBlock = 16;

// --- irradiance maps ---

inline int loadIrradiance(LUtils::DefIrradianceMap& map, const uint8_t* data, size_t size,
                          int buildIndex) {
  PMemoryStream in(data, size);
  return map.loadFromStream(in, buildIndex, 0.0f);
}

inline std::vector<uint8_t> saveIrradiance(LUtils::DefIrradianceMap& map) {
  PMemoryStream out;
  FUZZ_CHECK(map.saveToFile(out, nullptr) == 0, "saving to memory failed");
  return out.bytes();
}

inline std::vector<LUtils::IrradSample> irradianceSamples(LUtils::DefIrradianceMap& map) {
  std::vector<LUtils::IrradSample> out;
  for (size_t i = 0; i < map.sampleCount(); ++i) out.push_back(map.samples()[i]);
  return out;
}

// A loaded map holds no more samples than its bytes can carry records of its version.
inline void checkIrradianceCount(LUtils::DefIrradianceMap& map, size_t size) {
  const uint32_t record = IrradFormat::recordSize(map.formatVersion());
  const size_t n = map.sampleCount();
  FUZZ_CHECK(record ? n <= size / record : n == 0, "%zu samples of %u bytes from %zu bytes", n,
             record, size);
}

// Saving and loading the save gives the same samples, byte for byte (NaNs and all), and saving
// those again the same bytes: nothing a user loaded is lost or changed.
inline void checkIrradianceRoundTrip(LUtils::DefIrradianceMap& map) {
  const std::vector<uint8_t> first = saveIrradiance(map);
  LUtils::DefIrradianceMap again(kBlock);
  FUZZ_CHECK(loadIrradiance(again, first.data(), first.size(), 0) == 0, "the save does not load");
  const auto a = irradianceSamples(map), b = irradianceSamples(again);
  FUZZ_CHECK(a.size() == b.size(), "%zu samples saved, %zu loaded", a.size(), b.size());
  FUZZ_CHECK(a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0,
             "a sample changed through a save");
  FUZZ_CHECK(saveIrradiance(again) == first, "a second save differs from the first");
}

// The map's index answers every probe as a scan of the placeable samples does.
inline void checkIrradianceIndex(LUtils::DefIrradianceMap& map) {
  const size_t n = map.sampleCount();
  if (n > kScanLimit) return;
  std::vector<LUtils::Vector> probes = {{0, 0, 0}};
  for (size_t i = 0; i < n; ++i) {
    const LUtils::IrradSample& s = map.samples()[i];
    probes.push_back(s.position);
    const float r = std::sqrt(std::fabs(s.validRadius2));
    probes.push_back(s.position + LUtils::Vector{r * 0.999f, 0, 0});
    probes.push_back(s.position - LUtils::Vector{0, 0, r * 1.001f});
  }
  for (const LUtils::Vector& p : probes) {
    std::vector<const LUtils::IrradSample*> viaIndex, viaScan;
    map.kdTree().forEachContaining(p, [&](LUtils::IrradSample& s) { viaIndex.push_back(&s); });
    for (size_t i = 0; i < n; ++i) {
      const LUtils::IrradSample& s = map.samples()[i];
      if (LUtils::placeable(s.position, s.validRadius2) &&
          LUtils::lengthSquared(p - s.position) < s.validRadius2) {
        viaScan.push_back(&s);
      }
    }
    // Both sorted by address: storage blocks are separate allocations, in no address order.
    std::sort(viaIndex.begin(), viaIndex.end());
    std::sort(viaScan.begin(), viaScan.end());
    FUZZ_CHECK(viaIndex == viaScan, "index %zu hits, scan %zu at (%g, %g, %g)", viaIndex.size(),
               viaScan.size(), p.x, p.y, p.z);
  }
}

// --- light caches ---

// Loads from an in-memory FILE of the bytes, with their size known as a regular file's is.
inline int loadLight(LightMap& map, const uint8_t* data, size_t size) {
  // fmemopen refuses an empty buffer; an empty file reads as one.
  std::FILE* f = size ? fmemopen(const_cast<uint8_t*>(data), size, "rb")
                      : std::fopen("/dev/null", "rb");
  FUZZ_CHECK(f != nullptr, "fmemopen failed");
  const int result = map.loadFrom(f, static_cast<int64_t>(size));
  std::fclose(f);
  return result;
}

inline std::vector<uint8_t> saveLight(LightMap& map) {
  char* buffer = nullptr;
  size_t length = 0;
  std::FILE* f = open_memstream(&buffer, &length);
  FUZZ_CHECK(f != nullptr, "open_memstream failed");
  const int result = map.saveTo(f, nullptr);
  std::fclose(f);
  FUZZ_CHECK(result == 0, "saving to memory failed");
  std::vector<uint8_t> out(buffer, buffer + length);
  std::free(buffer);
  return out;
}

inline std::vector<LightMapSample> lightSamples(LightMap& map) {
  std::vector<LightMapSample> out;
  map.samples().forEach(0, [&](LightMapSample& s) {
    out.push_back(s);
    return true;
  });
  return out;
}

inline void checkLightRoundTrip(LightMap& map) {
  const std::vector<uint8_t> first = saveLight(map);
  LightMap again(kBlock);
  FUZZ_CHECK(loadLight(again, first.data(), first.size()) == 0, "the save does not load");
  const auto a = lightSamples(map), b = lightSamples(again);
  FUZZ_CHECK(a.size() == b.size(), "%zu samples saved, %zu loaded", a.size(), b.size());
  FUZZ_CHECK(a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0,
             "a sample changed through a save");
  FUZZ_CHECK(saveLight(again) == first, "a second save differs from the first");
}

class Collect : public LightMapStoreCb {
 public:
  int store(LightMapSample& s) override {
    found.push_back(&s);
    return 1;
  }
  std::vector<LightMapSample*> found;
};

inline void checkLightIndex(LightMap& map) {
  const auto samples = lightSamples(map);
  if (samples.size() > kScanLimit || map.needsRebuild()) return;
  std::vector<LUtils::Vector> probes = {{0, 0, 0}};
  for (const LightMapSample& s : samples) {
    probes.push_back(s.position);
    probes.push_back(s.position + LUtils::Vector{s.radius() * 0.999f, 0, 0});
    probes.push_back(s.position - LUtils::Vector{0, s.radius(), 0});
  }
  for (const LUtils::Vector& p : probes) {
    Collect viaIndex;
    map.query(p, nullptr, viaIndex);
    std::vector<LightMapSample*> viaScan;
    map.samples().forEach(0, [&](LightMapSample& s) {
      if (LUtils::placeable(s.position, s.radiusSquared) && s.sphereContains(p)) {
        viaScan.push_back(&s);
      }
      return true;
    });
    std::sort(viaIndex.found.begin(), viaIndex.found.end());
    std::sort(viaScan.begin(), viaScan.end());
    FUZZ_CHECK(viaIndex.found == viaScan, "index %zu hits, scan %zu at (%g, %g, %g)",
               viaIndex.found.size(), viaScan.size(), p.x, p.y, p.z);
  }
}

// The shortest record of any light-cache version: a loaded cache holds no more samples than
// the bytes after the 8-byte header can carry.
constexpr size_t kShortestLightRecord = 44;

}  // namespace fuzz
