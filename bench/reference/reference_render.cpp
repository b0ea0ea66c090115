// reference-render MAP PICTURE.png [SIDES]: one frame of an irradiance map drawn by the minimal
// rasterizer, as a program: read the map, take the camera stored in it, draw every sample as a
// disc of SIDES sides (default 6) at 800 x 600 with the automatic brightness, write the PNG.
// bench/whole_programs.py times it against `cacheview-render -b sw`.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "irradiance/def_irradiance_map.h"
#include "minimal_raster.h"
#include "render/camera.h"
#include "render/png_writer.h"

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    std::fprintf(stderr, "usage: reference-render <map.lumap> <picture.png> [sides]\n");
    return 2;
  }
  const int sides = argc == 4 ? std::atoi(argv[3]) : 6;
  constexpr int kWidth = 800, kHeight = 600;
  LUtils::DefIrradianceMap map;
  if (map.loadFromFile(argv[1], 0, 0.0f) != 0 || !map.fileHeader()->hasCamera()) {
    std::fprintf(stderr, "reference-render: cannot read %s, or it has no camera\n", argv[1]);
    return 1;
  }
  LUtils::Vector lo{1e20f, 1e20f, 1e20f}, hi{-1e20f, -1e20f, -1e20f};
  double intensity = 0.0;
  for (size_t i = 0; i < map.samples().size(); ++i) {
    const LUtils::IrradSample& s = map.samples()[i];
    lo = {std::fmin(lo.x, s.position.x), std::fmin(lo.y, s.position.y), std::fmin(lo.z, s.position.z)};
    hi = {std::fmax(hi.x, s.position.x), std::fmax(hi.y, s.position.y), std::fmax(hi.z, s.position.z)};
    const LUtils::Color c = s.decodedColour();
    intensity += 0.33333334f * (c.r + c.g + c.b);
  }
  const double average = intensity / static_cast<double>(map.samples().size());
  const float brightness = average > 0.0 ? static_cast<float>(1.0 / (2.0 * average)) : 1.0f;

  LUtils::PinholeCamera camera;
  LUtils::setCameraFromStoredView(camera, LUtils::storedViewOf(*map.fileHeader()), kWidth,
                                  kHeight, (lo + hi) * 0.5f);
  reference::MinimalRaster raster(kWidth, kHeight);
  raster.setView(&camera, 4.0f * LUtils::length(hi - lo));
  raster.clear(reference::packColour({0.25f, 0.25f, 0.25f}));
  reference::drawDiscs(raster, map, brightness, sides);
  std::string error;
  if (!LUtils::writePng(argv[2], raster.pixels(), kWidth, kHeight, &error)) {
    std::fprintf(stderr, "reference-render: %s\n", error.c_str());
    return 1;
  }
  return 0;
}
