#include "render/disc_scene.h"

#include <cmath>
#include <random>

#include "render/camera.h"
#include "render/disc_basis.h"
#include "render/rasterizer.h"

namespace LUtils {

namespace {

struct Patch {
  Vector origin, edgeU, edgeV, normal;
  Color colour;
};

float area(const Patch& p) { return length(cross(p.edgeU, p.edgeV)); }

}  // namespace

std::vector<Disc> makeRoomScene(uint32_t count, uint32_t seed, float radiusScale) {
  const Color white{0.8f, 0.78f, 0.72f}, red{0.75f, 0.15f, 0.12f}, green{0.2f, 0.6f, 0.25f};
  const Color blue{0.2f, 0.3f, 0.8f}, wood{0.55f, 0.35f, 0.18f}, gold{0.9f, 0.7f, 0.2f};
  std::vector<Patch> patches = {
      {{-5, 0, -5}, {10, 0, 0}, {0, 0, 10}, {0, 1, 0}, wood},     // floor
      {{-5, 6, -5}, {10, 0, 0}, {0, 0, 10}, {0, -1, 0}, white},   // ceiling
      {{-5, 0, -5}, {10, 0, 0}, {0, 6, 0}, {0, 0, 1}, white},     // back wall
      {{-5, 0, 5}, {10, 0, 0}, {0, 6, 0}, {0, 0, -1}, white},     // front wall
      {{-5, 0, -5}, {0, 0, 10}, {0, 6, 0}, {1, 0, 0}, red},       // left wall
      {{5, 0, -5}, {0, 0, 10}, {0, 6, 0}, {-1, 0, 0}, green},     // right wall
      // A box: top and the four sides.
      {{-3, 2, -2}, {3, 0, 0}, {0, 0, 2}, {0, 1, 0}, blue},
      {{-3, 0, 0}, {3, 0, 0}, {0, 2, 0}, {0, 0, 1}, blue},
      {{-3, 0, -2}, {3, 0, 0}, {0, 2, 0}, {0, 0, -1}, blue},
      {{-3, 0, -2}, {0, 0, 2}, {0, 2, 0}, {-1, 0, 0}, blue},
      {{0, 0, -2}, {0, 0, 2}, {0, 2, 0}, {1, 0, 0}, blue},
  };
  const Vector ballCentre{2.5f, 1.5f, 0.5f};
  const float ballRadius = 1.5f;
  float total = 4.0f * 3.1415927f * ballRadius * ballRadius;
  for (const Patch& p : patches) total += area(p);
  const float spacing = std::sqrt(total / static_cast<float>(std::max<uint32_t>(count, 1)));

  std::mt19937 random(seed);
  // Jitter keeps discs of radius below 0.35 spacing apart: centres stay 0.4 spacing apart.
  std::uniform_real_distribution<float> jitter(-0.3f, 0.3f);
  std::uniform_real_distribution<float> shade(0.85f, 1.15f);
  std::vector<Disc> discs;
  discs.reserve(count + count / 8);
  for (const Patch& p : patches) {
    const int nu = std::max(1, static_cast<int>(std::lround(length(p.edgeU) / spacing)));
    const int nv = std::max(1, static_cast<int>(std::lround(length(p.edgeV) / spacing)));
    for (int i = 0; i < nu; ++i) {
      for (int j = 0; j < nv; ++j) {
        const float u = (static_cast<float>(i) + 0.5f + jitter(random)) / static_cast<float>(nu);
        const float v = (static_cast<float>(j) + 0.5f + jitter(random)) / static_cast<float>(nv);
        // Light falls off towards the floor and the back of the room.
        const Vector at = p.origin + p.edgeU * u + p.edgeV * v;
        const float light = (0.55f + 0.07f * at.y + 0.03f * at.z) * shade(random);
        discs.push_back({at, p.normal, spacing * radiusScale, p.colour * light});
      }
    }
  }
  const int rings = std::max(2, static_cast<int>(3.1415927f * ballRadius / spacing));
  for (int r = 0; r < rings; ++r) {
    const float theta = 3.1415927f * (static_cast<float>(r) + 0.5f) / static_cast<float>(rings);
    const int around = std::max(3, static_cast<int>(2.0f * 3.1415927f * ballRadius *
                                                    std::sin(theta) / spacing));
    for (int a = 0; a < around; ++a) {
      const float phi = 6.2831855f * (static_cast<float>(a) + 0.5f * static_cast<float>(r % 2)) /
                        static_cast<float>(around);
      const Vector n{std::sin(theta) * std::cos(phi), std::cos(theta),
                     std::sin(theta) * std::sin(phi)};
      discs.push_back({ballCentre + n * ballRadius, n, spacing * radiusScale,
                       gold * (0.6f + 0.4f * n.y)});
    }
  }
  return discs;
}

void lookIntoRoom(PinholeCamera& camera, int width, int height) {
  camera.setImage(static_cast<float>(width), static_cast<float>(height), 1.3f);
  camera.lookAt({1.0f, 4.0f, 4.6f}, {-0.5f, 1.2f, -3.0f}, {0, 1, 0});
}

void drawDiscs(Rasterizer3D& rasterizer, const Disc* discs, size_t count, int sides,
               bool indexColours, uint32_t firstIndex) {
  if (sides < 3) sides = 3;
  if (sides > 32) sides = 32;
  float cosines[32], sines[32];
  for (int i = 0; i < sides; ++i) {
    const float a = 2.0f * static_cast<float>(i) * 3.1415927f / static_cast<float>(sides);
    cosines[i] = std::cos(a);
    sines[i] = std::sin(a);
  }
  Vector vertices[32];
  for (size_t d = 0; d < count; ++d) {
    const Disc& disc = discs[d];
    if (!rasterizer.mayShowDisc(disc.position, disc.radius)) continue;
    Vector u, v;
    discBasis(disc.normal, u, v);
    for (int i = 0; i < sides; ++i) {
      vertices[i] = disc.position + u * (disc.radius * cosines[i]) + v * (disc.radius * sines[i]);
    }
    if (indexColours) {
      rasterizer.drawPolygonRGBA(vertices, static_cast<unsigned>(sides),
                                 firstIndex + static_cast<uint32_t>(d));
    } else {
      rasterizer.drawQuadOrPolygon(vertices, static_cast<unsigned>(sides), disc.colour);
    }
  }
}

}  // namespace LUtils
