#include "render/sample_drawing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <memory>
#include <type_traits>

#include "lightcache/light_map.h"
#include "render/camera.h"
#include "render/disc_basis.h"
#include "render/rasterizer_gl.h"
#include "render/rasterizer_sw.h"
#include "render/view_projection.h"

namespace LUtils {

DrawSettings gDrawSettings;

namespace {

// Maps of fewer samples are drawn on the calling thread.
constexpr uint32_t kMinThreadedSamples = 100;

float irradianceRadius(const IrradSample& s) { return 0.2f * std::sqrt(s.drawRadius2); }

// 2^(e - 135) for every exponent byte: the colour decode without a call to ldexp per channel
// (the product of a mantissa and an exact power of two rounds as ldexp does).
const std::array<float, 256>& exponentScales() {
  static const std::array<float, 256> scales = [] {
    std::array<float, 256> t{};
    for (int e = 0; e < 256; ++e) t[static_cast<size_t>(e)] = std::ldexp(1.0f, e - 135);
    return t;
  }();
  return scales;
}

Color sampleColour(const IrradSample& s) {
  const float scale = exponentScales()[s.exponent];
  return {static_cast<float>(s.colour[0]) * scale, static_cast<float>(s.colour[1]) * scale,
          static_cast<float>(s.colour[2]) * scale};
}

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

class DrawSelectedSamplesCb final : public EnumIrradianceSamplesCallback {
 public:
  explicit DrawSelectedSamplesCb(const DrawPass& pass) : pass_(pass) {}
  int process(IrradSample& s) override {
    const uint32_t index = count_++;
    const DrawSettings& settings = *pass_.settings;
    if (!testSampleBit(settings.selectedSamples, index)) return 1;
    if (testSampleBit(settings.deletedSamples, index)) return 1;
    const float r = irradianceRadius(s);
    if (pass_.insideFrustum(s.position, r)) {
      drawSelectionBox(*pass_.rasterizer, s.position, s.normal, r, settings.selectionColour);
    }
    return 1;
  }

 private:
  const DrawPass& pass_;
  uint32_t count_ = 0;
};

uint32_t sampleCountOf(const DrawnMap& map) {
  if (map.light != nullptr) return static_cast<uint32_t>(map.light->sampleCount());
  if (map.irradiance != nullptr) return static_cast<uint32_t>(map.irradiance->numSamples());
  return 0;
}

// Walks the light cache's blocks from `first` until the callback stops.
template <class Cb>
void drawLightFrom(LightMap& light, Cb& cb) {
  light.samples().forEach(cb.first, [&cb](const LightMapSample& s) { return cb.processLight(s); });
}

void drawSelected(const DrawPass& pass, const DrawnMap& map) {
  const DrawSettings& settings = *pass.settings;
  if (map.light != nullptr) {
    uint32_t index = 0;
    map.light->samples().forEach(0, [&](const LightMapSample& s) {
      const uint32_t i = index++;
      if (testSampleBit(settings.selectedSamples, i) && !testSampleBit(settings.deletedSamples, i) &&
          pass.insideFrustum(s.position, s.radius())) {
        drawSelectionBox(*pass.rasterizer, s.position, s.normal, s.radius(),
                         settings.selectionColour);
      }
      return true;
    });
  } else if (map.irradiance != nullptr) {
    DrawSelectedSamplesCb cb(pass);
    map.irradiance->enumerateSamples(0, &cb);
  }
}

}  // namespace

bool testSampleBit(const std::vector<uint8_t>& bits, uint32_t index) {
  const size_t byte = index / 8;
  return byte < bits.size() && (bits[byte] & (1u << (index % 8))) != 0;
}

void setSampleBit(std::vector<uint8_t>& bits, uint32_t index) {
  const size_t byte = index / 8;
  if (byte >= bits.size()) bits.resize(byte + 1, 0);
  bits[byte] = static_cast<uint8_t>(bits[byte] | (1u << (index % 8)));
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

DrawPass::DrawPass(Rasterizer3D& r, const DrawSettings& s, bool testFrustum)
    : rasterizer(&r), settings(&s), frustumTest(testFrustum) {
  openGL = dynamic_cast<RasterizerGL*>(&r) != nullptr;
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
  const int n = std::clamp(settings->segmentsPerDisc, 3, 16);
  if (!settings->adaptiveQuality) return static_cast<unsigned>(n);
  // Nearer and larger discs get more sides: from 4 up to 2N.
  const float d = length(position - eye);
  const float divisor = std::max(std::log(d) / 3.0f, 0.2f) * settings->lodMultiplier;
  const float k = std::ceil(std::sqrt(radius) * 2.0f * static_cast<float>(n) / divisor);
  if (k > static_cast<float>(2 * n)) return static_cast<unsigned>(2 * n);
  if (!(k >= 4.0f)) return 4;
  return static_cast<unsigned>(k);
}

bool DrawPass::insideFrustum(const Vector& position, float radius) const {
  for (const FrustumPlane& plane : settings->frustum) {
    if (!(dot(plane.normal, position) + plane.offset >= -radius)) return false;
  }
  return true;
}

void DrawPass::drawDisc(const Vector& position, const Vector& normal, float radius,
                        const Color& colour, uint32_t index, int b) const {
  Vector u, v;
  discBasis(normal, u, v);
  if (openGL) static_cast<RasterizerGL*>(rasterizer)->loadName(index);
  const unsigned k = sidesFor(radius, position);
  Vector vertices[32];
  for (unsigned i = 0; i < k; ++i) {
    vertices[i] = position + u * (radius * cosines[k][i]) + v * (radius * sines[k][i]);
  }
  if (b == 0) {
    rasterizer->drawQuadOrPolygon(vertices, k, colour * settings->brightness);
  } else {
    rasterizer->drawPolygonRGBA(vertices, k, index);
  }
}

template <int b>
int DrawSamplesCb<b>::process(IrradSample& s) {
  const uint32_t index = first + count++;
  if (!testSampleBit(pass->settings->deletedSamples, index)) {
    const float r = irradianceRadius(s);
    if (!pass->frustumTest || pass->insideFrustum(s.position, r)) {
      pass->drawDisc(s.position, s.normal, r, sampleColour(s), index, b);
    }
  }
  return count < limit ? 1 : 0;
}

template <int b>
bool DrawSamplesCb<b>::processLight(const LightMapSample& s) {
  const uint32_t index = first + count++;
  if (!testSampleBit(pass->settings->deletedSamples, index)) {
    const float r = s.radius();
    if (!pass->frustumTest || pass->insideFrustum(s.position, r)) {
      pass->drawDisc(s.position, s.normal, r, s.colour(), index, b);
    }
  }
  return count < limit;
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
  cb.count = 0;
  if (cb.limit == 0) return;
  if constexpr (std::is_same_v<Map, LightMap>) {
    drawLightFrom(map_, cb);
  } else {
    map_.enumerateSamples(cb.first, &cb);
  }
}

template class DrawThreaded<LightMap, DrawSamplesCb<0>>;
template class DrawThreaded<LightMap, DrawSamplesCb<1>>;
template class DrawThreaded<IrradianceMap, DrawSamplesCb<0>>;
template class DrawThreaded<IrradianceMap, DrawSamplesCb<1>>;

template <int b>
uint32_t drawSamples(const DrawPass& pass, const DrawnMap& map, ThreadManager* threads) {
  const uint32_t total = sampleCountOf(map);
  const bool threaded = !pass.openGL && pass.settings->multiThreadedSoftware &&
                        total >= kMinThreadedSamples && threads != nullptr;
  if (!threaded) {
    DrawSamplesCb<b> cb;
    cb.pass = &pass;
    if (map.light != nullptr) {
      drawLightFrom(*map.light, cb);
    } else if (map.irradiance != nullptr) {
      map.irradiance->enumerateSamples(0, &cb);
    }
    return 1;
  }

  const uint32_t n = static_cast<uint32_t>(std::max(1, defaultThreadCount()));
  auto records = std::make_unique<DrawSamplesCb<b>[]>(n);
  for (uint32_t i = 0; i < n; ++i) records[i].pass = &pass;
  // Each worker's primitives go to its own bin of the software rasterizer, replayed in thread
  // order: the picture is the one thread's.
  auto* sw = dynamic_cast<RasterizerSW*>(pass.rasterizer);
  if (sw != nullptr) sw->setBinIndexSource([threads] { return threads->currentThreadIndex(); });
  if (map.light != nullptr) {
    DrawThreaded<LightMap, DrawSamplesCb<b>> job(*map.light, records.get(), total);
    threads->run(static_cast<int32_t>(n), &job, nullptr, false);
  } else {
    DrawThreaded<IrradianceMap, DrawSamplesCb<b>> job(*map.irradiance, records.get(), total);
    threads->run(static_cast<int32_t>(n), &job, nullptr, false);
  }
  if (sw != nullptr) {
    sw->setBinIndexSource(nullptr);
    sw->flush();
  }
  return n;
}

template uint32_t drawSamples<0>(const DrawPass&, const DrawnMap&, ThreadManager*);
template uint32_t drawSamples<1>(const DrawPass&, const DrawnMap&, ThreadManager*);

void drawFrame(Rasterizer3D& rasterizer, const DrawnMap& map, ThreadManager* threads,
               DrawSettings& settings) {
  rasterizer.setClearColor({0.25f, 0.25f, 0.25f});
  rasterizer.setBackfaceCulling(settings.backfaceCulling);
  rasterizer.beginFrame();
  computeFrustum(rasterizer.camera(), rasterizer.farDistance(), rasterizer.viewportWidth(),
                 rasterizer.viewportHeight(), settings.frustum);
  rasterizer.setDepthTest(true);
  rasterizer.setFillMode(1);

  auto* gl = dynamic_cast<RasterizerGL*>(&rasterizer);
  if (gl != nullptr && settings.sampleList != 0) {
    gl->callList(settings.sampleList);
  } else {
    bool compiling = false;
    if (gl != nullptr && settings.useDisplayLists && !settings.adaptiveQuality) {
      settings.sampleList = gl->beginList();
      compiling = settings.sampleList != 0;
    }
    // The compiled list must hold every sample: no frustum test while compiling.
    const DrawPass pass(rasterizer, settings, !settings.useDisplayLists);
    drawSamples<0>(pass, map, threads);
    if (compiling) {
      gl->endList();
      gl->callList(settings.sampleList);
    }
  }

  if (settings.hasSelection) {
    rasterizer.setFillMode(0);
    if (gl != nullptr) {
      gl->setLineOffset(true);
    } else {
      rasterizer.setDepthTest(false);
    }
    const DrawPass pass(rasterizer, settings, true);
    drawSelected(pass, map);
    if (gl != nullptr) gl->setLineOffset(false);
  }

  if (settings.showAxis) {
    if (gl != nullptr) gl->setLineWidth(2.0f);
    rasterizer.setFillMode(0);
    rasterizer.setDepthTest(false);
    const float l = length(settings.sceneMax - settings.sceneMin) / 10.0f;
    rasterizer.drawLine({0, 0, 0}, {l, 0, 0}, {1, 0, 0});
    rasterizer.drawLine({0, 0, 0}, {0, l, 0}, {0, 1, 0});
    rasterizer.drawLine({0, 0, 0}, {0, 0, l}, {0, 0, 1});
    rasterizer.setDepthTest(true);
  }
  rasterizer.swapBuffers();
}

void drawPickingPass(Rasterizer3D& rasterizer, const DrawnMap& map, ThreadManager* threads,
                     DrawSettings& settings) {
  computeFrustum(rasterizer.camera(), rasterizer.farDistance(), rasterizer.viewportWidth(),
                 rasterizer.viewportHeight(), settings.frustum);
  auto* gl = dynamic_cast<RasterizerGL*>(&rasterizer);
  if (gl != nullptr && settings.pickingList != 0) {
    gl->callList(settings.pickingList);
    return;
  }
  bool compiling = false;
  if (gl != nullptr && settings.useDisplayLists && !settings.adaptiveQuality) {
    settings.pickingList = gl->beginList();
    compiling = settings.pickingList != 0;
  }
  const DrawPass pass(rasterizer, settings, !settings.useDisplayLists);
  drawSamples<1>(pass, map, threads);
  if (compiling) {
    gl->endList();
    gl->callList(settings.pickingList);
  }
}

void invalidateDisplayLists(Rasterizer3D* rasterizer, DrawSettings& settings) {
  if (auto* gl = dynamic_cast<RasterizerGL*>(rasterizer)) {
    gl->deleteList(settings.sampleList);
    gl->deleteList(settings.pickingList);
  }
  settings.sampleList = 0;
  settings.pickingList = 0;
}

int GetSamplesIntensityCb::process(IrradSample& s) {
  const Color c = s.decodedColour();
  sum += 0.33333334f * (c.r + c.g + c.b);
  ++count;
  return 1;
}

void automaticBrightness(const DrawnMap& map, DrawSettings& settings) {
  double sum = 0.0;
  int64_t count = 0;
  if (map.light != nullptr) {
    map.light->samples().forEach(0, [&](const LightMapSample& s) {
      const Color c = s.colour();
      sum += 0.33333334f * (c.r + c.g + c.b);
      ++count;
      return true;
    });
  } else if (map.irradiance != nullptr) {
    GetSamplesIntensityCb cb;
    map.irradiance->enumerateSamples(0, &cb);
    sum = cb.sum;
    count = cb.count;
  }
  settings.samplesSeen = count;
  const double average = count > 0 ? sum / static_cast<double>(count) : 0.0;
  settings.brightness = static_cast<float>(1.0 / (2.0 * average));
}

void brightnessKey(bool shift, DrawSettings& settings) {
  settings.brightness = shift ? settings.brightness / 1.125f : settings.brightness * 1.125f;
  std::printf("Brightness set to %g\n", static_cast<double>(settings.brightness));
  std::fflush(stdout);
}

void lodKey(bool plus, DrawSettings& settings) {
  if (plus) {
    if (settings.lodMultiplier < 2.9f) settings.lodMultiplier += 0.1f;
  } else {
    if (settings.lodMultiplier > 0.4f) settings.lodMultiplier -= 0.1f;
  }
  std::printf("LOD multiplier set to %g\n", static_cast<double>(settings.lodMultiplier));
  std::fflush(stdout);
}

void sceneBounds(const DrawnMap& map, Vector& lo, Vector& hi) {
  lo = {1e20f, 1e20f, 1e20f};
  hi = {-1e20f, -1e20f, -1e20f};
  auto grow = [&](const Vector& p) {
    lo = {std::min(lo.x, p.x), std::min(lo.y, p.y), std::min(lo.z, p.z)};
    hi = {std::max(hi.x, p.x), std::max(hi.y, p.y), std::max(hi.z, p.z)};
  };
  if (map.light != nullptr) {
    map.light->samples().forEach(0, [&](const LightMapSample& s) {
      grow(s.position);
      return true;
    });
  } else if (map.irradiance != nullptr) {
    struct BBoxCb final : EnumIrradianceSamplesCallback {
      std::function<void(const Vector&)> f;
      int process(IrradSample& s) override {
        f(s.position);
        return 1;
      }
    } cb;
    cb.f = grow;
    map.irradiance->enumerateSamples(0, &cb);
  }
}

}  // namespace LUtils
