// Saving and rebuilding maps without their deleted samples.
#include "viewer/map_edits.h"

namespace LUtils {

TransferNotDeletedCb::TransferNotDeletedCb(DefIrradianceMap& destination, IrradianceMap* other,
                                           const SampleBits& deleted, uint32_t total,
                                           ProgressCallback* progress)
    : destination_(destination), other_(other), deleted_(deleted), progress_(progress) {
  if (progress_ != nullptr) progress_->setTotal(static_cast<int32_t>(total));
}

int TransferNotDeletedCb::process(IrradSample& sample) {
  if (!deleted_.test(index_)) destination_.appendSample(sample);
  ++index_;
  if (progress_ != nullptr) progress_->setProgress(static_cast<int32_t>(index_));
  return 1;
}

void copyNotDeleted(LightMap& source, const SampleBits& deleted, LightMap& destination) {
  uint32_t index = 0;
  source.samples().forEach(0, [&](const LightMapSample& s) {
    if (!deleted.test(index++)) *destination.insertSample() = s;
    return true;
  });
  destination.rebuildTree();
}

}  // namespace LUtils
