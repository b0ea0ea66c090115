// An off-screen OpenGL context for drawing without a display: EGL on Mesa's surfaceless platform,
// a desktop OpenGL (compatibility) context and a pbuffer surface with 8-bit RGB colour, 24-bit
// depth and 8-bit stencil.
#pragma once

#include <string>

namespace LUtils {

class OffscreenGLContext {
 public:
  // Creates the context and its surface; check ok() and error().
  OffscreenGLContext(int width, int height);
  ~OffscreenGLContext();
  OffscreenGLContext(const OffscreenGLContext&) = delete;
  OffscreenGLContext& operator=(const OffscreenGLContext&) = delete;

  bool ok() const { return context_ != nullptr; }
  const std::string& error() const { return error_; }
  int width() const { return width_; }
  int height() const { return height_; }
  // The renderer is a software one (llvmpipe, softpipe, swrast).
  bool softwareRenderer() const { return software_; }
  bool makeCurrent();
  // Leaves no context current on the calling thread if this one is.
  void release();

 private:
  void* display_ = nullptr;
  void* context_ = nullptr;
  void* surface_ = nullptr;
  int width_ = 0;
  int height_ = 0;
  bool software_ = false;
  std::string error_;
};

// Whether an off-screen context can be made here; `why` gets the reason when not.
bool offscreenGLAvailable(std::string* why);

}  // namespace LUtils
