// The synthesised room as the rendering tests and benchmarks draw it: a map of the sample
// synthesiser's room with the view it was made from taken "from file", and the far distance the
// viewer would use. Header only: include it from code that links cv_synth.
#pragma once

#include <cstdint>

#include "irradiance/def_irradiance_map.h"
#include "render/camera.h"
#include "render/sample_drawing.h"
#include "synth/map_output.h"

namespace LUtils {

struct SynthRoom {
  DefIrradianceMap map;
  PinholeCamera camera;
  float farDistance = 0.0f;

  SynthRoom(uint32_t count, int width, int height) {
    synth::Params params;
    params.count = count;
    synth::generate(params, map);
    Vector lo, hi;
    sceneBounds({&map, nullptr}, lo, hi);
    setCameraFromStoredView(camera, storedViewOf(*map.header()), static_cast<float>(width),
                            static_cast<float>(height), (lo + hi) * 0.5f);
    farDistance = 4.0f * length(hi - lo);
  }

  DrawnMap drawn() { return {&map, nullptr}; }
};

}  // namespace LUtils
