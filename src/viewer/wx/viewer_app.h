// CacheViewApp: the toolkit application of the viewer. Its start-up prepares the maps the driver
// left in memory (or opens the file named on the command line), creates the main window and shows
// it; runViewer() (app/viewer_entry.h) enters it.
#pragma once

#include <wx/app.h>

#include <memory>

#include "viewer/viewer_scene.h"

class CacheViewApp final : public wxApp {
 public:
  bool OnInit() override;

 private:
  // Outlives the windows, which draw with it until they are gone.
  std::unique_ptr<LUtils::ViewerScene> scene_;
};
