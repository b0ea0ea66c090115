// Helpers shared by the light-cache tests: a scratch directory, files written word by word, and
// random samples.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "test_support/scratch_dir.h"
#include "lightcache/light_map.h"

namespace lighttest {

class ScratchDir : public LUtils::testing::ScratchDirTest {
 protected:
  static void writeWords(const std::string& p, const std::vector<uint32_t>& words,
                         size_t cutBytes = 0) {
    std::string bytes(reinterpret_cast<const char*>(words.data()), words.size() * 4);
    bytes.resize(bytes.size() - cutBytes);
    std::ofstream(p, std::ios::binary) << bytes;
  }
  static std::string readBytes(const std::string& p) { return LUtils::testing::readWholeFile(p); }
};

inline std::vector<uint32_t> words(const LightMapSample& s) {
  std::vector<uint32_t> w(30);
  std::memcpy(w.data(), &s, sizeof s);
  return w;
}

// Samples on the plane z = 0 facing up, spread uniformly over [x0, x1] x [0, 1], radius r.
inline void addPlaneSamples(LightMap& map, size_t n, float x0, float x1, float r, uint32_t seed,
                            uint32_t id = 0) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> ux(x0, x1), uy(0.0f, 1.0f);
  for (size_t i = 0; i < n; ++i) {
    LightMapSample* s = map.insertSample();
    s->position = {ux(rng), uy(rng), 0.0f};
    s->normal = s->normalB = {0.0f, 0.0f, 1.0f};
    s->radiusSquared = r * r;
    s->id = id;
    s->valueA[0] = uint32_t(i);
  }
}

}  // namespace lighttest
