// Showing a map in the viewer, attaching the rasterizer that draws it, and picking its samples.
#include "viewer/viewer_scene.h"

#include <cmath>
#include <cstdio>

#include "irradiance/irradiance_map.h"
#include "lightcache/light_map.h"
#include "render/rasterizer.h"

namespace LUtils {

void ViewerScene::show(const DrawnMap& map, Rasterizer3D* rasterizer) {
  map_ = map;
  sampleCount_ =
      static_cast<uint32_t>(boundsAndBrightness(map_, view.sceneMin, view.sceneMax, options));
  navigation.setSceneBounds(view.sceneMin, view.sceneMax);
  history.clear();
  history.setModified(false);
  edits.reset(sampleCount_);
  navigation.fromFile(storedView());
  if (rasterizer != nullptr) rasterizer->setFarDistance(navigation.farDistance());
}

std::optional<StoredView> ViewerScene::storedView() const {
  if (map_.light != nullptr || map_.irradiance == nullptr) return std::nullopt;
  const IrradianceMapHeader* header = map_.irradiance->header();
  if (header == nullptr || !header->hasCamera()) return std::nullopt;
  return storedViewOf(*header);
}

DrawScene ViewerScene::pickScene() {
  // A pick runs inside an event handler: letting events in while its samples are drawn would
  // start another pick inside this one.
  DrawScene scene = drawScene();
  scene.waitSink = nullptr;
  return scene;
}

uint64_t ViewerScene::select(Rasterizer3D& rasterizer, const PickRect& rect) {
  return runSelection(rasterizer, pickScene(), edits, settings.selection, rect);
}

std::optional<uint32_t> ViewerScene::pickVisible(Rasterizer3D& rasterizer, int x, int y) {
  rasterizer.setClearColor({1.0f, 1.0f, 1.0f});
  rasterizer.beginFrame();
  rasterizer.setDepthTest(true);
  rasterizer.setFillMode(1);
  rasterizer.beginSelection(x, y, x, y, 0.0f);
  const PixelRect pick{x, y, x, y};
  drawPickingPass(rasterizer, pickScene(), &pick);
  std::vector<uint32_t> indices;
  rasterizer.readPickIndices(x, y, x, y, indices);
  DummySelectionCb done;
  rasterizer.endSelection(done);
  // Deleted samples are not drawn, so what is under the pixel is a live sample or nothing.
  for (const uint32_t index : indices) {
    if (index < sampleCount_) return index;
  }
  return std::nullopt;
}

std::string ViewerScene::describeSample(uint32_t index) const {
  char text[512] = "";
  if (map_.light != nullptr) {
    map_.light->samples().forEach(index, [&](const LightMapSample& s) {
      std::snprintf(text, sizeof text,
                    "Sample %u: position (%g, %g, %g), normal (%g, %g, %g), radius %g, id %u",
                    index, s.position.x, s.position.y, s.position.z, s.normal.x, s.normal.y,
                    s.normal.z, static_cast<double>(s.radius()), s.id);
      return false;
    });
  } else if (map_.irradiance != nullptr) {
    struct One final : EnumIrradianceSamplesCallback {
      IrradSample sample{};
      bool found = false;
      int process(IrradSample& s) override {
        sample = s;
        found = true;
        return 0;
      }
    } one;
    if (index < sampleCount_) map_.irradiance->enumerateSamples(index, &one);
    if (one.found) {
      const IrradSample& s = one.sample;
      const Color c = s.decodedColour();
      const double radius = s.drawRadius2 > 0.0f ? std::sqrt(s.drawRadius2) : 0.0;
      std::snprintf(text, sizeof text,
                    "Sample %u: position (%g, %g, %g), normal (%g, %g, %g), colour (%g, %g, %g), "
                    "radius %g, render ID %d, time %g",
                    index, s.position.x, s.position.y, s.position.z, s.normal.x, s.normal.y,
                    s.normal.z, c.r, c.g, c.b, radius, s.renderId, static_cast<double>(s.time));
    }
  }
  return text;
}

void ViewerScene::attachRasterizer(Rasterizer3D* rasterizer, float previousFarDistance) {
  options.setUseOpenGL(settings.useOpenGL);
  options.setMultiThreadedSoftware(!settings.useOpenGL && settings.softwareMultiThreaded);
  cache.setRasterizer(rasterizer);
  if (rasterizer == nullptr) return;
  rasterizer->setCamera(&navigation.camera());
  rasterizer->setFarDistance(previousFarDistance > 0.0f ? previousFarDistance
                                                        : navigation.farDistance());
}

}  // namespace LUtils
