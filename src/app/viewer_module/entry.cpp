// The entry of the viewer module: takes over the executable's process-wide state into the
// module's own copy, then runs the viewer.
#include <cstring>

#include "app/driver.h"
#include "app/viewer_entry.h"
#include "app/viewer_module.h"

extern "C" __attribute__((visibility("default"))) int cacheviewRunViewerModule(
    int argc, char** argv, const ViewerStartState* state) {
  if (state == nullptr || state->size != sizeof(ViewerStartState)) return kStatusNotInBuild;
  gIrradianceMap = state->irradianceMap;
  gLightMap = state->lightMap;
  std::memcpy(gMapFileName, state->mapFileName, sizeof gMapFileName);
  gIncremental = state->incremental;
  gOpenAtStartup = state->openAtStartup;
  gYUp = state->yUp;
  gWorldUp = state->worldUp;
  gViewUp = state->viewUp;
  gSelectionRect = state->selectionRect;
  gInitialSettings = state->initialSettings;
  return runViewer(argc, argv);
}
