#include "render/rasterizer_sw.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "render/band_recording.h"
#include "threads/prefault.h"

namespace LUtils {

using swr::FixedVertex;
using swr::Prim;
using swr::PrimKind;

namespace {

// Polygons with more points than this are drawn as a fan of triangles (same pixels).
constexpr unsigned kMaxDirectPoints = 48;
// Room for a polygon after clipping against six planes.
constexpr int kMaxClipped = kMaxDirectPoints + 8;
// Primitives are clipped at this multiple of the viewport only when they reach beyond it, so
// that fixed-point window coordinates stay small.
constexpr float kGuardBand = 4.0f;

uint8_t toByte(float c) {
  if (!(c > 0.0f)) return 0;
  if (c >= 1.0f) return 255;
  return static_cast<uint8_t>(swr::roundToInt(c * 255.0f));
}

uint32_t packColour(const Color& c) {
  return uint32_t{toByte(c.r)} | (uint32_t{toByte(c.g)} << 8) | (uint32_t{toByte(c.b)} << 16) |
         0xFF000000u;
}

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

// Signed distances to the clip planes: near, far, then the guard band's four sides.
constexpr int kPlaneCount = 6;
inline float planeDistance(const float* v, int plane) {
  switch (plane) {
    case 0: return v[2] + v[3];
    case 1: return v[3] - v[2];
    case 2: return kGuardBand * v[3] - v[0];
    case 3: return kGuardBand * v[3] + v[0];
    case 4: return kGuardBand * v[3] - v[1];
    default: return kGuardBand * v[3] + v[1];
  }
}

// Outside bits of the view volume itself (for trivial rejection) and of the clip planes,
// computed without branches: most discs need no clipping and are decided by these.
inline unsigned viewOutcode(const float* v) {
  const float x = v[0], y = v[1], z = v[2], w = v[3];
  return unsigned{x > w} | unsigned{x < -w} << 1 | unsigned{y > w} << 2 | unsigned{y < -w} << 3 |
         unsigned{z > w} << 4 | unsigned{z < -w} << 5;
}

inline unsigned clipOutcode(const float* v) {
  const float x = v[0], y = v[1], z = v[2], gw = kGuardBand * v[3];
  return unsigned{z + v[3] < 0.0f} | unsigned{v[3] - z < 0.0f} << 1 | unsigned{gw - x < 0.0f} << 2 |
         unsigned{gw + x < 0.0f} << 3 | unsigned{gw - y < 0.0f} << 4 | unsigned{gw + y < 0.0f} << 5;
}

template <typename V>
V lerp(const V& a, const V& b, float t) {
  return {a.x + (b.x - a.x) * t, a.y + (b.y - a.y) * t, a.z + (b.z - a.z) * t,
          a.w + (b.w - a.w) * t};
}

}  // namespace

RasterizerSW::RasterizerSW() = default;
RasterizerSW::~RasterizerSW() = default;

bool RasterizerSW::setBackfaceCulling(bool on) {
  const bool previous = cullRequested_;
  cullRequested_ = on;
  return previous;
}

void RasterizerSW::drawWholeFrame() {
  clipMinX_ = 0;
  clipMinY_ = 0;
  clipMaxX_ = width_ - 1;
  clipMaxY_ = height_ - 1;
}

void RasterizerSW::resize(int width, int height) {
  width_ = std::max(0, width);
  height_ = std::max(0, height);
  const size_t pixels = static_cast<size_t>(width_) * static_cast<size_t>(height_);
  // The buffers' pages are mapped in one call each rather than one fault at a time as they are
  // cleared: three buffers of a large window are a few thousand pages.
  auto fresh = [pixels](auto& buffer, auto value) {
    buffer.clear();
    reserveMapped(buffer, pixels);
    buffer.assign(pixels, value);
  };
  fresh(front_, clearColour_);
  fresh(back_, clearColour_);
  fresh(depth_, swr::quantizeDepth(1.0f));
  viewportWidth_ = width_;
  viewportHeight_ = height_;
  drawWholeFrame();
}

void RasterizerSW::setClearColor(const Color& color) { clearColour_ = packColour(color); }

void RasterizerSW::beginFrame() {
  std::fill(back_.begin(), back_.end(), clearColour_);
  // The depth buffer clears to its far end (OpenGL clamps the clear depth to 1).
  std::fill(depth_.begin(), depth_.end(), swr::quantizeDepth(1.0f));
  frame_ = cameraFrame(camera_);
  const Matrix4 m = viewProjection(frame_, width_, height_, farDistance_);
  for (int i = 0; i < 16; ++i) mvp_[i] = static_cast<float>(m.m[i]);
  // Window x * w = width / 2 * (x + w) and window y * w = height / 2 * (w - y), from the float
  // matrix the vertices are transformed with.
  for (int c = 0; c < 4; ++c) {
    const double x = mvp_[4 * c], y = mvp_[4 * c + 1], z = mvp_[4 * c + 2], w = mvp_[4 * c + 3];
    window_[4 * c] = 0.5 * width_ * (x + w);
    window_[4 * c + 1] = 0.5 * height_ * (w - y);
    window_[4 * c + 2] = z;
    window_[4 * c + 3] = w;
  }
  windowRowLengths(window_, rowLength_);
  depthTest_ = true;
  cullActive_ = cullRequested_;
  drawWholeFrame();
}

bool RasterizerSW::beginSelection(int x0, int y0, int x1, int y1, float depth) {
  if (depth != 0.0f) return false;
  clipMinX_ = std::max(0, std::min(x0, x1));
  clipMinY_ = std::max(0, std::min(y0, y1));
  clipMaxX_ = std::min(width_ - 1, std::max(x0, x1));
  clipMaxY_ = std::min(height_ - 1, std::max(y0, y1));
  return true;
}

int RasterizerSW::endSelection(SelectionCb& callback) {
  (void)callback;
  drawWholeFrame();
  return 0;
}

void RasterizerSW::swapBuffers() { front_.swap(back_); }

// The rectangle, clipped to the frame, row by row.
void RasterizerSW::readPickIndices(int x0, int y0, int x1, int y1, std::vector<uint32_t>& indices) {
  const uint32_t* pixels = colourBuffer();
  indices.clear();
  for (int y = std::max(0, y0); y <= std::min(y1, height_ - 1); ++y) {
    for (int x = std::max(0, x0); x <= std::min(x1, width_ - 1); ++x) {
      indices.push_back(pixels[static_cast<size_t>(y) * width_ + x] & 0xFFFFFFu);
    }
  }
}

[[gnu::always_inline]] inline RasterizerSW::ClipVertex RasterizerSW::transform(
    const Vector& p) const {
  const float* m = mvp_;
  return {m[0] * p.x + m[4] * p.y + m[8] * p.z + m[12],
          m[1] * p.x + m[5] * p.y + m[9] * p.z + m[13],
          m[2] * p.x + m[6] * p.y + m[10] * p.z + m[14],
          m[3] * p.x + m[7] * p.y + m[11] * p.z + m[15]};
}

[[gnu::always_inline]] inline FixedVertex RasterizerSW::toWindow(const ClipVertex& c) const {
  const float inv = 1.0f / c.w;
  const float wx = (c.x * inv + 1.0f) * 0.5f * static_cast<float>(width_);
  const float wy = static_cast<float>(height_) - (c.y * inv + 1.0f) * 0.5f * static_cast<float>(height_);
  const float wz = c.z * inv * 0.5f + 0.5f;
  return {swr::roundToInt(wx * swr::kSubpixel), swr::roundToInt(wy * swr::kSubpixel),
          std::clamp(wz, 0.0f, 1.0f)};
}

namespace {

// The rows (or columns) whose pixel centres k + 0.5 lie within [lo, hi], widened by a margin
// far above the rounding of window coordinates to 1/256 pixel, clipped to [minK, maxK].
void centresWithin(double lo, double hi, int minK, int maxK, int& first, int& last) {
  constexpr double kMargin = 1.0 / 64;
  const double f = std::ceil(lo - kMargin - 0.5), l = std::floor(hi + kMargin - 0.5);
  first = f < minK ? minK : f > maxK ? maxK + 1 : static_cast<int>(f);
  last = l > maxK ? maxK : l < minK ? minK - 1 : static_cast<int>(l);
}

// The recording the calling thread files its primitives into, and the rasterizer it does so for.
struct ThreadRecording {
  const RasterizerSW* owner = nullptr;
  BandRecording* recording = nullptr;
};
thread_local ThreadRecording t_recording;

}  // namespace

bool RasterizerSW::discPixels(const Vector& centre, float radius, int& x0, int& y0, int& x1,
                              int& y1) const {
  x0 = clipMinX_;
  y0 = clipMinY_;
  x1 = clipMaxX_;
  y1 = clipMaxY_;
  if (x0 > x1 || y0 > y1) return false;
  // A little over the radius: the polygon's vertices are made and transformed in float.
  const double r = 1.001 * radius +
                   1e-6 * (std::fabs(centre.x) + std::fabs(centre.y) + std::fabs(centre.z));
  WindowBox box;
  // Within reach of the near or far plane, or not finite: the polygon decides.
  if (!sphereWindowBox(window_, rowLength_, centre, r, box)) return true;
  centresWithin(box.loX, box.hiX, clipMinX_, clipMaxX_, x0, x1);
  centresWithin(box.loY, box.hiY, clipMinY_, clipMaxY_, y0, y1);
  return x0 <= x1 && y0 <= y1;
}

bool RasterizerSW::mayShowDisc(const Vector& centre, float radius) {
  // Outlines (fill mode 0) light pixels whose centres they miss.
  if (fillMode_ == 0 || width_ <= 0 || height_ <= 0) return fillMode_ == 0;
  int x0, y0, x1, y1;
  return discPixels(centre, radius, x0, y0, x1, y1);
}

void RasterizerSW::recordOnThisThread(BandRecording* recording) {
  t_recording = recording == nullptr ? ThreadRecording{} : ThreadRecording{this, recording};
}

void RasterizerSW::drawRecordedBand(const BandRecording& recording, unsigned band) {
  recording.draw({back_.data(), depth_.data(), width_, height_}, band);
}

void RasterizerSW::submitPolygon(const Vector* points, unsigned count, uint32_t colour) {
  if (count < 3 || width_ <= 0 || height_ <= 0) return;
  if (count > kMaxDirectPoints) {
    for (unsigned i = 1; i + 1 < count; ++i) {
      const Vector triangle[3] = {points[0], points[i], points[i + 1]};
      submitPolygon(triangle, 3, colour);
    }
    return;
  }

  ClipVertex buffers[2][kMaxClipped];
  ClipVertex* poly = buffers[0];
  int n = static_cast<int>(count);
  unsigned allOut = ~0u, anyClip = 0;
  for (int i = 0; i < n; ++i) {
    poly[i] = transform(points[i]);
    allOut &= viewOutcode(&poly[i].x);
    anyClip |= clipOutcode(&poly[i].x);
  }
  if (allOut != 0) return;
  if (anyClip != 0) {
    // Sutherland-Hodgman against every plane that some vertex is behind.
    for (int plane = 0; plane < kPlaneCount && n >= 3; ++plane) {
      if ((anyClip & (1u << plane)) == 0) continue;
      ClipVertex* out = poly == buffers[0] ? buffers[1] : buffers[0];
      int m = 0;
      for (int i = 0; i < n; ++i) {
        const ClipVertex& a = poly[i];
        const ClipVertex& b = poly[i + 1 == n ? 0 : i + 1];
        const float da = planeDistance(&a.x, plane);
        const float db = planeDistance(&b.x, plane);
        if (da >= 0.0f) out[m++] = a;
        if ((da >= 0.0f) != (db >= 0.0f) && m < kMaxClipped) out[m++] = lerp(a, b, da / (da - db));
      }
      poly = out;
      n = m;
    }
    if (n < 3) return;
  }

  FixedVertex v[kMaxClipped];
  int32_t minX = INT32_MAX, maxX = INT32_MIN, minY = INT32_MAX, maxY = INT32_MIN;
  for (int i = 0; i < n; ++i) {
    v[i] = toWindow(poly[i]);
    minX = std::min(minX, v[i].x);
    maxX = std::max(maxX, v[i].x);
    minY = std::min(minY, v[i].y);
    maxY = std::max(maxY, v[i].y);
  }
  // Pixels whose centres (k * 256 + 128) lie within the bounds. Most small discs of a dense map
  // cover no pixel centre at all and end here.
  constexpr int64_t half = swr::kSubpixel / 2;
  Prim prim;
  prim.kind = PrimKind::kPolygon;
  prim.minX = static_cast<int32_t>(std::max<int64_t>(clipMinX_, -floorDiv(half - minX, swr::kSubpixel)));
  prim.minY = static_cast<int32_t>(std::max<int64_t>(clipMinY_, -floorDiv(half - minY, swr::kSubpixel)));
  prim.maxX = static_cast<int32_t>(std::min<int64_t>(clipMaxX_, floorDiv(maxX - half, swr::kSubpixel)));
  prim.maxY = static_cast<int32_t>(std::min<int64_t>(clipMaxY_, floorDiv(maxY - half, swr::kSubpixel)));
  if (fillMode_ != 0 && (prim.minX > prim.maxX || prim.minY > prim.maxY)) return;

  int64_t area2 = 0;
  for (int i = 0; i < n; ++i) {
    const FixedVertex& a = v[i];
    const FixedVertex& b = v[i + 1 == n ? 0 : i + 1];
    area2 += int64_t{a.x} * b.y - int64_t{b.x} * a.y;
  }
  if (area2 == 0) return;
  // Counter-clockwise on screen (front-facing in OpenGL) is a negative area with y downward.
  if (cullActive_ && area2 > 0) return;

  if (fillMode_ == 0) {
    for (int i = 0; i < n; ++i) emitLine(v[i], v[i + 1 == n ? 0 : i + 1], colour);
    return;
  }
  if (area2 < 0) std::reverse(v, v + n);

  // The depth plane through the largest triangle of the fan, relative to its first vertex.
  int64_t best = 0;
  int bi = 1;
  for (int i = 1; i + 1 < n; ++i) {
    // Exact doubled areas of the fan's triangles.
    const int64_t d = std::llabs((int64_t{v[i].x} - v[0].x) * (int64_t{v[i + 1].y} - v[0].y) -
                                 (int64_t{v[i + 1].x} - v[0].x) * (int64_t{v[i].y} - v[0].y));
    if (d > best) {
      best = d;
      bi = i;
    }
  }
  const double s = 1.0 / swr::kSubpixel;
  const double e1x = (v[bi].x - v[0].x) * s, e1y = (v[bi].y - v[0].y) * s;
  const double e2x = (v[bi + 1].x - v[0].x) * s, e2y = (v[bi + 1].y - v[0].y) * s;
  const double e1z = static_cast<double>(v[bi].z) - v[0].z;
  const double e2z = static_cast<double>(v[bi + 1].z) - v[0].z;
  const double det = e1x * e2y - e2x * e1y;
  if (det != 0.0) {
    prim.zx = static_cast<float>((e1z * e2y - e2z * e1y) / det);
    prim.zy = static_cast<float>((e2z * e1x - e1z * e2x) / det);
  }
  prim.z0 = v[0].z;
  prim.refX = static_cast<float>(v[0].x * s);
  prim.refY = static_cast<float>(v[0].y * s);
  prim.depthTest = depthTest_ ? 1 : 0;
  prim.colour = colour;
  prim.count = static_cast<uint16_t>(n);
  emit(prim, v);
}

void RasterizerSW::submitLine(const Vector& a, const Vector& b, uint32_t colour) {
  if (width_ <= 0 || height_ <= 0) return;
  ClipVertex ca = transform(a);
  ClipVertex cb = transform(b);
  if ((viewOutcode(&ca.x) & viewOutcode(&cb.x)) != 0) return;
  const unsigned clip = clipOutcode(&ca.x) | clipOutcode(&cb.x);
  if (clip != 0) {
    float t0 = 0.0f, t1 = 1.0f;
    for (int plane = 0; plane < kPlaneCount; ++plane) {
      if ((clip & (1u << plane)) == 0) continue;
      const float da = planeDistance(&ca.x, plane);
      const float db = planeDistance(&cb.x, plane);
      if (da < 0.0f && db < 0.0f) return;
      const float t = da / (da - db);
      if (da < 0.0f) {
        t0 = std::max(t0, t);
      } else if (db < 0.0f) {
        t1 = std::min(t1, t);
      }
    }
    if (t0 >= t1) return;
    const ClipVertex start = lerp(ca, cb, t0);
    const ClipVertex end = lerp(ca, cb, t1);
    ca = start;
    cb = end;
  }
  emitLine(toWindow(ca), toWindow(cb), colour);
}

void RasterizerSW::emitLine(const FixedVertex& a, const FixedVertex& b, uint32_t colour) {
  Prim prim;
  prim.kind = PrimKind::kLine;
  prim.count = 2;
  prim.colour = colour;
  prim.depthTest = depthTest_ ? 1 : 0;
  const int64_t lo_y = std::min(a.y, b.y) / swr::kSubpixel - 1;
  const int64_t hi_y = std::max(a.y, b.y) / swr::kSubpixel + 1;
  prim.minX = clipMinX_;
  prim.maxX = clipMaxX_;
  prim.minY = static_cast<int32_t>(std::max<int64_t>(clipMinY_, lo_y));
  prim.maxY = static_cast<int32_t>(std::min<int64_t>(clipMaxY_, hi_y));
  if (prim.minY > prim.maxY) return;
  const FixedVertex v[2] = {a, b};
  emit(prim, v);
}

void RasterizerSW::emit(Prim& prim, const FixedVertex* vertices) {
  prim.firstVertex = 0;
  if (t_recording.owner == this) {
    t_recording.recording->record(prim, vertices);
    return;
  }
  const swr::Target target{back_.data(), depth_.data(), width_, height_};
  swr::rasterize(target, prim, vertices);
}

Color RasterizerSW::litColour(const Color& colour, const Vector& position,
                              const Vector& normal) const {
  // The OpenGL back end's lighting evaluated once per primitive: global ambient 0.2, a warm and
  // a cool positional light, specular (1, 1, 1) with shininess 50, local viewer, two-sided.
  const Vector toEye = frame_.eye - position;
  Vector n = normal;
  if (dot(n, toEye) < 0.0f) n = -n;
  const float nl = length(n);
  if (nl > 0.0f) n = n / nl;
  const float el = length(toEye);
  const Vector view = el > 0.0f ? toEye / el : Vector{};
  Color result = colour * 0.2f;
  const Vector lights[2] = {frame_.eye + frame_.right - frame_.forward + frame_.up,
                            frame_.eye - frame_.right - frame_.forward + frame_.up};
  const Color lightColours[2] = {{0.5f, 0.5f, 0.4f}, {0.4f, 0.4f, 0.5f}};
  for (int i = 0; i < 2; ++i) {
    Vector l = lights[i] - position;
    const float ll = length(l);
    if (!(ll > 0.0f)) continue;
    l = l / ll;
    const float diffuse = dot(n, l);
    if (diffuse <= 0.0f) continue;
    const Color& lc = lightColours[i];
    result += Color{colour.r * lc.r, colour.g * lc.g, colour.b * lc.b} * diffuse;
    Vector h = l + view;
    const float hl = length(h);
    if (hl > 0.0f) {
      const float highlight = std::pow(std::max(0.0f, dot(n, h / hl)), 50.0f);
      result += lc * highlight;
    }
  }
  return result;
}

void RasterizerSW::drawLine(const Vector& a, const Vector& b, const Color& color) {
  submitLine(a, b, packColour(color));
}

void RasterizerSW::drawLitLine(const Vector& a, const Vector& b, const Vector& na,
                               const Vector& nb, const Color& color) {
  submitLine(a, b, packColour(litColour(color, (a + b) * 0.5f, na + nb)));
}

void RasterizerSW::drawLitTriangle(const Vector& a, const Vector& b, const Vector& c,
                                   const Vector& na, const Vector& nb, const Vector& nc,
                                   const Color& color) {
  const Vector points[3] = {a, b, c};
  const Vector centre = (a + b + c) * (1.0f / 3.0f);
  submitPolygon(points, 3, packColour(litColour(color, centre, na + nb + nc)));
}

void RasterizerSW::drawTriangle(const Vector& a, const Vector& b, const Vector& c,
                                const Color& color) {
  const Vector points[3] = {a, b, c};
  submitPolygon(points, 3, packColour(color));
}

void RasterizerSW::drawPolygon(const Vector* points, unsigned count, const Color& color) {
  submitPolygon(points, count, packColour(color));
}

void RasterizerSW::drawPolygonRGBA(const Vector* points, unsigned count, uint32_t rgba) {
  // Alpha is not used: the picture is opaque.
  submitPolygon(points, count, rgba | 0xFF000000u);
}

void RasterizerSW::drawQuadOrPolygon(const Vector* points, unsigned count, const Color& color) {
  submitPolygon(points, count, packColour(color));
}

void RasterizerSW::drawPoint(const Vector& position, int halfSize, const Color& color) {
  if (width_ <= 0 || height_ <= 0) return;
  const ClipVertex c = transform(position);
  if (viewOutcode(&c.x) != 0 || !(c.w > 0.0f)) return;
  const FixedVertex v = toWindow(c);
  const int h = std::max(0, halfSize);
  const int32_t px = static_cast<int32_t>(floorDiv(v.x, swr::kSubpixel));
  const int32_t py = static_cast<int32_t>(floorDiv(v.y, swr::kSubpixel));
  Prim prim;
  prim.kind = PrimKind::kPoint;
  prim.count = 1;
  prim.halfSize = static_cast<uint16_t>(std::min(h, 0xFFFF));
  prim.colour = packColour(color);
  prim.depthTest = depthTest_ ? 1 : 0;
  prim.z0 = v.z;
  prim.minX = std::max(clipMinX_, px - h);
  prim.maxX = std::min(clipMaxX_, px + h);
  prim.minY = std::max(clipMinY_, py - h);
  prim.maxY = std::min(clipMaxY_, py + h);
  if (prim.minX > prim.maxX || prim.minY > prim.maxY) return;
  emit(prim, &v);
}

}  // namespace LUtils
