#include "minimal_raster.h"

#include <algorithm>
#include <cmath>

#include "render/disc_basis.h"
#include "render/view_projection.h"

namespace reference {

using LUtils::Vector;

MinimalRaster::MinimalRaster(int width, int height)
    : width_(width),
      height_(height),
      colour_(static_cast<size_t>(width) * height),
      depth_(static_cast<size_t>(width) * height) {}

void MinimalRaster::setView(const LUtils::Camera* camera, float farDistance) {
  const LUtils::Matrix4 m =
      LUtils::viewProjection(LUtils::cameraFrame(camera), width_, height_, farDistance);
  for (int i = 0; i < 16; ++i) m_[i] = static_cast<float>(m.m[i]);
}

void MinimalRaster::clear(uint32_t colour) {
  std::fill(colour_.begin(), colour_.end(), colour);
  std::fill(depth_.begin(), depth_.end(), 1.0f);
}

namespace {

struct Screen {
  float x, y, z;
};

float edge(const Screen& a, const Screen& b, float px, float py) {
  return (px - a.x) * (b.y - a.y) - (py - a.y) * (b.x - a.x);
}

}  // namespace

void MinimalRaster::drawTriangle(const Vector& a, const Vector& b, const Vector& c,
                                 uint32_t colour) {
  const Vector in[3] = {a, b, c};
  Screen s[3];
  for (int i = 0; i < 3; ++i) {
    const Vector& p = in[i];
    const float x = m_[0] * p.x + m_[4] * p.y + m_[8] * p.z + m_[12];
    const float y = m_[1] * p.x + m_[5] * p.y + m_[9] * p.z + m_[13];
    const float z = m_[2] * p.x + m_[6] * p.y + m_[10] * p.z + m_[14];
    const float w = m_[3] * p.x + m_[7] * p.y + m_[11] * p.z + m_[15];
    if (!(w > 0.0f) || z < -w || z > w) return;  // behind the near plane or past the far one
    s[i] = {(x / w + 1.0f) * 0.5f * static_cast<float>(width_),
            static_cast<float>(height_) - (y / w + 1.0f) * 0.5f * static_cast<float>(height_),
            z / w * 0.5f + 0.5f};
  }
  float area = edge(s[0], s[1], s[2].x, s[2].y);
  if (area == 0.0f) return;
  if (area < 0.0f) {
    std::swap(s[1], s[2]);
    area = -area;
  }
  const int minX = std::max(0, static_cast<int>(std::floor(std::min({s[0].x, s[1].x, s[2].x}))));
  const int maxX =
      std::min(width_ - 1, static_cast<int>(std::ceil(std::max({s[0].x, s[1].x, s[2].x}))));
  const int minY = std::max(0, static_cast<int>(std::floor(std::min({s[0].y, s[1].y, s[2].y}))));
  const int maxY =
      std::min(height_ - 1, static_cast<int>(std::ceil(std::max({s[0].y, s[1].y, s[2].y}))));
  for (int y = minY; y <= maxY; ++y) {
    for (int x = minX; x <= maxX; ++x) {
      const float px = static_cast<float>(x) + 0.5f, py = static_cast<float>(y) + 0.5f;
      const float w0 = edge(s[1], s[2], px, py);
      const float w1 = edge(s[2], s[0], px, py);
      const float w2 = edge(s[0], s[1], px, py);
      if (w0 < 0.0f || w1 < 0.0f || w2 < 0.0f) continue;
      const float z = (w0 * s[0].z + w1 * s[1].z + w2 * s[2].z) / area;
      const size_t i = static_cast<size_t>(y) * width_ + x;
      if (z <= depth_[i]) {
        depth_[i] = z;
        colour_[i] = colour;
      }
    }
  }
}

uint32_t packColour(const LUtils::Color& c) {
  auto byte = [](float v) {
    return static_cast<uint32_t>(std::lround(std::clamp(v, 0.0f, 1.0f) * 255.0f));
  };
  return byte(c.r) | byte(c.g) << 8 | byte(c.b) << 16 | 0xFF000000u;
}

namespace {

class DiscLoop final : public LUtils::EnumIrradianceSamplesCallback {
 public:
  DiscLoop(MinimalRaster& raster, float brightness, int sides)
      : raster_(raster), brightness_(brightness), sides_(std::clamp(sides, 3, 32)) {
    for (int i = 0; i < sides_; ++i) {
      const float a = 2.0f * static_cast<float>(i) * 3.1415927f / static_cast<float>(sides_);
      cosines_[i] = std::cos(a);
      sines_[i] = std::sin(a);
    }
  }
  int process(LUtils::IrradSample& s) override {
    const float r = 0.2f * std::sqrt(s.drawRadius2);
    if (!(r > 0.0f) || !std::isfinite(r)) return 1;
    Vector u, v;
    LUtils::discBasis(s.normal, u, v);
    Vector corners[32];
    for (int i = 0; i < sides_; ++i) {
      corners[i] = s.position + u * (r * cosines_[i]) + v * (r * sines_[i]);
    }
    const uint32_t colour = packColour(s.decodedColour() * brightness_);
    for (int i = 1; i + 1 < sides_; ++i) {
      raster_.drawTriangle(corners[0], corners[i], corners[i + 1], colour);
    }
    return 1;
  }

 private:
  MinimalRaster& raster_;
  float brightness_;
  int sides_;
  float cosines_[32], sines_[32];
};

}  // namespace

void drawDiscs(MinimalRaster& raster, LUtils::IrradianceMap& map, float brightness, int sides) {
  DiscLoop loop(raster, brightness, sides);
  map.enumerateSamples(0, &loop);
}

}  // namespace reference
