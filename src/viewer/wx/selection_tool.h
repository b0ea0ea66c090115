// The canvas's selection gestures: the rubber band drawn over the last frame while a rectangle is
// dragged, the pick when it is released, the paint brush's dabs, and the sample inspector (the
// key i). The picks themselves are plain C++ (ViewerScene::select, pickVisible); this class only
// places them and draws what the user sees meanwhile.
#pragma once

#include <wx/gdicmn.h>

#include "viewer/navigation.h"
#include "viewer/viewer_scene.h"

class CacheViewOpenGLCanvas;

class SelectionTool {
 public:
  SelectionTool(CacheViewOpenGLCanvas& canvas, LUtils::ViewerScene& scene)
      : canvas_(canvas), scene_(scene) {}

  // A selection result of the navigation's mouse state machine, with the event's input.
  void gesture(LUtils::MouseResult result, const LUtils::MouseInput& input);
  // Shows the values of the visible sample at a canvas pixel in the status bar and on the
  // console; the text, or an empty one when no sample is there.
  void inspect(wxPoint at);

 private:
  void select(const LUtils::PickRect& rect);
  void drawBand(LUtils::Pixel from, LUtils::Pixel to);
  void drawBandGL(LUtils::Pixel from, LUtils::Pixel to);
  void drawBandSoftware(LUtils::Pixel from, LUtils::Pixel to);

  CacheViewOpenGLCanvas& canvas_;
  LUtils::ViewerScene& scene_;
  LUtils::Pixel lastDab_{-1, -1};
};
