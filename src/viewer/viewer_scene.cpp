// Showing a map in the viewer and attaching the rasterizer that draws it.
#include "viewer/viewer_scene.h"

#include "render/rasterizer.h"

namespace LUtils {

void ViewerScene::show(const DrawnMap& map, Rasterizer3D* rasterizer) {
  map_ = map;
  sceneBounds(map_, view.sceneMin, view.sceneMax);
  navigation.setSceneBounds(view.sceneMin, view.sceneMax);
  sampleCount_ = static_cast<uint32_t>(automaticBrightness(map_, options));
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
