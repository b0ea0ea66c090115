// The viewer's settings that menus show and commands change, and the rules over them: switching
// rasterizers, which items are checked and enabled, the selection depth and radius steps, and how
// many samples a frame draws while the camera moves. Plain C++: the window only applies results.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "irradiance/irradiance_map_header.h"
#include "viewer/selection.h"

namespace LUtils {

class DrawOptions;
class SampleBits;

struct ViewerSettings {
  bool useOpenGL = true;
  bool softwareMultiThreaded = true;  // which software rasterizer the next switch creates
  bool openGLAvailable = true;        // false when no OpenGL context could be made
  SelectionSettings selection;
};

enum class RasterizerChoice { kOpenGL, kSoftware, kMultiThreadedSoftware };

struct RasterizerSwitch {
  bool recreate = false;          // replace the rasterizer
  const char* message = nullptr;  // console text, or null for none
};

// Applies a rasterizer menu command. Choosing what is in use changes nothing; choosing the other
// software kind while software draws only records it for the next switch. Leaving OpenGL drops a
// selection depth mode that needs it.
RasterizerSwitch chooseRasterizer(ViewerSettings& settings, RasterizerChoice choice);

// A check or radio item's state, or a normal item's enabled state, as the menus must show it.
struct MenuItemState {
  int id = 0;
  bool checkable = false;
  bool checked = false;
  bool enabled = true;
};

// The state of every item whose state follows the settings and the drawing options.
std::vector<MenuItemState> menuItemStates(const ViewerSettings& settings,
                                          const DrawOptions& options);

// The depth adjust items: deeper divides by 0.8, shallower multiplies by 0.8.
void adjustSelectionDepth(SelectionSettings& selection, bool deeper);
// The radius items: +1 up to min(width, height) / 2 - 1, -1 while at least 1.
void adjustPaintRadius(SelectionSettings& selection, bool larger, int canvasWidth,
                       int canvasHeight);

// Reduced frames while the camera moves. A frame drawn with stride k draws every k-th sample, so
// k = ceil(full frame time / budget) keeps a moving frame near the budget. 1 when the full frame
// fits (or has not been timed yet).
inline constexpr double kMovingFrameBudgetMs = 40.0;
uint32_t movingSampleStride(double fullFrameMs, double budgetMs = kMovingFrameBudgetMs);

// The number of samples a frame with `stride` draws: indices that are multiples of the stride and
// are not deleted.
uint64_t drawnSampleCount(uint32_t sampleCount, const SampleBits& deleted, uint32_t stride);

// The status bar's text: "<drawn> drawn / <deleted> deleted / <selected> selected, <t> ms".
std::string frameStatusText(uint64_t drawn, uint64_t deleted, uint64_t selected, double frameMs);

// The settings an irradiance map is prepared under in the viewer: the defaults, with 20
// interpolation samples, interpolation mode 2 and no time dependence.
IrradianceMapHeader viewerReferenceSettings();

}  // namespace LUtils
