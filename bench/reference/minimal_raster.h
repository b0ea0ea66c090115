// The reference rasterizer of the benchmarks, written plainly: triangles transformed by one
// view-projection matrix, a bounding box per triangle clamped to the frame, three edge
// functions evaluated in float at every pixel centre of the box, depth interpolated from the
// barycentric weights and a float z-buffer with a less-or-equal test. No binning, no threads, no
// fixed point; a triangle with a vertex behind the near plane is left out rather than clipped.
#pragma once

#include <cstdint>
#include <vector>

#include "io/vector.h"
#include "irradiance/irradiance_map.h"

namespace LUtils {
class Camera;
}

namespace reference {

class MinimalRaster {
 public:
  MinimalRaster(int width, int height);

  // The view of the camera with the far distance, as the program's rasterizers set it up.
  void setView(const LUtils::Camera* camera, float farDistance);
  // Fills the colour buffer and resets the depth buffer.
  void clear(uint32_t colour);
  // One flat triangle in 0xAABBGGRR.
  void drawTriangle(const LUtils::Vector& a, const LUtils::Vector& b, const LUtils::Vector& c,
                    uint32_t colour);

  int width() const { return width_; }
  int height() const { return height_; }
  // width x height pixels, top row first, 0xAABBGGRR.
  const uint32_t* pixels() const { return colour_.data(); }

 private:
  int width_, height_;
  float m_[16] = {};
  std::vector<uint32_t> colour_;
  std::vector<float> depth_;
};

// Packs a colour as 0xAABBGGRR, each channel clamped to [0, 1] and rounded.
uint32_t packColour(const LUtils::Color& c);

// Every sample of the irradiance map as a disc of `sides` sides (a fan of triangles) in its
// colour times `brightness`, the disc of the program's drawing: radius 0.2 x sqrt(drawRadius2),
// in the plane of the sample's normal.
void drawDiscs(MinimalRaster& raster, LUtils::IrradianceMap& map, float brightness, int sides);

}  // namespace reference
