// Selection: pick callbacks and the pick in each depth mode.
#include "viewer/selection.h"

#include <algorithm>

#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"

namespace LUtils {

void SelectionSettings::wheelRadius(int steps, int width, int height) {
  const int top = std::max(0, std::min(width, height) / 2 - 1);
  paintRadius = std::clamp(paintRadius + steps, 0, top);
}

void SelectionSettings::wheelDepth(int steps) {
  for (; steps > 0; --steps) specifiedDepth /= 0.8f;
  for (; steps < 0; ++steps) specifiedDepth *= 0.8f;
}

Vector SampleNormals::decodePacked(uint16_t u, uint16_t v) {
  const float z = (static_cast<float>(u) / 65535.0f - 0.5f) * 2.0f;
  const float phi = (static_cast<float>(v) / 65535.0f - 0.5f) * 6.2831855f;
  const float s = std::sqrt(std::max(0.0f, 1.0f - z * z));
  return {s * std::cos(phi), s * std::sin(phi), z};
}

SampleNormals::SampleNormals(const DrawnMap& map) {
  if (map.light != nullptr) {
    map.light->samples().forEach(0, [&](const LightMapSample& s) {
      normals_.push_back(s.normal);
      return true;
    });
  } else if (map.irradiance != nullptr) {
    struct Cb final : EnumIrradianceSamplesCallback {
      std::vector<Vector>* out;
      int process(IrradSample& s) override {
        out->push_back(decodePacked(s.packedNormalZ, s.packedNormalAngle));
        return 1;
      }
    } cb;
    cb.out = &normals_;
    map.irradiance->enumerateSamples(0, &cb);
  }
}

bool SampleNormals::normal(uint32_t index, Vector& n) const {
  if (index >= normals_.size()) return false;
  n = normals_[index];
  return true;
}

template <class T>
void PreSelectionCb<T>::hit(uint32_t index) {
  Vector n;
  if (!normals_.normal(index, n)) return;
  sum[0] += n.x;
  sum[1] += n.y;
  sum[2] += n.z;
  ++count;
}

template <class T>
Vector PreSelectionCb<T>::reference() const {
  const double len = std::sqrt(sum[0] * sum[0] + sum[1] * sum[1] + sum[2] * sum[2]);
  if (count == 0 || !(len > 0.0)) return {0.0f, 0.0f, 0.0f};
  return {static_cast<float>(sum[0] / len), static_cast<float>(sum[1] / len),
          static_cast<float>(sum[2] / len)};
}

template <class T>
void SetSelectionCb<T>::hit(uint32_t index) {
  // Indices past the map: the white background of colour picking, or a stale name.
  if (index >= count_) return;
  if (normals_ != nullptr) {
    Vector n;
    if (normals_->normal(index, n) &&
        !(std::fabs(static_cast<double>(dot(n, reference_))) >= 1.0 - threshold_)) {
      return;
    }
  }
  selected_->set(index);
}

namespace {
const SampleNormals& emptyNormals() {
  static const SampleNormals none{DrawnMap{}};
  return none;
}
}  // namespace

template <class T>
const SampleNormals* CustomSelectionCb<T>::normals_or_empty(const SampleNormals* n) {
  return n != nullptr ? n : &emptyNormals();
}

template <class T>
void CustomSelectionCb<T>::pixel(uint32_t index) {
  if (gathering_) {
    pre_.hit(index);
  } else {
    set_.hit(index);
  }
}

template <class T>
void CustomSelectionCb<T>::afterPass() {
  if (!gathering_) return;
  gathering_ = false;
  set_ = SetSelectionCb<T>(selected_, count_, normals_, pre_.reference(), threshold_);
}

template class PreSelectionCb<IrradSample>;
template class PreSelectionCb<LightMapSample>;
template class SetSelectionCb<IrradSample>;
template class SetSelectionCb<LightMapSample>;
template class CustomSelectionCb<IrradSample>;
template class CustomSelectionCb<LightMapSample>;

PickRect rectangleFromDrag(int startX, int startY, int endX, int endY, int radius) {
  PickRect r{std::min(startX, endX), std::min(startY, endY), std::max(startX, endX),
             std::max(startY, endY)};
  if (r.x0 == r.x1) {
    r.x0 -= radius;
    r.x1 += radius;
  }
  if (r.y0 == r.y1) {
    r.y0 -= radius;
    r.y1 += radius;
  }
  return r;
}

PickRect paintSquare(int x, int y, int radius) { return {x - radius, y - radius, x + radius, y + radius}; }

namespace {

template <class T>
void pickByNames(Rasterizer3D& r, const DrawScene& scene, SampleBits& selected, uint32_t count,
                 const SelectionSettings& settings, const PickRect& rect) {
  const float depth = settings.depthMode == kDepthFull ? -1.0f : settings.specifiedDepth * 5e-05f;
  if (!r.beginSelection(rect.x0, rect.y0, rect.x1, rect.y1, depth)) return;
  r.setDepthTest(true);
  drawSamplePass(r, scene, &rect);
  if (settings.similarNormals) {
    const SampleNormals normals(scene.map);
    PreSelectionCb<T> pre(normals);
    r.endSelection(pre);
    SetSelectionCb<T> set(selected, count, &normals, pre.reference(), settings.normalThreshold);
    r.endSelection(set);
  } else {
    SetSelectionCb<T> set(selected, count, nullptr, {}, settings.normalThreshold);
    r.endSelection(set);
  }
}

template <class T>
void pickByColours(Rasterizer3D& r, const DrawScene& scene, SampleBits& selected, uint32_t count,
                   const SelectionSettings& settings, const PickRect& rect) {
  r.setClearColor({1.0f, 1.0f, 1.0f});
  r.beginFrame();
  r.setDepthTest(true);
  r.setFillMode(1);
  r.beginSelection(rect.x0, rect.y0, rect.x1, rect.y1, 0.0f);
  drawPickingPass(r, scene, &rect);
  std::vector<uint32_t> indices;
  r.readPickIndices(rect.x0, rect.y0, rect.x1, rect.y1, indices);
  std::unique_ptr<SampleNormals> normals;
  if (settings.similarNormals) normals = std::make_unique<SampleNormals>(scene.map);
  CustomSelectionCb<T> cb(selected, count, normals.get(), settings.normalThreshold);
  for (int pass = 0; pass < (settings.similarNormals ? 2 : 1); ++pass) {
    // A sample covering many pixels is reported many times: each pixel counts.
    for (uint32_t index : indices) cb.pixel(index);
    cb.afterPass();
  }
  DummySelectionCb done;
  r.endSelection(done);
}

}  // namespace

uint64_t runSelection(Rasterizer3D& rasterizer, const DrawScene& scene, SampleEdits& edits,
                      const SelectionSettings& settings, const PickRect& rect) {
  uint32_t count = 0;
  withSampleSource(scene.map, [&count](const auto& source) { count = source.count(); });
  const uint64_t before = edits.selectedBits().countSet();
  const bool byNames = settings.depthMode != kDepthVisible && rasterizer.loadsPickNames();
  const bool light = scene.map.light != nullptr;
  edits.editSelected([&](SampleBits& selected) {
    if (byNames) {
      if (light) {
        pickByNames<LightMapSample>(rasterizer, scene, selected, count, settings, rect);
      } else {
        pickByNames<IrradSample>(rasterizer, scene, selected, count, settings, rect);
      }
    } else if (light) {
      pickByColours<LightMapSample>(rasterizer, scene, selected, count, settings, rect);
    } else {
      pickByColours<IrradSample>(rasterizer, scene, selected, count, settings, rect);
    }
  });
  return edits.selectedBits().countSet() - before;
}

}  // namespace LUtils
