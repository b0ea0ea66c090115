// The cacheview process entry.
#include "app/driver.h"
#include "app/viewer_entry.h"

int main(int argc, char** argv) { return runCacheview(argc, argv, runViewer); }
