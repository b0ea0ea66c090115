#include "app/pts_conversion.h"

#include <gtest/gtest.h>

#include <bit>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "app/testing/vector_map.h"

namespace {

std::string fast(float value) {
  char buffer[80];
  return std::string(buffer, pts::formatFixed4(buffer, value));
}

std::string reference(float value) {
  char buffer[80];
  std::snprintf(buffer, sizeof buffer, "%0.4f", static_cast<double>(value));
  return buffer;
}

// Compares with printf and counts disagreements, reporting the first few.
int mismatches(const std::vector<float>& values) {
  int bad = 0;
  for (float v : values) {
    const std::string expected = reference(v);
    const std::string got = fast(v);
    if (got != expected && ++bad <= 5) {
      ADD_FAILURE() << "bits 0x" << std::hex << std::bit_cast<uint32_t>(v) << ": printf \""
                    << expected << "\", fast \"" << got << "\"";
    }
  }
  return bad;
}

TEST(PtsFormat, MatchesPrintfOnSpecialValues) {
  const float inf = std::numeric_limits<float>::infinity();
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> values = {0.0f, -0.0f, inf, -inf, nan, -nan,
                               std::bit_cast<float>(0x7F800001u),  // signalling NaN
                               std::bit_cast<float>(0xFFC12345u),
                               FLT_MAX, -FLT_MAX, FLT_MIN, -FLT_MIN, FLT_TRUE_MIN, -FLT_TRUE_MIN,
                               0.00005f, -0.00005f, 0.00004f, -0.00004f, 0.99995f, 9.99995f,
                               -9.99995f, 99999.99995f, 1e14f, -1e14f, 1e15f, 3e38f,
                               4294967296.0f, 18446744073709551616.0f};
  // Both sides of the switch to the general path.
  for (float edge : {1.0e11f, 1.0e10f, 1.0e14f}) {
    float v = edge;
    for (int i = 0; i < 50; ++i) v = std::nextafter(v, 0.0f);
    for (int i = 0; i < 100; ++i, v = std::nextafter(v, FLT_MAX)) {
      values.push_back(v);
      values.push_back(-v);
    }
  }
  EXPECT_EQ(mismatches(values), 0);
  EXPECT_EQ(fast(-0.0f), "-0.0000");
  EXPECT_EQ(fast(-0.00004f), "-0.0000");
  EXPECT_EQ(fast(-nan), "-nan");
  EXPECT_EQ(fast(inf), "inf");
}

TEST(PtsFormat, MatchesPrintfOnExactTies) {
  // n + k/32 with odd k has a 5 in the fifth decimal and nothing after: an exact tie, which
  // printf rounds to even.
  std::vector<float> values;
  for (int n = -300; n <= 300; ++n) {
    for (int k = 1; k < 32; k += 2) values.push_back(static_cast<float>(n) + k / 32.0f);
  }
  for (int k = 1; k < 2048; k += 2) values.push_back(k / 2048.0f);
  EXPECT_EQ(mismatches(values), 0);
  EXPECT_EQ(fast(1.03125f), "1.0312");
  EXPECT_EQ(fast(1.09375f), "1.0938");
  EXPECT_EQ(fast(-0.15625f), "-0.1562");
}

TEST(PtsFormat, MatchesPrintfOnRandomValues) {
  std::mt19937 rng(20260521);
  std::vector<float> values;
  values.reserve(3000000);
  // Every bit pattern is a float: all magnitudes, subnormals, NaNs with payloads.
  std::uniform_int_distribution<uint32_t> bits;
  for (int i = 0; i < 1000000; ++i) values.push_back(std::bit_cast<float>(bits(rng)));
  // Scene-sized coordinates, where nearly all real positions fall.
  std::uniform_real_distribution<float> scene(-5000.0f, 5000.0f);
  for (int i = 0; i < 1000000; ++i) values.push_back(scene(rng));
  std::uniform_real_distribution<float> small(-2.0f, 2.0f);
  for (int i = 0; i < 1000000; ++i) values.push_back(small(rng));
  EXPECT_EQ(mismatches(values), 0);
}

TEST(PtsFormat, IntegersMatchPrintf) {
  std::vector<int> values = {INT_MIN, INT_MIN + 1, INT_MAX, -1000000, 1000000, 99, 100, -99};
  for (int v = -300; v <= 300; ++v) values.push_back(v);
  for (int v : values) {
    char expected[32];
    std::snprintf(expected, sizeof expected, "%d", v);
    char buffer[32];
    EXPECT_EQ(std::string(buffer, pts::formatInt(buffer, v)), expected);
  }
}

std::string line(const LUtils::IrradSample& s, int mode) {
  char buffer[pts::kLineCapacity];
  return std::string(buffer, pts::formatLine(buffer, s, mode));
}

TEST(PtsFormat, Lines) {
  const LUtils::IrradSample s = cvtest::makeSample({1.0f, 2.5f, -3.0f}, 255, 128, 0);
  EXPECT_EQ(line(s, kPtsPositions), "v 1.0000 2.5000 -3.0000\r\n");
  EXPECT_EQ(line(s, kPtsPositionsAndColours), "v 1.0000 2.5000 -3.0000 -1 -128 0\r\n");
  EXPECT_EQ(line(s, 0), "");
  for (int byte = 0; byte < 256; ++byte) {
    const auto b = static_cast<uint8_t>(byte);
    char expected[64];
    std::snprintf(expected, sizeof expected, "v 0.0000 0.0000 0.0000 %d %d %d\r\n",
                  static_cast<int8_t>(b), static_cast<int8_t>(255 - byte), 0);
    EXPECT_EQ(line(cvtest::makeSample({}, b, static_cast<uint8_t>(255 - byte), 0),
                   kPtsPositionsAndColours),
              expected);
  }
  EXPECT_EQ(line(s, 3), "");

  // The longest line fits its buffer.
  const LUtils::IrradSample big = cvtest::makeSample({-FLT_MAX, -FLT_MAX, -FLT_MAX}, 128, 128, 128);
  const std::string longest = line(big, kPtsPositionsAndColours);
  EXPECT_LT(longest.size(), static_cast<size_t>(pts::kLineCapacity));
  char expected[pts::kLineCapacity];
  std::snprintf(expected, sizeof expected, "v %0.4f %0.4f %0.4f %d %d %d\r\n", -FLT_MAX, -FLT_MAX,
                -FLT_MAX, -128, -128, -128);
  EXPECT_EQ(longest, expected);
}

}  // namespace
