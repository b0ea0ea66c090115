#include "render/gl/offscreen_gl_context.h"

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <GL/gl.h>

#include <cstdio>
#include <cstring>
#include <mutex>

namespace LUtils {

namespace {

// eglTerminate ends every context of a display, so the process-wide display stays initialised
// while any off-screen context uses it.
std::mutex gDisplayMutex;
EGLDisplay gDisplay = EGL_NO_DISPLAY;
int gDisplayUsers = 0;

std::string eglErrorText(const char* what) {
  char text[96];
  std::snprintf(text, sizeof text, "%s failed (EGL error 0x%04X)", what,
                static_cast<unsigned>(eglGetError()));
  return text;
}

EGLDisplay acquireDisplay(std::string& error) {
  std::lock_guard<std::mutex> lock(gDisplayMutex);
  if (gDisplayUsers == 0) {
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    auto getPlatformDisplay = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(
        eglGetProcAddress("eglGetPlatformDisplayEXT"));
    if (clientExtensions == nullptr ||
        std::strstr(clientExtensions, "EGL_MESA_platform_surfaceless") == nullptr ||
        getPlatformDisplay == nullptr) {
      error = "EGL has no surfaceless platform (EGL_MESA_platform_surfaceless)";
      return EGL_NO_DISPLAY;
    }
    EGLDisplay display =
        getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (display == EGL_NO_DISPLAY) {
      error = eglErrorText("eglGetPlatformDisplayEXT");
      return EGL_NO_DISPLAY;
    }
    EGLint major = 0, minor = 0;
    if (eglInitialize(display, &major, &minor) != EGL_TRUE) {
      error = eglErrorText("eglInitialize");
      return EGL_NO_DISPLAY;
    }
    gDisplay = display;
  }
  ++gDisplayUsers;
  return gDisplay;
}

void releaseDisplay() {
  std::lock_guard<std::mutex> lock(gDisplayMutex);
  if (gDisplayUsers > 0 && --gDisplayUsers == 0) {
    eglTerminate(gDisplay);
    gDisplay = EGL_NO_DISPLAY;
  }
}

}  // namespace

OffscreenGLContext::OffscreenGLContext(int width, int height) : width_(width), height_(height) {
  if (width < 1 || height < 1) {
    error_ = "the off-screen size must be at least 1 x 1";
    return;
  }
  EGLDisplay display = acquireDisplay(error_);
  if (display == EGL_NO_DISPLAY) return;
  display_ = display;

  const EGLint configAttributes[] = {EGL_SURFACE_TYPE, EGL_PBUFFER_BIT,
                                     EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT,
                                     EGL_RED_SIZE, 8, EGL_GREEN_SIZE, 8, EGL_BLUE_SIZE, 8,
                                     EGL_DEPTH_SIZE, 24, EGL_STENCIL_SIZE, 8, EGL_NONE};
  EGLConfig config = nullptr;
  EGLint configCount = 0;
  if (eglChooseConfig(display, configAttributes, &config, 1, &configCount) != EGL_TRUE ||
      configCount < 1) {
    error_ = "no EGL configuration with RGB colour, 24-bit depth and 8-bit stencil";
    return;
  }
  if (eglBindAPI(EGL_OPENGL_API) != EGL_TRUE) {
    error_ = eglErrorText("eglBindAPI(EGL_OPENGL_API)");
    return;
  }
  const EGLint surfaceAttributes[] = {EGL_WIDTH, width, EGL_HEIGHT, height, EGL_NONE};
  EGLSurface surface = eglCreatePbufferSurface(display, config, surfaceAttributes);
  if (surface == EGL_NO_SURFACE) {
    error_ = eglErrorText("eglCreatePbufferSurface");
    return;
  }
  surface_ = surface;
  // No version requested: Mesa then gives the highest compatibility-profile context.
  EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, nullptr);
  if (context == EGL_NO_CONTEXT) {
    error_ = eglErrorText("eglCreateContext");
    return;
  }
  context_ = context;
  if (!makeCurrent()) {
    error_ = eglErrorText("eglMakeCurrent");
    eglDestroyContext(display, context);
    context_ = nullptr;
    return;
  }
  const auto* renderer = reinterpret_cast<const char*>(glGetString(GL_RENDERER));
  if (renderer != nullptr) {
    software_ = std::strstr(renderer, "llvmpipe") != nullptr ||
                std::strstr(renderer, "softpipe") != nullptr ||
                std::strstr(renderer, "swrast") != nullptr;
  }
}

OffscreenGLContext::~OffscreenGLContext() {
  if (display_ == nullptr) return;
  release();
  if (context_ != nullptr) eglDestroyContext(display_, context_);
  if (surface_ != nullptr) eglDestroySurface(display_, surface_);
  releaseDisplay();
}

bool OffscreenGLContext::makeCurrent() {
  if (display_ == nullptr || context_ == nullptr) return false;
  if (eglBindAPI(EGL_OPENGL_API) != EGL_TRUE) return false;
  return eglMakeCurrent(display_, surface_, surface_, context_) == EGL_TRUE;
}

void OffscreenGLContext::release() {
  if (display_ != nullptr && context_ != nullptr && eglGetCurrentContext() == context_) {
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
  }
}

bool offscreenGLAvailable(std::string* why) {
  OffscreenGLContext probe(4, 4);
  if (why != nullptr) *why = probe.error();
  return probe.ok();
}

}  // namespace LUtils
