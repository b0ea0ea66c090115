// Sample drawing: every irradiance or light-cache sample as a flat, unlit disc in its colour times
// the brightness, frustum-culled, optionally split across the thread manager's workers for the
// software rasterizer; the same discs in index colours for colour picking; selection boxes, the
// axis cross, and the viewer-wide drawing settings with their brightness and LOD keys.
#pragma once

#include <cstdint>
#include <vector>

#include "io/vector.h"
#include "irradiance/irradiance_map.h"
#include "threads/thread_manager.h"

class LightMap;
struct LightMapSample;

namespace LUtils {

class Camera;
class Rasterizer3D;

// One plane of the view frustum: normal . p + offset >= 0 inside, the normal points inwards.
struct FrustumPlane {
  Vector normal;
  float offset = 0.0f;
};

// The viewer-wide drawing settings: one set per process, driven by the viewer's menus and keys
// and read by the drawing code every frame.
struct DrawSettings {
  bool useOpenGL = true;
  bool multiThreadedSoftware = true;
  int32_t segmentsPerDisc = 6;  // quality: 6, 10 or 16
  bool adaptiveQuality = false;
  float lodMultiplier = 1.0f;
  float brightness = 1.0f;
  bool backfaceCulling = false;
  bool useDisplayLists = false;
  bool showAxis = false;
  Vector cameraPosition;
  Vector sceneMin{1e20f, 1e20f, 1e20f};
  Vector sceneMax{-1e20f, -1e20f, -1e20f};
  // One bit per sample index: bit (index mod 8) of byte (index / 8).
  std::vector<uint8_t> deletedSamples;
  std::vector<uint8_t> selectedSamples;
  bool hasSelection = false;
  Color selectionColour{1.0f, 0.85f, 0.0f};
  FrustumPlane frustum[6];
  // OpenGL display lists: the samples, and the canvas's second list (the picking pass). 0: none.
  uint32_t sampleList = 0;
  uint32_t pickingList = 0;
  // Samples seen by the last automatic brightness (for the status display).
  int64_t samplesSeen = 0;
};

extern DrawSettings gDrawSettings;

bool testSampleBit(const std::vector<uint8_t>& bits, uint32_t index);
void setSampleBit(std::vector<uint8_t>& bits, uint32_t index);

// The map the viewer shows: a light cache when one is given, else the irradiance map.
struct DrawnMap {
  IrradianceMap* irradiance = nullptr;
  LightMap* light = nullptr;
};

// The six planes for the camera: near at 0.01 along the view, far at `farDistance`, the sides
// from the projection both rasterizers use (the vertical angle scaled linearly by the aspect).
void computeFrustum(const Camera* camera, float farDistance, int width, int height,
                    FrustumPlane planes[6]);

// What the per-sample callbacks share during one pass.
struct DrawPass {
  Rasterizer3D* rasterizer = nullptr;
  const DrawSettings* settings = nullptr;
  bool openGL = false;       // load each index as the GL selection name
  bool frustumTest = true;   // off while a display list is compiled
  Vector eye;
  // Unit-circle points for every side count up to 32.
  float cosines[33][32];
  float sines[33][32];

  DrawPass(Rasterizer3D& r, const DrawSettings& s, bool testFrustum);
  // Sides of the disc of radius r at `position` for the current quality.
  unsigned sidesFor(float radius, const Vector& position) const;
  bool insideFrustum(const Vector& position, float radius) const;
  // Draws one disc: b = 0 in colour x brightness, b = 1 in the colour of `index`.
  void drawDisc(const Vector& position, const Vector& normal, float radius, const Color& colour,
                uint32_t index, int b) const;
};

// The per-sample drawing callback. b = 0 draws in the sample's colour, b = 1 in its index
// colour (the picking pass). Indices run from `first` in enumeration order. Each record has a
// cache line of its own: the drawing threads count in their records at every sample.
template <int b>
class alignas(64) DrawSamplesCb final : public EnumIrradianceSamplesCallback {
 public:
  uint32_t count = 0;
  uint32_t limit = 0xFFFFFFFFu;
  uint32_t first = 0;
  const DrawPass* pass = nullptr;

  int process(IrradSample& sample) override;
  bool processLight(const LightMapSample& sample);
};

// A thread job drawing a map on n threads: thread i of n takes total / n samples from i x share
// (the last one the remainder too) with its own callback record.
template <class Map, class Cb>
class DrawThreaded final : public MultiThreaded {
 public:
  DrawThreaded(Map& map, Cb* records, uint32_t total) : map_(map), records_(records), total_(total) {}
  void run(std::atomic<int32_t>* result, std::atomic<int32_t>* progress, int32_t index,
           int32_t threadCount) override;
  const char* threadName() override { return "draw_thread"; }

  // The share of thread i of n: its first index and its sample count.
  static void share(uint32_t total, uint32_t i, uint32_t n, uint32_t& first, uint32_t& limit);

 private:
  Map& map_;
  Cb* records_;
  uint32_t total_;
};

extern template class DrawThreaded<LightMap, DrawSamplesCb<0>>;
extern template class DrawThreaded<LightMap, DrawSamplesCb<1>>;
extern template class DrawThreaded<IrradianceMap, DrawSamplesCb<0>>;
extern template class DrawThreaded<IrradianceMap, DrawSamplesCb<1>>;

// Draws every sample of the map with DrawSamplesCb<b>: on the thread manager's threads when the
// rasterizer is the software one, multi-threaded software drawing is on and the map has at least
// 100 samples; otherwise on the calling thread. Returns the number of threads used.
template <int b>
uint32_t drawSamples(const DrawPass& pass, const DrawnMap& map, ThreadManager* threads);

// The whole frame for the camera into the rasterizer (clear, samples, selection boxes, axis),
// ending with swapBuffers.
void drawFrame(Rasterizer3D& rasterizer, const DrawnMap& map, ThreadManager* threads,
               DrawSettings& settings = gDrawSettings);
// The picking pass: frustum, then every sample in its index colour (the caller has set up the
// picking frame). On OpenGL with display lists on, the canvas's second list caches it.
void drawPickingPass(Rasterizer3D& rasterizer, const DrawnMap& map, ThreadManager* threads,
                     DrawSettings& settings = gDrawSettings);

// Deletes both display lists (any rendering option change, deletion, undo); `rasterizer` may be
// null or a software one, which keeps no lists.
void invalidateDisplayLists(Rasterizer3D* rasterizer, DrawSettings& settings = gDrawSettings);

// Sums the mean of the three colour channels of every irradiance sample and counts them.
class GetSamplesIntensityCb final : public EnumIrradianceSamplesCallback {
 public:
  double sum = 0.0;
  int64_t count = 0;
  int process(IrradSample& sample) override;
};

// brightness = 1 / (2 x the average sample intensity); an empty map gives infinity.
void automaticBrightness(const DrawnMap& map, DrawSettings& settings = gDrawSettings);

// "B" (Shift: darker) and the LOD keys; each prints its console message. The caller repaints.
void brightnessKey(bool shift, DrawSettings& settings = gDrawSettings);
void lodKey(bool plus, DrawSettings& settings = gDrawSettings);

// The scene bounding box over every sample (the viewer's BBoxCb).
void sceneBounds(const DrawnMap& map, Vector& min, Vector& max);

}  // namespace LUtils
