// Merging a loaded irradiance map into the map in memory: the step that `cacheview -load` and
// cacheview-merge share, so that both give the same file for the same inputs in the same order.
#pragma once

#include "irradiance/irradiance_map.h"

namespace LUtils {
class ProgressCallback;
}

// Whether `source` can be merged incrementally: its samples must come from a file version that
// stores a camera. Older maps are added whole.
bool supportsIncrementalAdd(const LUtils::IrradianceMap& source);

// Appends the samples of `source` to `target`, plainly (incremental = 0) or keeping only those
// that the target does not already cover, and disposes of `source`. The caller has already turned
// `incremental` off for a source that does not support it. `prepared` remembers across the calls
// of one merge that the target's lookup was built over the samples present before the first
// incremental insertion (start it at false). `progress` may be null.
void mergeIrradianceMap(LUtils::IrradianceMap& target, LUtils::IrradianceMap* source,
                        int incremental, bool& prepared, LUtils::ProgressCallback* progress);
