// Sample drawing: every irradiance or light-cache sample as a flat, unlit disc in its colour times
// the brightness, frustum-culled, optionally split across the thread manager's workers for the
// software rasterizer; the same discs in index colours for colour picking; selection boxes, the
// axis cross, the automatic brightness and the brightness and LOD keys. Everything is written
// once over the sample adaptor (sample_source.h) and asks the back end what it can do.
#pragma once

#include <cstdint>
#include <vector>

#include "io/vector.h"
#include "render/draw_options.h"
#include "render/sample_source.h"
#include "threads/thread_manager.h"

namespace LUtils {

class Camera;
class Rasterizer3D;

// One plane of the view frustum: normal . p + offset >= 0 inside, the normal points inwards.
struct FrustumPlane {
  Vector normal;
  float offset = 0.0f;
};

// The view a frame is drawn for, besides the camera itself: the scene's bounds (for the axis),
// the frustum of the frame being drawn, and how many of the samples a frame draws.
struct DrawView {
  Vector sceneMin{1e20f, 1e20f, 1e20f};
  Vector sceneMax{-1e20f, -1e20f, -1e20f};
  FrustumPlane frustum[6];
  // 1 draws every sample. k > 1 draws only the samples whose index is a multiple of k: the same
  // samples in every such frame, so that the reduced frames drawn while the camera moves do not
  // flicker. Reduced frames neither compile nor replace compiled geometry.
  uint32_t sampleStride = 1;
};

// The compiled geometry of the samples (display pass) and of the picking pass, where the back
// end can compile geometry. It listens to the options and the edits and drops both whenever an
// option changes or samples are deleted or restored: no caller drops them by hand.
class GeometryCache {
 public:
  GeometryCache(DrawOptions& options, SampleEdits& edits);
  ~GeometryCache();
  GeometryCache(const GeometryCache&) = delete;
  GeometryCache& operator=(const GeometryCache&) = delete;

  // The back end that holds the geometry (null: none). A new one starts without geometry; what
  // the old one held is dropped first.
  void setRasterizer(Rasterizer3D* rasterizer);
  void drop();
  // How many times the geometry was dropped.
  uint64_t drops() const { return drops_; }

  uint32_t samples = 0;  // handles, 0: none
  uint32_t picking = 0;

 private:
  DrawOptions& options_;
  SampleEdits& edits_;
  Rasterizer3D* rasterizer_ = nullptr;
  int optionsHandle_ = 0;
  int editsHandle_ = 0;
  uint64_t drops_ = 0;
};

// Everything one frame or pick reads.
struct DrawScene {
  DrawnMap map;
  const DrawOptions* options = nullptr;
  const SampleEdits* edits = nullptr;
  DrawView* view = nullptr;
  GeometryCache* cache = nullptr;    // null: nothing is compiled
  ThreadManager* threads = nullptr;  // null: every sample on the calling thread
  // Hears the thread manager's waits while the samples are drawn on its threads: the viewer
  // keeps its window responsive there. Null: the calling thread just waits.
  ProgressCallback* waitSink = nullptr;
};

// The six planes for the camera: near at 0.01 along the view, far at `farDistance`, the sides
// from the projection both rasterizers use (the vertical angle scaled linearly by the aspect).
void computeFrustum(const Camera* camera, float farDistance, int width, int height,
                    FrustumPlane planes[6]);

// What the per-sample callbacks share during one pass.
struct DrawPass {
  Rasterizer3D* rasterizer = nullptr;
  const DrawOptions* options = nullptr;
  const SampleEdits* edits = nullptr;
  const DrawView* view = nullptr;
  bool pickNames = false;   // load each index as the pick name
  bool frustumTest = true;  // off while geometry is compiled
  uint32_t stride = 1;
  Vector eye;
  // Unit-circle points for every side count up to 32.
  float cosines[33][32];
  float sines[33][32];

  DrawPass(Rasterizer3D& r, const DrawScene& scene, bool testFrustum);
  // Sides of the disc of radius r at `position` for the current quality.
  unsigned sidesFor(float radius, const Vector& position) const;
  bool insideFrustum(const Vector& position, float radius) const;
  // Draws one disc: b = 0 in colour x brightness, b = 1 in the colour of `index`.
  void drawDisc(const DrawnSample& s, uint32_t index, int b) const;
  // drawDisc() where the back end already said that the disc may show (no pick name loaded).
  void drawShownDisc(const DrawnSample& s, uint32_t index, int b) const;
};

// The per-sample drawing callback. b = 0 draws in the sample's colour, b = 1 in its index
// colour (the picking pass). Indices run from `first` in enumeration order. Each record has a
// cache line of its own: the drawing threads count in their records at every sample.
template <int b>
class alignas(64) DrawSamplesCb final {
 public:
  uint32_t count = 0;
  uint32_t limit = 0xFFFFFFFFu;
  uint32_t first = 0;
  const DrawPass* pass = nullptr;

  // Returns false once `limit` samples were visited.
  bool process(const DrawnSample& sample);
  // Runs process over the callback's share of the source. A reduced frame (stride above 2)
  // jumps from one drawn index to the next rather than walking every sample between them.
  template <class Source>
  void runShare(const Source& source);
};

// A thread job drawing `total` samples of a map from index `base` on n threads: thread i of n
// takes total / n samples from base + i x share (the last one the remainder too) with its own
// callback record.
template <class Map, class Cb>
class DrawThreaded final : public MultiThreaded {
 public:
  DrawThreaded(Map& map, Cb* records, uint32_t total, uint32_t base = 0)
      : map_(map), records_(records), total_(total), base_(base) {}
  void run(std::atomic<int32_t>* result, std::atomic<int32_t>* progress, int32_t index,
           int32_t threadCount) override;
  const char* threadName() override { return "draw_thread"; }

  // The share of thread i of n: its first index and its sample count.
  static void share(uint32_t total, uint32_t i, uint32_t n, uint32_t& first, uint32_t& limit);

 private:
  Map& map_;
  Cb* records_;
  uint32_t total_;
  uint32_t base_;
};

extern template class DrawThreaded<LightMap, DrawSamplesCb<0>>;
extern template class DrawThreaded<LightMap, DrawSamplesCb<1>>;
extern template class DrawThreaded<IrradianceMap, DrawSamplesCb<0>>;
extern template class DrawThreaded<IrradianceMap, DrawSamplesCb<1>>;

// Draws every sample of the map with DrawSamplesCb<b>: on the thread manager's threads when the
// back end draws in bands (Rasterizer3D::drawsInBands), multi-threaded software drawing is on,
// the map has at least 100 samples and the manager has more than one thread; otherwise on the
// calling thread (one worker would only add the hand-over). The threads draw the map in runs of
// kThreadedRunSamples drawn samples (a reduced frame's run spans stride times as many indices),
// in two steps per run:
//   - the run is cut into a few slices per thread (slice i of s is the share of thread i of s in
//     DrawThreaded), dealt to the threads as they ask; a thread draws its slice's discs into
//     the slice's recording (band_recording.h), which sets each one up and files it by bands;
//   - the bands (a power of two rows each, a few per thread) are dealt to the threads as they
//     ask; a thread draws the band from every slice's recording, slice after slice.
// So each pixel sees its discs in the samples' order, as on one thread, and the picture is the
// same. The recordings of a run hold 12 bytes per pixel a small disc covers, a little more for
// the few large ones: about a megabyte for a run of a dense map, never the whole frame's.
// Returns the number of threads used.
constexpr uint32_t kThreadedRunSamples = 1u << 17;
template <int b>
uint32_t drawSamples(const DrawPass& pass, const DrawScene& scene);

// The whole frame for the camera into the rasterizer (clear, samples, selection boxes, axis),
// ending with swapBuffers.
void drawFrame(Rasterizer3D& rasterizer, const DrawScene& scene);
// A rectangle of window pixels, y downward, both corners included.
struct PixelRect {
  int x0, y0, x1, y1;
};
// The frustum of a pick: computeFrustum's, with the sides narrowed to the rectangle's pixels and
// two more all round. A sample whose bounding sphere lies outside it has no pixel in the
// rectangle and no primitive in its pick volume.
void computePickFrustum(const Camera* camera, float farDistance, int width, int height,
                        const PixelRect& rect, FrustumPlane planes[6]);

// The samples of a frame without the rest of it (a pick through the back end's names): frustum,
// then every sample with its index as pick name, through the cache's compiled samples.
// With `pick`, the frustum is the pick's: a small rectangle draws only the samples near it.
// (Compiled geometry holds every sample and is replayed whole.)
void drawSamplePass(Rasterizer3D& rasterizer, const DrawScene& scene,
                    const PixelRect* pick = nullptr);
// The picking pass: frustum, then every sample in its index colour (the caller has set up the
// picking frame). Where geometry can be compiled, the cache's picking geometry holds it.
void drawPickingPass(Rasterizer3D& rasterizer, const DrawScene& scene,
                     const PixelRect* pick = nullptr);

// Sums the mean of the three colour channels of every drawable sample and counts them.
class GetSamplesIntensityCb final {
 public:
  double sum = 0.0;
  int64_t count = 0;
  bool process(const DrawnSample& sample);
};

// brightness = 1 / (2 x the average sample intensity); an empty map gives infinity. Returns the
// number of samples seen (for the status display).
int64_t automaticBrightness(const DrawnMap& map, DrawOptions& options);

// "B" (Shift: darker) and the LOD keys; each prints its console message. The caller repaints.
void brightnessKey(bool shift, DrawOptions& options);
void lodKey(bool plus, DrawOptions& options);

// The scene bounding box over every sample (the viewer's BBoxCb): min (1e20, 1e20, 1e20) and
// max (-1e20, -1e20, -1e20) for a map without samples.
void sceneBounds(const DrawnMap& map, Vector& min, Vector& max);

// sceneBounds() and automaticBrightness() in one pass over the samples, with their results.
int64_t boundsAndBrightness(const DrawnMap& map, Vector& min, Vector& max, DrawOptions& options);

}  // namespace LUtils
