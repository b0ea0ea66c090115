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

void rasterizePolygon(const Target& t, const Prim& p, const FixedVertex* v) {
  const bool depthTest = p.depthTest != 0;
  scanPolygon(p, v, [&](int x, int y, float z) { plot(t, x, y, z, p.colour, depthTest); });
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
