// The cacheview process entry.
#include "app/driver.h"
#include "app/viewer_entry.h"
#include "threads/heap_policy.h"

int main(int argc, char** argv) {
  LUtils::keepLargeBlocksMapped();
  return runCacheview(argc, argv, runViewer);
}
