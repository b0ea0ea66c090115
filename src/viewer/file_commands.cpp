// The File menu's work on the maps in memory.
#include "viewer/file_commands.h"

#include "app/process_state.h"
#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "lightcache/light_merge.h"
#include "viewer/map_edits.h"
#include "viewer/viewer_state.h"

namespace LUtils {

FileDialogSpec fileDialogSpec(FilePurpose purpose, bool lightCacheInMemory) {
  static constexpr const char* kAllCaches =
      "All cache files(*.lumap, *.lulmap)|*.lumap;*.lulmap|Irradiance map (*.lumap)|*.lumap|"
      "Light cache (*.lulmap)|*.lulmap|All files(*.*)|*.*";
  const char* kind = lightCacheInMemory ? "Light cache (*.lulmap)|*.lulmap|All files(*.*)|*.*"
                                        : "Irradiance map (*.lumap)|*.lumap|All files(*.*)|*.*";
  switch (purpose) {
    case FilePurpose::kOpen:
      return {"Choose irradiance or light cache file to load", kAllCaches, false};
    case FilePurpose::kSave:
      return {"Choose irradiance or light cache file to save", kind, true};
    case FilePurpose::kAdd:
      break;
  }
  return {"Choose irradiance map file to import", kind, false};
}

int saveMapInMemory(const char* name, const SampleBits& deleted, uint32_t sampleCount) {
  const bool edited = deleted.any();
  if (gLightMap != nullptr) {
    LightSaveMapCb keep(deleted, sampleCount);
    return gLightMap->save(name, edited ? &keep : nullptr);
  }
  if (gIrradianceMap == nullptr) return -1;
  IrradianceSaveMapCb keep(deleted, sampleCount);
  return gIrradianceMap->saveToFile(name, edited ? &keep : nullptr);
}

void MergeProgress::setProgress(int32_t done) {
  console_.setProgress(done);
  tell();
}

void MergeProgress::start() {
  console_.start();
  tell();
}

void MergeProgress::done() {
  if (hook_) hook_(console_.title(), 100);
  console_.done();
}

void MergeProgress::tell() {
  if (!hook_) return;
  const int32_t total = console_.getTotal();
  const int64_t done = console_.getProgress();
  hook_(console_.title(), total > 0 ? static_cast<int>(done * 100 / total) : 0);
}

namespace {

AddResult addLightCache(const char* name, bool incremental, const SampleBits& deleted,
                        MergeProgress& progress, std::FILE* console,
                        const std::function<void()>& replaced) {
  auto* loaded = new LightMap();
  if (loaded->load(name) != 0) {
    std::fprintf(console, "Error loading file \"%s\"\n", name);
    std::fflush(console);
    delete loaded;
    return AddResult::kLightCacheLoadFailed;
  }
  if (deleted.any()) {
    auto* rebuilt = new LightMap();
    copyNotDeleted(*gLightMap, deleted, *rebuilt);
    LightMap* old = gLightMap;
    gLightMap = rebuilt;
    if (replaced) replaced();
    delete old;
  }
  mergeLightMaps(*gLightMap, loaded, incremental ? 1 : 0, nullptr, &progress);  // takes it
  return AddResult::kAdded;
}

}  // namespace

AddResult addMapFile(const char* name, bool incremental, const SampleBits& deleted,
                     MergeProgress& progress, std::FILE* console,
                     const std::function<void()>& replaced) {
  if (gLightMap != nullptr) {
    return addLightCache(name, incremental, deleted, progress, console, replaced);
  }

  IrradianceMap* loaded = newIrradianceMap();
  if (loaded->loadFromFile(name, 0, 0.0f) != 0) {
    deleteIrradianceMap(loaded);
    return AddResult::kIrradianceLoadFailed;
  }
  if (deleted.any() && gIrradianceMap != nullptr) {
    progress.setTitle("Rebuilding the map");
    auto* rebuilt = static_cast<DefIrradianceMap*>(newIrradianceMap());
    rebuilt->setHeader(viewerReferenceSettings());
    const uint32_t total = static_cast<uint32_t>(gIrradianceMap->enumerateSamples(0, nullptr));
    progress.start();
    TransferNotDeletedCb transfer(*rebuilt, gIrradianceMap, deleted, total, &progress);
    gIrradianceMap->enumerateSamples(0, &transfer);
    progress.done();
    rebuilt->prepare(DefIrradianceMap::kPrepareAfterLoad);
    rebuilt->setHeader(*gIrradianceMap->header());
    IrradianceMap* old = gIrradianceMap;
    gIrradianceMap = rebuilt;
    if (replaced) replaced();
    deleteIrradianceMap(old);
  }
  if (gIrradianceMap == nullptr) {
    gIrradianceMap = newIrradianceMap();
    gIrradianceMap->setHeader(viewerReferenceSettings());
  }
  if (incremental && loaded->formatVersion() < IrradFormat::kVersionCamera) {
    std::fprintf(console,
                 "Warning: This irradiance map does not support incremental add, will add all "
                 "samples\n");
    std::fflush(console);
    incremental = false;
  }
  progress.setTitle(incremental ? "Incrementally adding samples" : "Adding samples");
  gIrradianceMap->addSamples(*loaded, &progress, incremental ? 1 : 0);
  loaded->freeSamples();
  deleteIrradianceMap(loaded);
  prepareUnderReferenceSettings(*gIrradianceMap);
  return AddResult::kAdded;
}

}  // namespace LUtils
