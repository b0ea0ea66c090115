// The rules over the viewer's settings: rasterizer switching, menu states, selection steps and the
// sample stride of moving frames.
#include "viewer/viewer_state.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "irradiance/def_irradiance_map.h"
#include "render/draw_options.h"
#include "viewer/viewer_commands.h"

namespace LUtils {

RasterizerSwitch chooseRasterizer(ViewerSettings& settings, RasterizerChoice choice) {
  if (choice == RasterizerChoice::kOpenGL) {
    if (settings.useOpenGL || !settings.openGLAvailable) return {};
    settings.useOpenGL = true;
    return {true, "Using OpenGL renderer\n"};
  }
  settings.softwareMultiThreaded = choice == RasterizerChoice::kMultiThreadedSoftware;
  if (!settings.useOpenGL) return {};
  settings.useOpenGL = false;
  // Picks through the depth buffer need OpenGL.
  settings.selection.depthMode = 0;
  return {true, "Using software renderer\n"};
}

std::vector<MenuItemState> menuItemStates(const ViewerSettings& s, const DrawOptions& o) {
  const auto check = [](int id, bool on, bool enabled = true) {
    return MenuItemState{id, true, on, enabled};
  };
  const int sides = o.segmentsPerDisc();
  const int mode = s.selection.depthMode;
  return {
      check(kCmdOpenGL, s.useOpenGL, s.openGLAvailable),
      check(kCmdMultiThreadedSoftware, !s.useOpenGL && s.softwareMultiThreaded),
      check(kCmdSoftware, !s.useOpenGL && !s.softwareMultiThreaded),
      check(kCmdBackfaceCulling, o.backfaceCulling()),
      check(kCmdDisplayLists, o.useDisplayLists()),
      check(kCmdAdaptiveQuality, o.adaptiveQuality()),
      check(kCmdLowQuality, sides != 10 && sides != 16),
      check(kCmdMediumQuality, sides == 10),
      check(kCmdHighQuality, sides == 16),
      check(kCmdShowAxis, o.showAxis()),
      check(kCmdActivateSelection, s.selection.activated),
      check(kCmdSelectRectangle, !s.selection.paint),
      check(kCmdSelectPaint, s.selection.paint),
      check(kCmdSimilarNormals, s.selection.similarNormals),
      check(kCmdXorRectangle, s.selection.xorRectangle),
      check(kCmdDepthVisible, mode == 0),
      check(kCmdDepthFull, mode == 2, s.useOpenGL),
      check(kCmdDepthSpecified, mode == 1, s.useOpenGL),
      {kCmdDepthIncrease, false, false, s.useOpenGL && mode == 1},
      {kCmdDepthDecrease, false, false, s.useOpenGL && mode == 1},
  };
}

void adjustSelectionDepth(SelectionSettings& selection, bool deeper) {
  selection.specifiedDepth =
      deeper ? selection.specifiedDepth / 0.8f : selection.specifiedDepth * 0.8f;
}

namespace {
int largestRadius(int width, int height) {
  return std::max(0, std::min(width, height) / 2 - 1);
}
}  // namespace

void adjustPaintRadius(SelectionSettings& selection, bool larger, int width, int height) {
  if (larger) {
    if (selection.paintRadius < largestRadius(width, height)) ++selection.paintRadius;
  } else if (selection.paintRadius >= 1) {
    --selection.paintRadius;
  }
}

void MovingFrames::motion() {
  movedSinceFrame_ = true;
  if (moving_) return;
  moving_ = true;
  stride_ = chooseStride();
  provisional_ = reducedStride_ < 2;
}

void MovingFrames::settled() { moving_ = false; }

void MovingFrames::frameDrawn(uint32_t stride, double ms) {
  movedSinceFrame_ = false;
  lastStride_ = std::max(stride, 1u);
  if (!(ms >= 0.0)) return;
  if (stride <= 1) {
    fullMs_ = ms;
    return;
  }
  reducedMs_ = ms;
  reducedStride_ = stride;
  if (moving_ && provisional_) {
    stride_ = chooseStride();
    provisional_ = false;
  }
}

uint32_t MovingFrames::chooseStride() const {
  if (!(fullMs_ > budgetMs_) || !(budgetMs_ > 0.0)) return 1;
  double fixed = 0.0;
  double samples = fullMs_;
  if (reducedStride_ >= 2 && reducedMs_ < fullMs_) {
    // full = fixed + samples, reduced = fixed + samples / k.
    const double k = reducedStride_;
    samples = (fullMs_ - reducedMs_) * k / (k - 1.0);
    fixed = std::clamp(fullMs_ - samples, 0.0, fullMs_);
    samples = fullMs_ - fixed;
  }
  // Frames spread around what the model says: aiming at four fifths of the budget keeps most of
  // them within it.
  const double aim = 0.8 * budgetMs_;
  const double left = std::max(aim - fixed, aim / 4.0);
  const double stride = std::ceil(samples / left);
  if (!(stride >= 1.0)) return 1;
  return stride >= 1e9 ? 1000000000u : static_cast<uint32_t>(stride);
}

uint64_t drawnSampleCount(uint32_t sampleCount, const SampleBits& deleted, uint32_t stride) {
  if (stride == 0) stride = 1;
  const uint64_t visited = sampleCount == 0 ? 0 : (uint64_t{sampleCount} - 1) / stride + 1;
  if (!deleted.any()) return visited;
  uint64_t gone = 0;
  for (uint64_t i = 0; i < sampleCount; i += stride) {
    if (deleted.test(static_cast<uint32_t>(i))) ++gone;
  }
  return visited - gone;
}

std::string frameStatusText(uint64_t drawn, uint64_t deleted, uint64_t selected, double frameMs) {
  char text[160];
  std::snprintf(text, sizeof text, "%llu drawn / %llu deleted / %llu selected, %.0f ms",
                static_cast<unsigned long long>(drawn), static_cast<unsigned long long>(deleted),
                static_cast<unsigned long long>(selected), frameMs);
  return text;
}

IrradianceMapHeader viewerReferenceSettings() {
  IrradianceMapHeader settings;
  settings.calcPassInterpSamples = 20;
  settings.interpolationMode = 2;
  settings.timeDependence = 0.0f;
  return settings;
}

void prepareUnderReferenceSettings(IrradianceMap& map) {
  const IrradianceMapHeader own = *map.header();
  map.setHeader(viewerReferenceSettings());
  map.prepare(DefIrradianceMap::kPrepareAfterLoad);
  map.setHeader(own);
}

}  // namespace LUtils
