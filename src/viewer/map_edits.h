// Applying the viewer's deletions to maps: saving only the samples that are not deleted, and
// rebuilding a map from them. Deleted samples keep their indices until a rebuild, so both walk
// the samples in enumeration order with a running index into the deleted-sample set.
#pragma once

#include <cstdint>

#include "irradiance/def_irradiance_map.h"
#include "lightcache/light_map.h"
#include "render/draw_options.h"
#include "threads/progress_callback.h"

namespace LUtils {

// The save callback of a map with deletions: passes the samples that are not deleted, in order,
// and reports their number as the file's sample count. One callback serves one save.
template <class Base, class Sample>
class SaveMapCb final : public Base {
 public:
  SaveMapCb(const SampleBits& deleted, uint32_t sampleCount)
      : deleted_(deleted), kept_(static_cast<int>(sampleCount - countBelow(deleted, sampleCount))) {}
  bool accept(const Sample&) override { return !deleted_.test(index_++); }
  int count() override { return kept_; }

 private:
  static uint32_t countBelow(const SampleBits& bits, uint32_t n) {
    uint32_t set = 0;
    for (uint32_t i = 0; i < n; ++i) set += bits.test(i) ? 1 : 0;
    return set;
  }
  const SampleBits& deleted_;
  int kept_;
  uint32_t index_ = 0;
};

using IrradianceSaveMapCb = SaveMapCb<IrradianceMap::SaveCb, IrradSample>;
using LightSaveMapCb = SaveMapCb<LightMap::SaveCb, LightMapSample>;

// Copies the samples of the map in memory that are not deleted into `destination`, in order,
// telling `progress` (when given) the total at the start and the running index after each
// sample. `other` is passed through for the caller, as the enumeration callers expect.
class TransferNotDeletedCb final : public EnumIrradianceSamplesCallback {
 public:
  TransferNotDeletedCb(DefIrradianceMap& destination, IrradianceMap* other,
                       const SampleBits& deleted, uint32_t total, ProgressCallback* progress);
  int process(IrradSample& sample) override;
  IrradianceMap* other() const { return other_; }

 private:
  DefIrradianceMap& destination_;
  IrradianceMap* other_;
  const SampleBits& deleted_;
  ProgressCallback* progress_;
  uint32_t index_ = 0;
};

// A new light cache holding the samples of `source` that are not deleted, in order, with its
// tree built.
void copyNotDeleted(LightMap& source, const SampleBits& deleted, LightMap& destination);

}  // namespace LUtils
