// runViewer() for builds without the viewer. The viewer library replaces this file: when it
// sets the global CMake property CACHEVIEW_VIEWER_ENTRY to its target, src/app/CMakeLists.txt
// links that target into the executable instead of compiling this file.
#include <cstdio>

#include "app/driver.h"
#include "app/viewer_entry.h"

int runViewer(int argc, char** argv) {
  (void)argc;
  (void)argv;
  std::printf("The viewer is not part of this build of cacheview; "
              "add -nodisplay to run the batch steps without it.\n");
  std::fflush(stdout);
  return kStatusNotInBuild;
}
