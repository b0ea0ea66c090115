// Helpers shared by the rendering tests: a recording pick callback and picture comparison. The
// OpenGL back end's tests add gl/gl_test_support.h.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "render/png_writer.h"
#include "render/rasterizer.h"
#include "test_support/scratch_dir.h"

namespace LUtils::testing {

class RecordingSelection final : public Rasterizer3D::SelectionCb {
 public:
  bool startAnswer = true;
  bool nearestAnswer = true;
  int starts = 0;
  int nearestCalls = 0;
  uint32_t nearestName = 0;
  uint32_t recordsExamined = 0;
  std::vector<uint32_t> hits;

  bool start() override {
    ++starts;
    return startAnswer;
  }
  bool wantNearest() override { return nearestAnswer; }
  void nearest(uint32_t name, uint32_t examined) override {
    ++nearestCalls;
    nearestName = name;
    recordsExamined = examined;
  }
  void hit(uint32_t name) override { hits.push_back(name); }
  std::set<uint32_t> hitSet() const { return {hits.begin(), hits.end()}; }
};

inline double equalFraction(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  if (a.size() != b.size() || a.empty()) return 0.0;
  size_t equal = 0;
  for (size_t i = 0; i < a.size(); ++i) equal += (a[i] & 0xFFFFFFu) == (b[i] & 0xFFFFFFu);
  return static_cast<double>(equal) / static_cast<double>(a.size());
}

// Pixels whose channels differ by at most one level (rounding of colours to 8 bits differs
// between OpenGL implementations).
inline double nearlyEqualFraction(const std::vector<uint32_t>& a, const std::vector<uint32_t>& b) {
  if (a.size() != b.size() || a.empty()) return 0.0;
  size_t equal = 0;
  for (size_t i = 0; i < a.size(); ++i) {
    bool near = true;
    for (int shift = 0; shift < 24; shift += 8) {
      const int ca = static_cast<int>((a[i] >> shift) & 0xFFu);
      const int cb = static_cast<int>((b[i] >> shift) & 0xFFu);
      near &= ca - cb <= 1 && cb - ca <= 1;
    }
    equal += near;
  }
  return static_cast<double>(equal) / static_cast<double>(a.size());
}

// Where tests leave pictures for a person to look at.
inline std::string picturePath(const std::string& name) { return testTmpPath(name); }

inline std::set<uint32_t> indicesIn(const uint32_t* pixels, size_t count) {
  std::set<uint32_t> indices;
  for (size_t i = 0; i < count; ++i) indices.insert(pixels[i] & 0xFFFFFFu);
  return indices;
}

}  // namespace LUtils::testing
