// Off-screen OpenGL for the back end's tests: a rasterizer with its own context, or a skipped test
// where no context can be made (a machine without Mesa's EGL).
#pragma once

#include <gtest/gtest.h>

#include "render/gl/rasterizer_gl.h"
#include "render/render_test_support.h"

namespace LUtils::testing {

// Resizes `gl` to an off-screen context; false (and the test skips) when there is none.
inline bool makeOffscreen(RasterizerGL& gl, int width, int height) {
  gl.resize(width, height);
  return gl.hasOffscreenContext();
}

#define CACHEVIEW_REQUIRE_OFFSCREEN_GL(gl, width, height)                                 \
  if (!::LUtils::testing::makeOffscreen(gl, width, height)) {                            \
    GTEST_SKIP() << "No off-screen OpenGL context here (" << (gl).offscreenError()      \
                 << "); OpenGL rendering tests skipped";                                 \
  }

}  // namespace LUtils::testing
