// The viewer is a module (cacheview-viewer.so, beside the executable) that the executable loads
// only when the command line asks for the window, so that batch runs never load the GUI
// toolkit's libraries and start as fast as without a viewer. The module carries its own copy of
// the libraries below the viewer and of the process-wide state; the executable hands it that
// state on entry. Maps cross over as objects: their virtual operations run the executable's code.
#pragma once

#include <cstdint>

#include "app/process_state.h"

// What the executable's driver leaves for the viewer (process_state.h).
struct ViewerStartState {
  uint32_t size = sizeof(ViewerStartState);  // checked by the module
  LUtils::IrradianceMap* irradianceMap = nullptr;
  LightMap* lightMap = nullptr;
  char mapFileName[kMapFileNameSize] = {};
  int32_t incremental = 0;
  int32_t openAtStartup = 0;
  uint8_t yUp = 0;
  LUtils::Vector worldUp;
  LUtils::Vector viewUp;
  SelectionRect selectionRect;
  IrradianceMapHeader initialSettings;
};

// The module's entry, looked up by name: runs the viewer from `state` and returns the process
// exit status (runViewer's contract).
extern "C" int cacheviewRunViewerModule(int argc, char** argv, const ViewerStartState* state);
inline constexpr const char* kViewerModuleEntry = "cacheviewRunViewerModule";
inline constexpr const char* kViewerModuleFile = "cacheview-viewer.so";
