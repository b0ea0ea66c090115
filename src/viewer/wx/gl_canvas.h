// CacheViewOpenGLCanvas: the viewer's drawing window. It turns mouse, key, size and paint events
// into calls on the viewer's navigation and drawing layer, holds the OpenGL context the OpenGL
// rasterizer draws into, and shows the software rasterizer's picture when that one draws.
//
// The OpenGL rasterizer draws in the paint handler. The software rasterizer draws its frame
// outside it, just after a paint found the picture out of date, and the paint that follows shows
// it: while its workers draw, the window keeps handling its events (the wait sink below), and
// the toolkit holds back every input event while a window paints. A frame is never drawn inside
// another: a paint during a frame shows the last finished picture, and what asks for a frame
// then gets the next one. Menu commands, option keys and closing the window, which would change
// what the workers read, wait until the frame is done; camera motions do not.
//
// Developer hook: when the environment variable CACHEVIEW_FRAME_LOG names a file, every frame
// drawn appends one line to it,
//     <kind> <stride> <samples drawn> <milliseconds>
// with kind gl, gl-lists (OpenGL with display lists), sw or sw-threads (the software rasterizer on
// one thread or on the thread manager's), the stride of a reduced frame (1: every sample), and
// the time from the start of the frame until it is presented: swapped and finished (glFinish)
// for OpenGL, turned into the bitmap the paint shows for software. Nothing else changes.
#pragma once

#include <wx/bitmap.h>
#include <wx/glcanvas.h>
#include <wx/timer.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <vector>

#include "viewer/viewer_commands.h"
#include "viewer/viewer_scene.h"

namespace LUtils {
class RasterizerGL;
class RasterizerSW;
}  // namespace LUtils
class SelectionTool;

// Hears the thread manager's waits while a software frame is drawn on its workers: lets the
// toolkit handle the window's pending user-interface and input events. Progress and the manager's
// text messages are not shown.
class CanvasWaitSink final : public LUtils::ProgressCallback {
 public:
  void setTotal(int32_t) override {}
  int32_t getTotal() override { return 0; }
  void setProgress(int32_t) override {}
  int32_t getProgress() override { return 0; }
  void setTitle(const char*) override {}
  int wantsMessageProcessing() override { return 1; }
  void processMessages() override;
  void message(int, int, const char*, ...) override {}
  void start() override {}
  void done() override {}

 private:
  std::chrono::steady_clock::time_point lastEvents_;
};

class CacheViewOpenGLCanvas final : public wxGLCanvas {
 public:
  // What the canvas asks of its main window.
  struct Host {
    std::function<void(int id)> runCommand;           // a menu command chosen by key
    std::function<void(const wxString&)> showStatus;  // the status bar's text
    std::function<void()> selectionSettingsChanged;   // the wheel changed the radius or depth
  };

  // An OpenGL window when the display has a double-buffered RGBA visual with a depth buffer and
  // a context can be made; otherwise a window that only the software rasterizer draws into
  // (openGLAvailable() says which, and the console says so once).
  CacheViewOpenGLCanvas(wxWindow* parent, LUtils::ViewerScene& scene, Host host);
  ~CacheViewOpenGLCanvas() override;

  bool openGLAvailable() const { return context_ != nullptr; }

  // Replaces gRasterizer by the kind the scene's settings ask for, keeping its far distance.
  void createRasterizer();
  // Drops what the rasterizer holds in the GL context while the window still exists.
  void releaseRasterizer();

  // A camera step just happened: frames draw a reduced subset of the samples until the motion
  // has settled, then the whole map once.
  void noteMotion();

  // For the selection gestures: the OpenGL context made current (always true for software), the
  // kind of rasterizer drawing, the last software picture and the status bar.
  bool makeContextCurrent();
  bool drawsWithOpenGL() const { return gl_ != nullptr; }
  const wxBitmap& softwarePicture() const { return softwarePicture_; }
  void showStatus(const wxString& text) { host_.showStatus(text); }

  // Runs `action` now, or once the frame being drawn is done when one is.
  void afterFrame(std::function<void()> action);
  bool drawingFrame() const { return drawing_; }

  // Asks for a new frame (every repaint request of the viewer comes here).
  void Refresh(bool eraseBackground = true, const wxRect* rect = nullptr) override;

 private:
  void onPaint(wxPaintEvent& event);
  void onSize(wxSizeEvent& event);
  void onKeyDown(wxKeyEvent& event);
  void onChar(wxKeyEvent& event);
  void onMouse(wxMouseEvent& event);
  void onWheel(wxMouseEvent& event);
  void onCaptureLost(wxMouseCaptureLostEvent& event);
  void onSettled(wxTimerEvent& event);

  bool handleKey(const LUtils::KeyInput& key);
  void endDrags();
  void drawSoftwareFrame();
  void showKeptFrame();
  void finishFrame(const char* kind, double ms);
  void runDeferred();

  LUtils::ViewerScene& scene_;
  Host host_;
  std::unique_ptr<SelectionTool> selection_;
  std::unique_ptr<wxGLContext> context_;
  LUtils::RasterizerGL* gl_ = nullptr;  // the rasterizer in use, by kind (gRasterizer owns it)
  LUtils::RasterizerSW* sw_ = nullptr;
  wxTimer settleTimer_;
  LUtils::MovingFrames movingFrames_;
  uint32_t lastStride_ = 1;

  CanvasWaitSink waitSink_;
  bool drawing_ = false;          // a frame is being drawn
  bool frameWanted_ = true;       // the picture shown is out of date
  bool softwareQueued_ = false;   // a software frame is queued to be drawn
  wxBitmap softwarePicture_;      // the last finished software frame
  // The last slow OpenGL frame, kept so that a paint with nothing new to draw (the window
  // uncovered, or its focus changed) shows it again rather than drawing the map once more.
  struct KeptFrame {
    int width = 0, height = 0;
    std::vector<uint8_t> rgba;
  } keptFrame_;
  std::vector<std::function<void()>> deferred_;
  std::FILE* frameLog_ = nullptr;
};
