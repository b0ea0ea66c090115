// runViewer() of an executable whose viewer is a loadable module: finds cacheview-viewer.so
// beside the executable (or in ../lib/cacheview when installed), loads it, and hands it the
// driver's state. A module that is missing or does not load is reported like a build without
// the viewer, with the loader's reason in the debug log.
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "app/driver.h"
#include "app/viewer_entry.h"
#include "app/viewer_module.h"
#include "threads/debug_trace.h"

namespace {

std::string executableDirectory() {
  char path[PATH_MAX];
  const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return ".";
  path[n] = '\0';
  std::string p(path);
  const size_t slash = p.rfind('/');
  return slash == std::string::npos ? "." : p.substr(0, slash);
}

ViewerStartState currentState() {
  ViewerStartState s;
  s.irradianceMap = gIrradianceMap;
  s.lightMap = gLightMap;
  std::memcpy(s.mapFileName, gMapFileName, sizeof s.mapFileName);
  s.incremental = gIncremental;
  s.openAtStartup = gOpenAtStartup;
  s.yUp = gYUp;
  s.worldUp = gWorldUp;
  s.viewUp = gViewUp;
  s.selectionRect = gSelectionRect;
  s.initialSettings = gInitialSettings;
  return s;
}

}  // namespace

int runViewer(int argc, char** argv) {
  const std::string dir = executableDirectory();
  void* module = nullptr;
  for (const std::string& candidate :
       {dir + "/" + kViewerModuleFile, dir + "/../lib/cacheview/" + kViewerModuleFile}) {
    module = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (module != nullptr) break;
    LUtils::debugTrace("[Viewer] cannot load %s: %s\n", candidate.c_str(), dlerror());
  }
  using Entry = int (*)(int, char**, const ViewerStartState*);
  Entry entry = module != nullptr ? reinterpret_cast<Entry>(dlsym(module, kViewerModuleEntry)) : nullptr;
  if (entry == nullptr) {
    std::printf("The viewer is not part of this build of cacheview; "
                "add -nodisplay to run the batch steps without it.\n");
    std::fflush(stdout);
    return kStatusNotInBuild;
  }
  const ViewerStartState state = currentState();
  // The module stays loaded until the process ends: objects it made may outlive the call.
  return entry(argc, argv, &state);
}
