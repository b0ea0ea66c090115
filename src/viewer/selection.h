// Selecting samples on the canvas: the selection settings, the pick callbacks that turn picked
// names or index colours into selected samples (optionally only those whose normals are close
// to the mean normal of the pick), and the pick itself in the three depth modes. Plain C++ over
// the rasterizer interface: the window only forwards gestures here.
#pragma once

#include <cmath>
#include <cstdint>
#include <memory>
#include <vector>

#include "io/vector.h"
#include "render/draw_options.h"
#include "render/rasterizer.h"
#include "render/sample_drawing.h"

namespace LUtils {

// Depth modes, with the values the viewer stores.
enum SelectionDepthMode : int32_t {
  kDepthVisible = 0,    // the visible samples only (index colours; both back ends)
  kDepthSpecified = 1,  // hits within the specified depth behind the nearest (OpenGL)
  kDepthFull = 2,       // every hit at any depth (OpenGL)
};

// The viewer's selection settings. The initial paint radius, specified depth and (in
// DrawOptions) selection colour are ours to choose: 5 pixels, 1.0 (a fraction of 5e-5 of the
// depth range per unit), and a warm yellow.
struct SelectionSettings {
  static constexpr int32_t kInitialPaintRadius = 5;
  static constexpr float kInitialSpecifiedDepth = 1.0f;

  bool activated = false;
  bool paint = false;  // false: rectangle
  bool similarNormals = false;
  bool xorRectangle = false;
  int32_t depthMode = kDepthVisible;
  float specifiedDepth = kInitialSpecifiedDepth;
  int32_t paintRadius = kInitialPaintRadius;
  double normalThreshold = 0.3;

  // Wheel steps (rotation / delta): the paint radius by one per step within
  // [0, min(width, height) / 2 - 1]; with the depth modifier the specified depth, divided by 0.8
  // per step up (deeper) and multiplied by 0.8 per step down.
  void wheelRadius(int steps, int width, int height);
  void wheelDepth(int steps);
};

// The normal of a picked sample by its index, as the similar-normals rule reads it: an
// irradiance sample's normal decoded from its two packed direction fields, a light-cache
// sample's stored normal. Gathered once per pick (only when the rule is on).
class SampleNormals {
 public:
  explicit SampleNormals(const DrawnMap& map);
  // False for an index past the map.
  bool normal(uint32_t index, Vector& n) const;
  uint32_t count() const { return static_cast<uint32_t>(normals_.size()); }
  // The decode of the packed fields: z = (u / 65535 - 0.5) x 2, phi = (v / 65535 - 0.5) x
  // 6.2831855, normal = (s cos phi, s sin phi, z) with s = sqrt(1 - z^2).
  static Vector decodePacked(uint16_t u, uint16_t v);

 private:
  std::vector<Vector> normals_;
};

// First pass of a similar-normals pick: sums the normals of every name reported.
template <class T>
class PreSelectionCb final : public Rasterizer3D::SelectionCb {
 public:
  explicit PreSelectionCb(const SampleNormals& normals) : normals_(normals) {}
  bool start() override { return true; }
  bool wantNearest() override { return false; }
  void nearest(uint32_t, uint32_t) override {}
  void hit(uint32_t index) override;
  // The mean normal, normalised; (0, 0, 0) when nothing was gathered.
  Vector reference() const;

  double sum[3] = {0.0, 0.0, 0.0};
  int64_t count = 0;

 private:
  const SampleNormals& normals_;
};

// Selects each reported sample (below the sample count; with similar normals on only when
// |normal . reference| >= 1 - threshold, so that opposite-facing samples count as similar).
template <class T>
class SetSelectionCb final : public Rasterizer3D::SelectionCb {
 public:
  SetSelectionCb(SampleBits& selected, uint32_t sampleCount, const SampleNormals* normals,
                 const Vector& reference, double threshold)
      : selected_(&selected),
        count_(sampleCount),
        normals_(normals),
        reference_(reference),
        threshold_(threshold) {}
  bool start() override { return true; }
  bool wantNearest() override { return false; }
  void nearest(uint32_t, uint32_t) override {}
  void hit(uint32_t index) override;

 private:
  SampleBits* selected_;
  uint32_t count_;
  const SampleNormals* normals_;  // null: the similar-normals rule is off
  Vector reference_;
  double threshold_;
};

// The callbacks of colour-index picking, where indices come from pixels: one call per pixel,
// and an operation after each pass over the pixels.
class BaseCustomSelectionCb {
 public:
  virtual ~BaseCustomSelectionCb() = default;
  virtual void pixel(uint32_t index) = 0;
  virtual void afterPass() = 0;
};

// Gathers normals in the first pass (when the rule is on) and selects in the next one; the
// pass after gathering turns the sum into the reference normal.
template <class T>
class CustomSelectionCb final : public BaseCustomSelectionCb {
 public:
  CustomSelectionCb(SampleBits& selected, uint32_t sampleCount, const SampleNormals* normals,
                    double threshold)
      : pre_(*normals_or_empty(normals)),
        set_(selected, sampleCount, normals, {}, threshold),
        selected_(selected),
        count_(sampleCount),
        normals_(normals),
        threshold_(threshold),
        gathering_(normals != nullptr) {}
  void pixel(uint32_t index) override;
  void afterPass() override;

 private:
  static const SampleNormals* normals_or_empty(const SampleNormals* n);
  PreSelectionCb<T> pre_;
  SetSelectionCb<T> set_;
  SampleBits& selected_;
  uint32_t count_;
  const SampleNormals* normals_;
  double threshold_;
  bool gathering_;
};

// A pick rectangle from a drag: corners ordered, and a rectangle of zero width or height widened
// by `radius` to both sides in that direction.
using PickRect = PixelRect;
PickRect rectangleFromDrag(int startX, int startY, int endX, int endY, int radius);
// The square a paint dab selects.
PickRect paintSquare(int x, int y, int radius);

// Runs a pick over the window rectangle and selects what it finds (adding to the selection:
// a rectangle gesture clears the selection first itself). Depth modes 1 and 2 need a back end
// that picks by names; without one the pick runs in mode 0. The caller repaints afterwards.
// Returns the number of samples newly selected.
uint64_t runSelection(Rasterizer3D& rasterizer, const DrawScene& scene, SampleEdits& edits,
                      const SelectionSettings& settings, const PickRect& rect);

}  // namespace LUtils
