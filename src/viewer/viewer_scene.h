// Everything one viewer draws with, apart from the window: the map shown, the drawing options, the
// edits, the view and its compiled geometry, the drawing threads, the navigation and the settings
// the menus show. The window owns one and turns its events into calls on it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "render/draw_options.h"
#include "render/sample_drawing.h"
#include "render/sample_source.h"
#include "threads/thread_manager.h"
#include "viewer/edit_history.h"
#include "viewer/navigation.h"
#include "viewer/selection.h"
#include "viewer/viewer_state.h"

namespace LUtils {

class Rasterizer3D;

class ViewerScene {
 public:
  ViewerScene() = default;
  ViewerScene(const ViewerScene&) = delete;
  ViewerScene& operator=(const ViewerScene&) = delete;

  // Shows `map` (not owned): new scene bounds and far distance, the automatic brightness, no
  // sample deleted or selected, an empty edit history, and the view stored in the irradiance
  // map's settings when they hold one, else the default view. The rasterizer in use (may be
  // null) gets the far distance.
  void show(const DrawnMap& map, Rasterizer3D* rasterizer);
  // Draws `map` in place of the map shown, changing nothing else: while a merge runs, the window
  // keeps drawing the map that grows, or the one that replaced it, until it is shown afresh.
  void follow(const DrawnMap& map) { map_ = map; }
  // What is shown and how many samples it has (as of the last show).
  const DrawnMap& map() const { return map_; }
  uint32_t sampleCount() const { return sampleCount_; }

  // The view stored in the irradiance map shown, when it has one (light caches have none).
  std::optional<StoredView> storedView() const;

  // The frame's inputs for drawFrame.
  DrawScene drawScene() { return {map_, &options, &edits, &view, &cache, &threads, waitSink}; }

  // Selects what the rectangle holds with the selection settings (adding to the selection); the
  // caller repaints. Returns the number of samples newly selected.
  uint64_t select(Rasterizer3D& rasterizer, const PickRect& rect);
  // The index of the visible sample at a window pixel, if any (a one-pixel index-colour pick;
  // the frame must be drawn again afterwards).
  std::optional<uint32_t> pickVisible(Rasterizer3D& rasterizer, int x, int y);
  // One line with the values of sample `index` of the map shown (empty past its end).
  std::string describeSample(uint32_t index) const;

  // Makes `rasterizer` (not owned) the one that draws: it draws through the navigation's camera,
  // and the drawing options follow the settings' rasterizer choice. The far distance passes on
  // from `previousFarDistance` when positive (the rasterizer replaced), else from navigation.
  void attachRasterizer(Rasterizer3D* rasterizer, float previousFarDistance);

  DrawOptions options;
  SampleEdits edits;
  DrawView view;
  GeometryCache cache{options, edits};
  DefThreadManager threads;
  Navigation navigation;
  ViewerSettings settings;
  // Hears the thread manager's waits during threaded drawing (not owned; null: none). The window
  // sets it to keep handling its events meanwhile.
  ProgressCallback* waitSink = nullptr;
  EditHistory history;

 private:
  DrawScene pickScene();

  DrawnMap map_;
  uint32_t sampleCount_ = 0;
};

}  // namespace LUtils
