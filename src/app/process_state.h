// The process-wide state that the command-line driver owns and hands to the viewer: the maps in
// memory, the name of the file they came from, and the viewer's start-up settings.
#pragma once

#include <cstdint>

#include "io/vector.h"
#include "irradiance/irradiance_map.h"
#include "irradiance/irradiance_map_header.h"

class LightMap;
namespace LUtils {
class Rasterizer3D;
}

// The rubber-band rectangle of a rectangle selection; a width of -1 means none drawn yet.
struct SelectionRect {
  int32_t x = 0;
  int32_t y = 0;
  int32_t width = 0;
  int32_t height = 0;
};

constexpr int kMapFileNameSize = 512;

// The irradiance map in memory, owning; the target of every merge.
extern LUtils::IrradianceMap* gIrradianceMap;
// The light cache in memory, owning; the target of every light-cache merge.
extern LightMap* gLightMap;
// The last file loaded, or the file named alone on the command line (cut at 511 bytes).
extern char gMapFileName[kMapFileNameSize];
// Set by -incremental: later -load steps merge incrementally.
extern int32_t gIncremental;
// When set, the viewer starts by opening gMapFileName (or the open-file dialog when it is
// empty); when clear, it shows the map already in memory.
extern int32_t gOpenAtStartup;
// The scene's up axis is Y (1) or Z (0), and the matching world and camera up vectors.
extern uint8_t gYUp;
extern LUtils::Vector gWorldUp;
extern LUtils::Vector gViewUp;
extern SelectionRect gSelectionRect;
// The viewer's current rasterizer, owning; created by the viewer, deleted after its loop ends.
extern LUtils::Rasterizer3D* gRasterizer;
// A copy of the settings stored in the first irradiance map loaded (all zero before).
extern IrradianceMapHeader gInitialSettings;

// Copies a name into gMapFileName, cutting it at 511 bytes.
void setMapFileName(const char* name);
