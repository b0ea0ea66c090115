// Sample drawing over the sample adaptor; see sample_drawing.h.
#include "render/sample_drawing.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

#include "lightcache/light_map.h"
#include "render/band_recording.h"
#include "render/camera.h"
#include "render/disc_basis.h"
#include "render/rasterizer.h"
#include "render/view_projection.h"

namespace LUtils {

namespace {

// Maps of fewer samples are drawn on the calling thread.
constexpr uint32_t kMinThreadedSamples = 100;
// Slices of a run per drawing thread.
constexpr uint32_t kSlicesPerThread = 8;

Vector diameterCorner(const Vector& lo, const Vector& hi, int corner) {
  return {(corner & 1) != 0 ? hi.x : lo.x, (corner & 2) != 0 ? hi.y : lo.y,
          (corner & 4) != 0 ? hi.z : lo.z};
}

// The wire box around a selected sample's disc: six four-cornered faces.
void drawSelectionBox(Rasterizer3D& r, const Vector& p, const Vector& normal, float radius,
                      const Color& colour) {
  Vector u, v;
  discBasis(normal, u, v);
  const Vector extremes[4] = {p + u * radius, p - u * radius, p + v * radius, p - v * radius};
  Vector lo = extremes[0], hi = extremes[0];
  for (const Vector& e : extremes) {
    lo = {std::min(lo.x, e.x), std::min(lo.y, e.y), std::min(lo.z, e.z)};
    hi = {std::max(hi.x, e.x), std::max(hi.y, e.y), std::max(hi.z, e.z)};
  }
  static constexpr int kFaces[6][4] = {{0, 2, 3, 1}, {0, 1, 5, 4}, {0, 4, 6, 2},
                                       {3, 7, 5, 1}, {3, 2, 6, 7}, {4, 5, 7, 6}};
  for (const auto& face : kFaces) {
    const Vector quad[4] = {diameterCorner(lo, hi, face[0]), diameterCorner(lo, hi, face[1]),
                            diameterCorner(lo, hi, face[2]), diameterCorner(lo, hi, face[3])};
    r.drawQuadOrPolygon(quad, 4, colour);
  }
}

// Draws the box of every selected sample that is not deleted and whose disc is in the frustum.
class DrawSelectedSamplesCb final {
 public:
  explicit DrawSelectedSamplesCb(const DrawPass& pass) : pass_(pass) {}
  bool process(const DrawnSample& s) {
    const uint32_t index = count_++;
    if (pass_.edits->selected(index) && !pass_.edits->deleted(index) && s.drawable() &&
        pass_.insideFrustum(s.position, s.radius)) {
      drawSelectionBox(*pass_.rasterizer, s.position, s.normal, s.radius,
                       pass_.options->selectionColour());
    }
    return true;
  }

 private:
  const DrawPass& pass_;
  uint32_t count_ = 0;
};

// Grows a box over every sample position.
class BBoxCb final {
 public:
  Vector lo{1e20f, 1e20f, 1e20f};
  Vector hi{-1e20f, -1e20f, -1e20f};
  bool process(const DrawnSample& s) {
    if (!s.drawable()) return true;
    const Vector& p = s.position;
    lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
    hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
    return true;
  }
};

// Runs a callback object with a process(const DrawnSample&) over the map from index `first`.
template <class Cb>
void runOver(const DrawnMap& map, uint32_t first, Cb& cb) {
  withSampleSource(map, [&](const auto& source) {
    source.forEach(first, [&cb](const DrawnSample& s) { return cb.process(s); });
  });
}

// Draws the samples of one pass through the cache's compiled geometry `handle` when the back end
// can compile: replays it when there is one, compiles it when display lists are on (not in
// adaptive quality, whose discs change with the view, nor in a reduced frame).
template <int b>
void drawSamplesCached(Rasterizer3D& r, const DrawScene& scene, uint32_t* handle) {
  const DrawOptions& o = *scene.options;
  if (!r.canCacheGeometry() || scene.cache == nullptr) handle = nullptr;
  if (handle != nullptr && *handle != 0) {
    r.drawGeometry(*handle);
    return;
  }
  bool compiling = false;
  if (handle != nullptr && o.useDisplayLists() && !o.adaptiveQuality() &&
      scene.view->sampleStride <= 1) {
    *handle = r.beginGeometry();
    compiling = *handle != 0;
  }
  // Compiled geometry must hold every sample: no frustum test while compiling.
  const DrawPass pass(r, scene, !o.useDisplayLists());
  drawSamples<b>(pass, scene);
  if (compiling) {
    r.endGeometry();
    r.drawGeometry(*handle);
  }
}

}  // namespace

GeometryCache::GeometryCache(DrawOptions& options, SampleEdits& edits)
    : options_(options), edits_(edits) {
  optionsHandle_ = options_.changes().subscribe([this](DrawOptions::Option) { drop(); });
  editsHandle_ = edits_.changes().subscribe([this](SampleEdits::Change change) {
    // Selection boxes are drawn afresh every frame; deletions change the compiled samples.
    if (change == SampleEdits::Change::Deleted) drop();
  });
}

GeometryCache::~GeometryCache() {
  options_.changes().unsubscribe(optionsHandle_);
  edits_.changes().unsubscribe(editsHandle_);
  drop();
}

void GeometryCache::setRasterizer(Rasterizer3D* rasterizer) {
  drop();
  rasterizer_ = rasterizer;
}

void GeometryCache::drop() {
  if (rasterizer_ != nullptr) {
    rasterizer_->deleteGeometry(samples);
    rasterizer_->deleteGeometry(picking);
  }
  samples = 0;
  picking = 0;
  ++drops_;
}

void computeFrustum(const Camera* camera, float farDistance, int width, int height,
                    FrustumPlane planes[6]) {
  const CameraFrame f = cameraFrame(camera);
  const double h = height > 0 ? height : 1;
  const float aspect = static_cast<float>((width > 0 ? width : 1) / h);
  const float tanV = static_cast<float>(
      std::tan(verticalFovDegrees(f.fieldOfView, width, height) * 3.14159265358979 / 360.0));
  const float tanH = tanV * aspect;
  auto plane = [&](const Vector& n) {
    const Vector unit = n / length(n);
    return FrustumPlane{unit, -dot(unit, f.eye)};
  };
  planes[0] = {f.forward, -dot(f.forward, f.eye) - 0.01f};
  planes[1] = {-f.forward, dot(f.forward, f.eye) + farDistance};
  planes[2] = plane(f.forward * tanH - f.right);
  planes[3] = plane(f.forward * tanH + f.right);
  planes[4] = plane(f.forward * tanV - f.up);
  planes[5] = plane(f.forward * tanV + f.up);
}

DrawPass::DrawPass(Rasterizer3D& r, const DrawScene& scene, bool testFrustum)
    : rasterizer(&r),
      options(scene.options),
      edits(scene.edits),
      view(scene.view),
      pickNames(r.loadsPickNames()),
      frustumTest(testFrustum),
      stride(std::max<uint32_t>(1, scene.view->sampleStride)) {
  eye = cameraFrame(r.camera()).eye;
  for (int k = 1; k <= 32; ++k) {
    for (int i = 0; i < k; ++i) {
      const float a = 2.0f * static_cast<float>(i) * 3.1415927f / static_cast<float>(k);
      cosines[k][i] = std::cos(a);
      sines[k][i] = std::sin(a);
    }
  }
}

unsigned DrawPass::sidesFor(float radius, const Vector& position) const {
  const int n = std::clamp(options->segmentsPerDisc(), 3, 16);
  if (!options->adaptiveQuality()) return static_cast<unsigned>(n);
  // Nearer and larger discs get more sides: from 4 up to 2N.
  const float d = length(position - eye);
  const float divisor = std::max(std::log(d) / 3.0f, 0.2f) * options->lodMultiplier();
  const float k = std::ceil(std::sqrt(radius) * 2.0f * static_cast<float>(n) / divisor);
  if (k > static_cast<float>(2 * n)) return static_cast<unsigned>(2 * n);
  if (!(k >= 4.0f)) return 4;
  return static_cast<unsigned>(k);
}

bool DrawPass::insideFrustum(const Vector& position, float radius) const {
  for (const FrustumPlane& plane : view->frustum) {
    if (!(dot(plane.normal, position) + plane.offset >= -radius)) return false;
  }
  return true;
}

void DrawPass::drawDisc(const DrawnSample& s, uint32_t index, int b) const {
  if (pickNames) rasterizer->loadPickName(index);
  if (!rasterizer->mayShowDisc(s.position, s.radius)) return;
  drawShownDisc(s, index, b);
}

void DrawPass::drawShownDisc(const DrawnSample& s, uint32_t index, int b) const {
  Vector u, v;
  discBasis(s.normal, u, v);
  const unsigned k = sidesFor(s.radius, s.position);
  Vector vertices[32];
  for (unsigned i = 0; i < k; ++i) {
    vertices[i] = s.position + u * (s.radius * cosines[k][i]) + v * (s.radius * sines[k][i]);
  }
  if (b == 0) {
    rasterizer->drawQuadOrPolygon(vertices, k, s.colour * options->brightness());
  } else {
    rasterizer->drawPolygonRGBA(vertices, k, index);
  }
}

template <int b>
bool DrawSamplesCb<b>::process(const DrawnSample& s) {
  const uint32_t index = first + count++;
  if ((pass->stride == 1 || index % pass->stride == 0) && !pass->edits->deleted(index) &&
      s.drawable() &&
      (!pass->frustumTest || pass->insideFrustum(s.position, s.radius))) {
    pass->drawDisc(s, index, b);
  }
  // A pick whose buffer is full reports the same whatever is drawn after.
  if (pass->pickNames && (count & 255) == 0 && pass->rasterizer->pickOverflowed()) return false;
  return count < limit;
}

template <int b>
template <class Source>
void DrawSamplesCb<b>::runShare(const Source& source) {
  const uint32_t stride = pass->stride;
  if (stride <= 2) {
    source.forEach(first, [this](const DrawnSample& s) { return process(s); });
    return;
  }
  const uint64_t end = std::min<uint64_t>(uint64_t{first} + limit, source.count());
  for (uint64_t i = (uint64_t{first} + stride - 1) / stride * stride; i < end; i += stride) {
    count = static_cast<uint32_t>(i - first);
    source.forEach(static_cast<uint32_t>(i), [this](const DrawnSample& s) {
      process(s);
      return false;
    });
  }
}

template class DrawSamplesCb<0>;
template class DrawSamplesCb<1>;

template <class Map, class Cb>
void DrawThreaded<Map, Cb>::share(uint32_t total, uint32_t i, uint32_t n, uint32_t& first,
                                  uint32_t& limit) {
  const uint32_t each = total / n;
  first = i * each;
  limit = i + 1 == n ? each + total % n : each;
}

template <class Map, class Cb>
void DrawThreaded<Map, Cb>::run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t index,
                                int32_t threadCount) {
  Cb& cb = records_[index];
  share(total_, static_cast<uint32_t>(index), static_cast<uint32_t>(threadCount), cb.first,
        cb.limit);
  cb.first += base_;
  cb.count = 0;
  if (cb.limit == 0) return;
  cb.runShare(typename SampleSourceOf<Map>::type(map_));
}

template class DrawThreaded<LightMap, DrawSamplesCb<0>>;
template class DrawThreaded<LightMap, DrawSamplesCb<1>>;
template class DrawThreaded<IrradianceMap, DrawSamplesCb<0>>;
template class DrawThreaded<IrradianceMap, DrawSamplesCb<1>>;

namespace {

// Deals the slices of a run to the threads as they ask for them, so that a thread slowed by
// other work on its core draws fewer slices rather than holding the others up. Slice i is the
// share of "thread" i of `slices` in the drawing job, drawn into recording i; the bands are
// drawn from the recordings in slice order, which is the samples' order.
template <class Job>
class DealSlices final : public MultiThreaded {
 public:
  DealSlices(Job& job, Rasterizer3D& rasterizer, BandRecording* recordings, uint32_t slices)
      : job_(job), rasterizer_(rasterizer), recordings_(recordings), slices_(slices) {}
  void run(std::atomic<int32_t>* resultWord, std::atomic<int32_t>* progressWord, int32_t,
           int32_t) override {
    for (uint32_t s = next_++; s < slices_; s = next_++) {
      rasterizer_.recordOnThisThread(&recordings_[s]);
      job_.run(resultWord, progressWord, static_cast<int32_t>(s), static_cast<int32_t>(slices_));
    }
    rasterizer_.recordOnThisThread(nullptr);
  }
  const char* threadName() override { return "draw_thread"; }

 private:
  Job& job_;
  Rasterizer3D& rasterizer_;
  BandRecording* recordings_;
  uint32_t slices_;
  std::atomic<uint32_t> next_{0};
};

template <class Map, class Cb>
void recordRun(Map& map, Cb* records, uint32_t run, uint32_t base, const DrawPass& pass,
               BandRecording* recordings, uint32_t slices, uint32_t threadCount,
               ThreadManager& threads, ProgressCallback* waitSink) {
  DrawThreaded<Map, Cb> job(map, records, run, base);
  DealSlices<DrawThreaded<Map, Cb>> deal(job, *pass.rasterizer, recordings, slices);
  threads.run(static_cast<int32_t>(threadCount), &deal, waitSink, false);
}

// Draws the bands of rows from the slices' recordings, each band on one thread, the bands dealt
// to the threads as they ask; a band is drawn from every slice's recording, slice after slice,
// which is the samples' order.
class DrawBands final : public MultiThreaded {
 public:
  DrawBands(Rasterizer3D& rasterizer, const BandRecording* recordings, uint32_t sliceCount)
      : rasterizer_(rasterizer), recordings_(recordings), sliceCount_(sliceCount) {}
  void run(std::atomic<int32_t>*, std::atomic<int32_t>*, int32_t, int32_t) override {
    const unsigned bands = recordings_[0].bands();
    for (unsigned k = next_++; k < bands; k = next_++) {
      for (uint32_t i = 0; i < sliceCount_; ++i) rasterizer_.drawRecordedBand(recordings_[i], k);
    }
  }
  const char* threadName() override { return "draw_thread"; }

 private:
  Rasterizer3D& rasterizer_;
  const BandRecording* recordings_;
  uint32_t sliceCount_;
  std::atomic<unsigned> next_{0};
};

// Bands of rows per drawing thread: enough that a thread slowed by other work on its core draws
// fewer bands rather than holding the others up, few enough that discs seldom span two bands.
constexpr unsigned kBandsPerThread = 4;

template <int b>
uint32_t drawSamplesInBands(const DrawPass& pass, const DrawScene& scene, uint32_t total,
                            uint32_t n, ThreadManager& threads) {
  const DrawnMap& map = scene.map;
  Rasterizer3D& r = *pass.rasterizer;
  const uint32_t slices = std::min(kSlicesPerThread * n, 256u);
  const int rows = std::max(1, r.frameRows());
  // Bands of a power of two rows, at least kBandsPerThread per thread where the frame has the
  // rows, at most BandRecording::kMaxBands.
  int bandShift = 24;
  const unsigned wanted = std::max(1u, kBandsPerThread * n);
  while (bandShift > 0 && (rows >> bandShift) < static_cast<int>(wanted)) --bandShift;
  while (((rows - 1) >> bandShift) + 1 > static_cast<int>(BandRecording::kMaxBands)) ++bandShift;
  const unsigned bands = static_cast<unsigned>(((rows - 1) >> bandShift) + 1);
  auto recordings = std::make_unique<BandRecording[]>(slices);
  auto records = std::make_unique<DrawSamplesCb<b>[]>(slices);
  for (uint32_t i = 0; i < slices; ++i) {
    recordings[i].reset(r.frameColumns(), bandShift, bands);
    records[i].pass = &pass;
  }
  const uint64_t span = uint64_t{kThreadedRunSamples} * pass.stride;
  for (uint32_t base = 0; base < total;) {
    const uint32_t run = static_cast<uint32_t>(std::min<uint64_t>(span, total - base));
    for (uint32_t i = 0; i < slices; ++i) recordings[i].clear();
    if (map.light != nullptr) {
      recordRun(*map.light, records.get(), run, base, pass, recordings.get(), slices, n, threads,
                scene.waitSink);
    } else {
      recordRun(*map.irradiance, records.get(), run, base, pass, recordings.get(), slices, n,
                threads, scene.waitSink);
    }
    DrawBands draw(r, recordings.get(), slices);
    threads.run(static_cast<int32_t>(n), &draw, scene.waitSink, false);
    base += run;
  }
  return n;
}

}  // namespace

template <int b>
uint32_t drawSamples(const DrawPass& pass, const DrawScene& scene) {
  const DrawnMap& map = scene.map;
  uint32_t total = 0;
  withSampleSource(map, [&total](const auto& source) { total = source.count(); });
  ThreadManager* threads = scene.threads;
  const uint32_t n =
      threads != nullptr ? static_cast<uint32_t>(std::max(1, threads->threadCount())) : 1;
  const bool threaded = pass.rasterizer->drawsInBands() &&
                        pass.options->multiThreadedSoftware() && total >= kMinThreadedSamples &&
                        n > 1;
  if (!threaded) {
    DrawSamplesCb<b> cb;
    cb.pass = &pass;
    withSampleSource(map, [&cb](const auto& source) { cb.runShare(source); });
    return 1;
  }

  return drawSamplesInBands<b>(pass, scene, total, n, *threads);
}

template uint32_t drawSamples<0>(const DrawPass&, const DrawScene&);
template uint32_t drawSamples<1>(const DrawPass&, const DrawScene&);

void drawFrame(Rasterizer3D& r, const DrawScene& scene) {
  const DrawOptions& o = *scene.options;
  r.setClearColor({0.25f, 0.25f, 0.25f});
  r.setBackfaceCulling(o.backfaceCulling());
  r.beginFrame();
  computeFrustum(r.camera(), r.farDistance(), r.viewportWidth(), r.viewportHeight(),
                 scene.view->frustum);
  r.setDepthTest(true);
  r.setFillMode(1);
  drawSamplesCached<0>(r, scene, scene.cache != nullptr ? &scene.cache->samples : nullptr);

  if (scene.edits->hasSelection()) {
    r.setFillMode(0);
    r.beginOverlayOutlines();
    const DrawPass pass(r, scene, true);
    DrawSelectedSamplesCb cb(pass);
    runOver(scene.map, 0, cb);
    r.endOverlayOutlines();
  }

  if (o.showAxis()) {
    r.setLineWidth(2.0f);
    r.setFillMode(0);
    r.setDepthTest(false);
    const float l = length(scene.view->sceneMax - scene.view->sceneMin) / 10.0f;
    r.drawLine({0, 0, 0}, {l, 0, 0}, {1, 0, 0});
    r.drawLine({0, 0, 0}, {0, l, 0}, {0, 1, 0});
    r.drawLine({0, 0, 0}, {0, 0, l}, {0, 0, 1});
    r.setDepthTest(true);
  }
  r.swapBuffers();
}

void computePickFrustum(const Camera* camera, float farDistance, int width, int height,
                        const PixelRect& rect, FrustumPlane planes[6]) {
  computeFrustum(camera, farDistance, width, height, planes);
  const CameraFrame f = cameraFrame(camera);
  const double w = width > 0 ? width : 1;
  const double h = height > 0 ? height : 1;
  const float tanV = static_cast<float>(
      std::tan(verticalFovDegrees(f.fieldOfView, width, height) * 3.14159265358979 / 360.0));
  const float tanH = tanV * static_cast<float>(w / h);
  // The rectangle's sides in normalised device coordinates (y upward), two pixels wider all
  // round than the pixels it covers.
  const auto ndc = [](double v) { return static_cast<float>(std::clamp(v, -1.0, 1.0)); };
  const float left = ndc(2.0 * (std::min(rect.x0, rect.x1) - 2) / w - 1.0);
  const float right = ndc(2.0 * (std::max(rect.x0, rect.x1) + 3) / w - 1.0);
  const float top = ndc(1.0 - 2.0 * (std::min(rect.y0, rect.y1) - 2) / h);
  const float bottom = ndc(1.0 - 2.0 * (std::max(rect.y0, rect.y1) + 3) / h);
  auto plane = [&](const Vector& n) {
    const Vector unit = n / length(n);
    return FrustumPlane{unit, -dot(unit, f.eye)};
  };
  planes[2] = plane(f.forward * (tanH * right) - f.right);
  planes[3] = plane(f.right - f.forward * (tanH * left));
  planes[4] = plane(f.forward * (tanV * top) - f.up);
  planes[5] = plane(f.up - f.forward * (tanV * bottom));
}

namespace {
void passFrustum(Rasterizer3D& r, const DrawScene& scene, const PixelRect* pick) {
  if (pick != nullptr) {
    computePickFrustum(r.camera(), r.farDistance(), r.viewportWidth(), r.viewportHeight(), *pick,
                       scene.view->frustum);
  } else {
    computeFrustum(r.camera(), r.farDistance(), r.viewportWidth(), r.viewportHeight(),
                   scene.view->frustum);
  }
}
}  // namespace

void drawSamplePass(Rasterizer3D& r, const DrawScene& scene, const PixelRect* pick) {
  passFrustum(r, scene, pick);
  drawSamplesCached<0>(r, scene, scene.cache != nullptr ? &scene.cache->samples : nullptr);
}

void drawPickingPass(Rasterizer3D& r, const DrawScene& scene, const PixelRect* pick) {
  passFrustum(r, scene, pick);
  drawSamplesCached<1>(r, scene, scene.cache != nullptr ? &scene.cache->picking : nullptr);
}

bool GetSamplesIntensityCb::process(const DrawnSample& s) {
  if (!s.drawable()) return true;
  sum += 0.33333334f * (s.colour.r + s.colour.g + s.colour.b);
  ++count;
  return true;
}

namespace {
void setBrightnessFrom(const GetSamplesIntensityCb& cb, DrawOptions& options) {
  const double average = cb.count > 0 ? cb.sum / static_cast<double>(cb.count) : 0.0;
  options.setBrightness(static_cast<float>(1.0 / (2.0 * average)));
}
}  // namespace

int64_t automaticBrightness(const DrawnMap& map, DrawOptions& options) {
  GetSamplesIntensityCb cb;
  runOver(map, 0, cb);
  setBrightnessFrom(cb, options);
  return cb.count;
}

void brightnessKey(bool shift, DrawOptions& options) {
  const float b = options.brightness();
  options.setBrightness(shift ? b / 1.125f : b * 1.125f);
  std::printf("Brightness set to %g\n", static_cast<double>(options.brightness()));
  std::fflush(stdout);
}

void lodKey(bool plus, DrawOptions& options) {
  const float lod = options.lodMultiplier();
  if (plus) {
    if (lod < 2.9f) options.setLodMultiplier(lod + 0.1f);
  } else {
    if (lod > 0.4f) options.setLodMultiplier(lod - 0.1f);
  }
  std::printf("LOD multiplier set to %g\n", static_cast<double>(options.lodMultiplier()));
  std::fflush(stdout);
}

void sceneBounds(const DrawnMap& map, Vector& lo, Vector& hi) {
  BBoxCb cb;
  runOver(map, 0, cb);
  lo = cb.lo;
  hi = cb.hi;
}

int64_t boundsAndBrightness(const DrawnMap& map, Vector& lo, Vector& hi, DrawOptions& options) {
  struct Both {
    BBoxCb box;
    GetSamplesIntensityCb intensity;
    bool process(const DrawnSample& s) {
      box.process(s);
      return intensity.process(s);
    }
  } cb;
  runOver(map, 0, cb);
  lo = cb.box.lo;
  hi = cb.box.hi;
  setBrightnessFrom(cb.intensity, options);
  return cb.intensity.count;
}

}  // namespace LUtils
