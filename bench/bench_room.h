// The synthesised room as the drawing benchmarks use it: an off-screen OpenGL rasterizer set up
// with the room's camera and far distance.
#pragma once

#include <memory>

#include "render/gl/rasterizer_gl.h"
#include "synth/synth_room.h"

namespace benchroom {

// Null when no off-screen OpenGL context can be made here.
inline std::unique_ptr<LUtils::RasterizerGL> makeOffscreenGL(LUtils::SynthRoom& room, int width,
                                                             int height) {
  auto gl = std::make_unique<LUtils::RasterizerGL>();
  gl->resize(width, height);
  if (!gl->hasOffscreenContext()) return nullptr;
  gl->setCamera(&room.camera);
  gl->setFarDistance(room.farDistance);
  return gl;
}

}  // namespace benchroom
