// CacheViewOpenGLCanvas: the viewer's drawing window. It turns mouse, key, size and paint events
// into calls on the viewer's navigation and drawing layer, holds the OpenGL context the OpenGL
// rasterizer draws into, and shows the software rasterizer's picture when that one draws.
#pragma once

#include <wx/glcanvas.h>
#include <wx/timer.h>

#include <cstdint>
#include <functional>
#include <memory>

#include "viewer/viewer_commands.h"
#include "viewer/viewer_scene.h"

namespace LUtils {
class RasterizerGL;
class RasterizerSW;
}  // namespace LUtils

class CacheViewOpenGLCanvas final : public wxGLCanvas {
 public:
  // What the canvas asks of its main window.
  struct Host {
    std::function<void(int id)> runCommand;           // a menu command chosen by key
    std::function<void(const wxString&)> showStatus;  // the status bar's text
    std::function<void()> selectionNotInBuild;        // a selection gesture was started
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
  void paintSoftwarePicture(wxDC& dc);

  LUtils::ViewerScene& scene_;
  Host host_;
  std::unique_ptr<wxGLContext> context_;
  LUtils::RasterizerGL* gl_ = nullptr;  // the rasterizer in use, by kind (gRasterizer owns it)
  LUtils::RasterizerSW* sw_ = nullptr;
  wxTimer settleTimer_;
  bool moving_ = false;
  uint32_t lastStride_ = 1;
  double lastFullFrameMs_ = 0.0;
};
