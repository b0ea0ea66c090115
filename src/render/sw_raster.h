// The pixel stage of the software rasterizer: screen-space primitives (convex polygons with
// vertices snapped to 1/256 pixel, lines, square points) filled into a colour and depth buffer.
// Coverage is decided with exact integer edge functions and a top-left rule, and depth from the
// primitive's plane, pixel by pixel: a pixel's result does not depend on which of the primitive's
// rows a call draws (its row range cut to a band), so drawing the rows in bands on several
// threads gives exactly the picture of one thread.
#pragma once

#include <cmath>
#include <cstdint>
#if defined(__SSE__) || defined(_M_X64)
#include <xmmintrin.h>
#endif

namespace LUtils::swr {

// std::lrint without the library call: rounds to nearest, ties to even, under the default
// rounding mode. The argument must fit in 32 bits.
inline int32_t roundToInt(float x) {
#if defined(__SSE__) || defined(_M_X64)
  return _mm_cvtss_si32(_mm_set_ss(x));
#else
  return static_cast<int32_t>(std::lrint(x));
#endif
}

constexpr int kSubpixelBits = 8;
constexpr int kSubpixel = 1 << kSubpixelBits;

// Window position in 1/256 pixel (y downward) and depth in [0, 1].
struct FixedVertex {
  int32_t x, y;
  float z;
};

enum class PrimKind : uint8_t { kPolygon, kLine, kPoint };

// A primitive ready for the pixel stage; its vertices live in the caller's vertex array.
struct Prim {
  PrimKind kind = PrimKind::kPolygon;
  uint8_t depthTest = 1;
  uint16_t count = 0;     // vertices
  uint16_t halfSize = 0;  // points: the square spans 2 x halfSize + 1 pixels
  uint32_t colour = 0;    // 0xAABBGGRR
  // Inclusive pixel rectangle the primitive may touch (bounds within the scissor).
  int32_t minX = 0, minY = 0, maxX = -1, maxY = -1;
  // Polygons: depth at pixel position (x, y) is z0 + zx (x - refX) + zy (y - refY); points: z0.
  float zx = 0.0f, zy = 0.0f, z0 = 0.0f;
  float refX = 0.0f, refY = 0.0f;
  uint32_t firstVertex = 0;
};

// Depth is kept as 24-bit fixed point, like the OpenGL back end's depth buffer: coplanar discs
// then tie the same way in both back ends (the later one wins under the less-or-equal test).
constexpr float kDepthScale = 16777215.0f;
inline uint32_t quantizeDepth(float z) { return static_cast<uint32_t>(z * kDepthScale + 0.5f); }

struct Target {
  uint32_t* colour;
  uint32_t* depth;
  int width;
  int height;
};

// Polygon vertices must wind so that the doubled signed area (y downward) is positive.
void rasterize(const Target& target, const Prim& prim, const FixedVertex* vertices);

constexpr int kMaxPolygonVertices = 64;

// Calls cover(x, y, z) for every pixel of the polygon within its rectangle, row by row, with the
// depth the pixel gets: the coverage and depth that rasterize() fills with.
template <class Cover>
inline void scanPolygon(const Prim& p, const FixedVertex* v, Cover&& cover) {
  const int n = p.count < kMaxPolygonVertices ? p.count : kMaxPolygonVertices;
  int64_t dxs[kMaxPolygonVertices], dys[kMaxPolygonVertices];
  int64_t x0s[kMaxPolygonVertices], y0s[kMaxPolygonVertices];
  int64_t bias[kMaxPolygonVertices];
  for (int i = 0; i < n; ++i) {
    const FixedVertex& a = v[i];
    const FixedVertex& b = v[i + 1 == n ? 0 : i + 1];
    dxs[i] = int64_t{b.x} - a.x;
    dys[i] = int64_t{b.y} - a.y;
    x0s[i] = a.x;
    y0s[i] = a.y;
    // Top-left rule: a sample exactly on a top or left edge belongs to the polygon.
    const bool topLeft = dys[i] < 0 || (dys[i] == 0 && dxs[i] > 0);
    bias[i] = topLeft ? 0 : 1;
  }
  const int64_t firstSampleX = int64_t{p.minX} * kSubpixel + kSubpixel / 2;
  int64_t edge[kMaxPolygonVertices];
  int64_t step[kMaxPolygonVertices];
  for (int i = 0; i < n; ++i) step[i] = -dys[i] * kSubpixel;

  for (int py = p.minY; py <= p.maxY; ++py) {
    const int64_t sampleY = int64_t{py} * kSubpixel + kSubpixel / 2;
    for (int i = 0; i < n; ++i) {
      edge[i] = dxs[i] * (sampleY - y0s[i]) - dys[i] * (firstSampleX - x0s[i]);
    }
    const float rowDepth = p.z0 + p.zy * (static_cast<float>(py) + 0.5f - p.refY);
    for (int px = p.minX; px <= p.maxX; ++px) {
      bool inside = true;
      for (int i = 0; i < n; ++i) {
        inside &= edge[i] >= bias[i];
        edge[i] += step[i];
      }
      if (inside) cover(px, py, rowDepth + p.zx * (static_cast<float>(px) + 0.5f - p.refX));
    }
  }
}

}  // namespace LUtils::swr
