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
class IrradianceMap;
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

// Reduced frames while the camera moves. A frame drawn with stride k draws every k-th sample
// (the indices that are multiples of k, so the same samples every frame and nothing flickers).
//
// A frame costs a fixed part (clearing, presenting the picture) and a part that grows with the
// samples drawn. From the last full frame and the last reduced frame the two parts are known:
// at stride k a frame costs about fixed + all / k. The stride chosen is the smallest k that
// keeps that within four fifths of the budget (frames spread around the estimate); when the
// fixed part alone takes most of that, k makes the samples' part a quarter of it. Before any
// reduced frame was timed the fixed part counts as 0: k = ceil(full / (4/5 budget)), and the
// first reduced frame of that motion corrects k once. Otherwise
// k is chosen when a motion starts and kept until it ends. A full frame that fits the budget
// (or one not timed yet) gives k = 1.
//
// A frame is reduced while a motion goes on, and also when the camera moved since the last frame
// even if the motion has settled meanwhile: after a long frame, the motions that arrived during
// it and the end of the motion may be handled before the next frame starts. Such a frame is
// followed by a full one (needsFullFrame).
inline constexpr double kMovingFrameBudgetMs = 40.0;

class MovingFrames {
 public:
  explicit MovingFrames(double budgetMs = kMovingFrameBudgetMs) : budgetMs_(budgetMs) {}

  // The camera started or went on moving.
  void motion();
  // The camera has stopped: frames are full again.
  void settled();
  bool moving() const { return moving_; }
  // The stride of the next frame: 1 unless moving or moved since the last frame.
  uint32_t stride() const { return moving_ || movedSinceFrame_ ? stride_ : 1u; }
  // A reduced frame was drawn after the motion had settled: the full frame is still owed.
  bool needsFullFrame() const { return !moving_ && lastStride_ > 1; }
  // A frame drawn at `stride` took `ms`.
  void frameDrawn(uint32_t stride, double ms);

 private:
  uint32_t chooseStride() const;

  double budgetMs_;
  double fullMs_ = 0.0;
  double reducedMs_ = 0.0;
  uint32_t reducedStride_ = 0;
  bool moving_ = false;
  bool movedSinceFrame_ = false;
  bool provisional_ = false;  // chosen before any reduced frame was timed
  uint32_t lastStride_ = 1;
  uint32_t stride_ = 1;
};

// The number of samples a frame with `stride` draws: indices that are multiples of the stride and
// are not deleted.
uint64_t drawnSampleCount(uint32_t sampleCount, const SampleBits& deleted, uint32_t stride);

// The status bar's text: "<drawn> drawn / <deleted> deleted / <selected> selected, <t> ms".
std::string frameStatusText(uint64_t drawn, uint64_t deleted, uint64_t selected, double frameMs);

// The settings an irradiance map is prepared under in the viewer: the defaults, with 20
// interpolation samples, interpolation mode 2 and no time dependence.
IrradianceMapHeader viewerReferenceSettings();

// Prepares an irradiance map for incremental insertion (its index, built with the loader's
// argument) under the viewer's reference settings, and gives the map back its own settings.
void prepareUnderReferenceSettings(IrradianceMap& map);

}  // namespace LUtils
