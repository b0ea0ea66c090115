// The viewer's start-up and runViewer(), the driver's way into the toolkit.
#include "viewer/wx/viewer_app.h"

#include <cstdio>

#include "app/driver.h"
#include "app/process_state.h"
#include "app/viewer_entry.h"
#include "irradiance/def_irradiance_map.h"
#include "render/rasterizer.h"
#include "viewer/wx/gl_canvas.h"
#include "viewer/wx/main_window.h"
#include "viewer/wx/quiet_logging.h"

wxIMPLEMENT_APP_NO_MAIN(CacheViewApp);

namespace {
// Set once the toolkit has started and runs the viewer's start-up.
bool gToolkitStarted = false;
}  // namespace

bool CacheViewApp::OnInit() {
  gToolkitStarted = true;
  // wxApp::OnInit would parse the command line, which belongs to the driver.
  useQuietToolkitLog();
  scene_ = std::make_unique<LUtils::ViewerScene>();
  scene_->navigation.setUpAxes(gYUp != 0, gWorldUp, gViewUp);

  auto* window = new CacheViewMainWindow(*scene_);
  SetTopWindow(window);

  // The maps are indexed for insertion under the viewer's reference settings; without a map,
  // an empty one with those settings.
  if (gIrradianceMap == nullptr) {
    gIrradianceMap = LUtils::newIrradianceMap();
    gIrradianceMap->setHeader(LUtils::viewerReferenceSettings());
  }
  LUtils::prepareUnderReferenceSettings(*gIrradianceMap);

  if (gOpenAtStartup != 0) {
    if (!window->openMap(true)) {
      window->Destroy();
      return false;
    }
  } else {
    window->showMapsInMemory();
  }

  window->syncMenus();
  window->Show();
  window->canvas()->SetFocus();
  window->updateTitle();
  return true;
}

int runViewer(int argc, char** argv) {
  installQuietLogging();
  int count = argc;
  wxEntry(count, argv);
  undoQuietLogging();
  delete gRasterizer;
  gRasterizer = nullptr;
  if (!gToolkitStarted) {
    std::printf(
        "The viewer cannot open a window here (no display); add -nodisplay to run the "
        "batch steps without it.\n");
    std::fflush(stdout);
    return kStatusNotInBuild;
  }
  return 0;
}
