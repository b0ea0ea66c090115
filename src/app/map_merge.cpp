#include "app/map_merge.h"

#include "irradiance/irradiance_map_header.h"

bool supportsIncrementalAdd(const LUtils::IrradianceMap& source) {
  return source.formatVersion() >= IrradFormat::kVersionCamera;
}

void mergeIrradianceMap(LUtils::IrradianceMap& target, LUtils::IrradianceMap* source,
                        int incremental, bool& prepared, LUtils::ProgressCallback* progress) {
  if (incremental && !prepared) {
    // The lookup must see the samples already present before the first insertion.
    target.prepare(0);
    prepared = true;
  }
  target.addSamples(*source, progress, incremental);  // reports nothing on failure
  source->freeSamples();
  LUtils::deleteIrradianceMap(source);
}
