#include "render/sw_raster.h"

#include <algorithm>
#include <cmath>

namespace LUtils::swr {

namespace {

// Depth test LEQUAL; without the test the depth buffer is left alone, as in OpenGL.
inline void plot(const Target& t, int x, int y, float z, uint32_t colour, bool depthTest) {
  const size_t i = static_cast<size_t>(y) * static_cast<size_t>(t.width) + static_cast<size_t>(x);
  if (!depthTest) {
    t.colour[i] = colour;
  } else if (const uint32_t q = quantizeDepth(z); q <= t.depth[i]) {
    t.depth[i] = q;
    t.colour[i] = colour;
  }
}

constexpr int kMaxPolygonVertices = 64;

void rasterizePolygon(const Target& t, const Prim& p, const FixedVertex* v) {
  const int n = std::min<int>(p.count, kMaxPolygonVertices);
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
  const bool depthTest = p.depthTest != 0;
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
      if (inside) {
        const float z = rowDepth + p.zx * (static_cast<float>(px) + 0.5f - p.refX);
        plot(t, px, py, z, p.colour, depthTest);
      }
    }
  }
}

// Pixels whose centres lie on the half-open span along the major axis, one per column (or row).
void rasterizeLine(const Target& t, const Prim& p, const FixedVertex* v) {
  double ax = v[0].x / double{kSubpixel}, ay = v[0].y / double{kSubpixel};
  double bx = v[1].x / double{kSubpixel}, by = v[1].y / double{kSubpixel};
  double az = v[0].z, bz = v[1].z;
  const bool depthTest = p.depthTest != 0;
  const bool xMajor = std::fabs(bx - ax) >= std::fabs(by - ay);
  if (xMajor) {
    if (ax > bx) {
      std::swap(ax, bx);
      std::swap(ay, by);
      std::swap(az, bz);
    }
    const double span = bx - ax;
    if (span <= 0.0) return;
    const int first = std::max(static_cast<int>(std::ceil(ax - 0.5)), p.minX);
    const int last = std::min(static_cast<int>(std::ceil(bx - 0.5)) - 1, p.maxX);
    for (int px = first; px <= last; ++px) {
      const double f = (px + 0.5 - ax) / span;
      const int py = static_cast<int>(std::floor(ay + f * (by - ay)));
      if (py < p.minY || py > p.maxY) continue;
      plot(t, px, py, static_cast<float>(az + f * (bz - az)), p.colour, depthTest);
    }
  } else {
    if (ay > by) {
      std::swap(ax, bx);
      std::swap(ay, by);
      std::swap(az, bz);
    }
    const double span = by - ay;
    if (span <= 0.0) return;
    const int first = std::max(static_cast<int>(std::ceil(ay - 0.5)), p.minY);
    const int last = std::min(static_cast<int>(std::ceil(by - 0.5)) - 1, p.maxY);
    for (int py = first; py <= last; ++py) {
      const double f = (py + 0.5 - ay) / span;
      const int px = static_cast<int>(std::floor(ax + f * (bx - ax)));
      if (px < p.minX || px > p.maxX) continue;
      plot(t, px, py, static_cast<float>(az + f * (bz - az)), p.colour, depthTest);
    }
  }
}

void rasterizePoint(const Target& t, const Prim& p) {
  const bool depthTest = p.depthTest != 0;
  for (int py = p.minY; py <= p.maxY; ++py) {
    for (int px = p.minX; px <= p.maxX; ++px) plot(t, px, py, p.z0, p.colour, depthTest);
  }
}

}  // namespace

void rasterize(const Target& target, const Prim& prim, const FixedVertex* vertices) {
  switch (prim.kind) {
    case PrimKind::kPolygon:
      rasterizePolygon(target, prim, vertices + prim.firstVertex);
      break;
    case PrimKind::kLine:
      rasterizeLine(target, prim, vertices + prim.firstVertex);
      break;
    case PrimKind::kPoint:
      rasterizePoint(target, prim);
      break;
  }
}

}  // namespace LUtils::swr
