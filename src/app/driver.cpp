#include "app/driver.h"

#include "cacheview_version.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "app/map_files.h"
#include "app/map_merge.h"
#include "app/map_report.h"
#include "app/my_progress.h"
#include "app/process_state.h"
#include "app/pts_conversion.h"
#include "lightcache/light_map.h"
#include "lightcache/light_merge.h"

namespace {

// Console output: standard output only, flushed at once so that it interleaves correctly with
// the progress line and shows while the work runs.
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::vfprintf(stdout, format, args);
  va_end(args);
  std::fflush(stdout);
}

bool equals(const char* a, const char* b) { return a && std::strcmp(a, b) == 0; }

// The conversion's target must end in exactly ".pts": the last '.' stands four characters
// before the end.
bool isPtsName(const char* name) {
  const char* dot = std::strrchr(name, '.');
  return dot && std::strlen(dot) == 4 && std::strcmp(dot, ".pts") == 0;
}

const char* const kIrradianceMapWord = "irradiance map";
const char* const kLightCacheWord = "light cache";

// --- Light caches.

// A -save while a light cache is in memory. Returns 0 to go on, or the exit status.
int saveLightCache(const char* name) {
  if (gLightMap->save(name, nullptr) != 0) {
    say("Error saving %s file \"%s\"\n", kLightCacheWord, name);
    return kStatusFailure;
  }
  say("Saved %s file \"%s\"\n", kLightCacheWord, name);
  return 0;
}

// --- The steps of the option walk. Each returns 0 to go on, or the exit status.

struct WalkState {
  int display = 1;
  bool incrementalPrepared = false;
};

// Merges `source` into gIrradianceMap and disposes of it.
int mergeIrradianceMap(LUtils::IrradianceMap* source, WalkState& walk) {
  int incremental = gIncremental;
  if (incremental && !supportsIncrementalAdd(*source)) {
    say("Warning: This irradiance map does not support incremental add, will add all samples\n");
    incremental = 0;
  }
  MyProgress progress;
  progress.setTitle(incremental ? "Incrementally adding samples" : "Adding samples");
  ::mergeIrradianceMap(*gIrradianceMap, source, incremental, walk.incrementalPrepared, &progress);
  return 0;
}

int loadStep(const char* name, WalkState& walk) {
  LUtils::IrradianceMap* map = nullptr;
  LightMap* lightMap = nullptr;
  if (loadMapFile(name, map, lightMap) != 0) {
    say("Error loading file \"%s\"\n", name);
    return kStatusLoadError;
  }
  setMapFileName(name);
  if (lightMap) {
    say("Loaded %s file \"%s\"\n", kLightCacheWord, name);
    if (!gLightMap) {
      gLightMap = lightMap;
    } else {
      mergeLightMaps(*gLightMap, lightMap, gIncremental);  // takes the source
    }
    return 0;
  }

  say("Loaded %s file \"%s\"\n", kIrradianceMapWord, name);
  if (!gIrradianceMap) {
    gIrradianceMap = map;
    gInitialSettings = *map->fileHeader();
    return 0;
  }
  return mergeIrradianceMap(map, walk);
}

int saveStep(const char* name) {
  if (gLightMap) return saveLightCache(name);
  // With no map in memory there is nothing to write: that is a failed save.
  if (!gIrradianceMap || gIrradianceMap->saveToFile(name, nullptr) != 0) {
    say("Error saving %s file \"%s\"\n", kIrradianceMapWord, name);
    return kStatusFailure;
  }
  say("Saved %s file \"%s\"\n", kIrradianceMapWord, name);
  return 0;
}

void infoStep() {
  if (!gIrradianceMap) {
    say("No irradiance map to print info about\n");
    return;
  }
  say("Irradiance map information:\n%s", irradianceMapReport(gIrradianceMap).c_str());
}

// The value after -up_axis; a missing value counts as "not y".
void upAxisStep(const char* value, int argumentCount) {
  if (equals(value, "y")) {
    gYUp = 1;
    gWorldUp = gViewUp = LUtils::Vector(0.0f, 1.0f, 0.0f);
  }
  // "-up_axis <value>" alone: the viewer starts with the open-file dialog.
  if (argumentCount == 2) gOpenAtStartup = 1;
}

int convertMode(int argc, char** argv) {
  if (argc < 4) {
    say("Error converting irradiance map file: missing parameter(s)\n");
    return kStatusFailure;
  }
  // The argument in the -rgb position is what the message names (printed as "(null)" when
  // there is none); long-standing behaviour that scripts may match on.
  const char* rgbArgument = argc > 4 ? argv[4] : nullptr;
  if (!isPtsName(argv[3])) {
    say("Error unsupported conversion format \"%s\"\n", rgbArgument ? rgbArgument : "(null)");
    return kStatusFailure;
  }
  const int mode = equals(rgbArgument, "-rgb") ? kPtsPositionsAndColours : kPtsPositions;
  return convertIrradianceMap(argv[2], argv[3], mode);
}

// Runs the options in command-line order on the map in memory. Returns the exit status, or -1
// when the walk ended and the viewer is to start.
int walkOptions(int argc, char** argv) {
  gOpenAtStartup = 0;
  gIrradianceMap = nullptr;
  WalkState walk;
  const int count = argc - 1;
  char** args = argv + 1;
  for (int i = 0; i < count; ++i) {
    const char* arg = args[i];
    const bool hasValue = i + 1 < count;
    int status = 0;
    if (equals(arg, "-incremental")) {
      gIncremental = 1;
    } else if (equals(arg, "-info")) {
      infoStep();
    } else if (equals(arg, "-load") && hasValue) {
      status = loadStep(args[++i], walk);
    } else if (equals(arg, "-save") && hasValue) {
      status = saveStep(args[++i]);
    } else if (equals(arg, "-nodisplay")) {
      walk.display = 0;
    } else if (equals(arg, "-up_axis")) {
      ++i;
      upAxisStep(i < count ? args[i] : nullptr, count);
    } else {
      printUsage();
      return kStatusUsage;
    }
    if (status != 0) return status;
  }

  if (walk.display) return -1;
  if (gIrradianceMap) {
    gIrradianceMap->freeSamples();
    LUtils::deleteIrradianceMap(gIrradianceMap);
    gIrradianceMap = nullptr;
  }
  return kStatusOk;
}

}  // namespace

void printUsage() {
  say("Lumora irradiance map viewer, version " CACHEVIEW_VERSION "\n"
      "Copyright (C) 2026 the cacheview authors. Provided as is, without any warranty.\n"
      "\n"
      "Usage:\n"
      "\n"
      "cacheview\n"
      "  opens a dialog for choosing an irradiance or light cache\n"
      "\n"
      "cacheview <filename>\n"
      "  displays the specified irradiance or light cache\n"
      "\n"
      "cacheview  [-incremental] -load <filename> {-load <filename>} [-save <filename>] "
      "[-noDisplay] [-info]\n"
      "  merges the specified irradiance/light maps and writes them to the specified file.\n"
      "  If the -incremental option is specified, the cacheview will discard\n"
      "  samples that fall in areas where there is already sufficient information.\n"
      "  This option must be specified before any -load options. The -info option\n"
      "  prints out information about the current irradiance map.\n"
      "cacheview -up_axis [z|y]\n"
      "  choose the up axis (default is z)\n"
      "\n"
      "cacheview -convert <filenameFrom> <filenameTo.pts> [-rgb]\n"
      "  convert irradiance map file into PTS file\n"
      "\n"
      "cacheview -help\n"
      "  prints this help message\n"
      "\n");
}

int runCacheview(int argc, char** argv, ViewerEntry viewer) {
  gSelectionRect.width = -1;
  const int count = argc - 1;

  if (count == 1) {
    if (equals(argv[1], "-help")) {
      printUsage();
      return kStatusUsage;
    }
    // A single argument is always a file to view, even "-info" or "-convert".
    setMapFileName(argv[1]);
  } else if (count >= 2 && equals(argv[1], "-convert")) {
    return convertMode(argc, argv);
  } else if (count >= 2) {
    if (int status = walkOptions(argc, argv); status >= 0) return status;
  }
  return viewer(argc, argv);
}
