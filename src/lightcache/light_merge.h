// Merging one light cache into another, plainly or incrementally.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lightcache/light_map.h"

namespace LUtils {
class ProgressCallback;
}

// What a merge did with the source's samples.
struct LightMergeCounts {
  size_t added = 0;
  size_t skipped = 0;
};

// Adds the samples of `source` to `target` and deletes `source` (the merge owns it from the call
// on). Plain merging (incremental = 0) adds every source sample. Incremental merging adds only
// the source samples that the target does not already cover:
//
//   a source sample s is covered when some sample t that the target held before the merge has a
//   sphere containing s.position and passes the store filter built from s — query point
//   s.position, query normal s.normalB, second vector s.normal, id s.id — that is, t carries the
//   same id, faces the same way (normalB cosine of at least 0.8) and s lies close to t's tangent
//   plane.
//
// Source samples never cover each other: the renderer already chose the spacing within one
// cache, and a cache merged into an empty target arrives whole. Samples keep the source's
// storage order. The target's tree is rebuilt before the coverage tests when it is out of date,
// and over all samples afterwards. `counts` (optional) receives the numbers of samples added and
// skipped; `progress` (optional) is advanced per sample, with start() and done() around the merge
// when the source has samples.
//
// An incremental merge tests coverage on `threadCount` threads of the merge thread manager (0:
// its count); the result is the same for every count.
//
// Returns 0; -1 when `source` is the target itself (nothing is done and nothing deleted), or when
// memory ran out part way (the samples added so far stay, the source is still deleted). A null
// source is an empty merge.
int mergeLightMaps(LightMap& target, LightMap* source, int incremental,
                   LightMergeCounts* counts = nullptr, LUtils::ProgressCallback* progress = nullptr,
                   int32_t threadCount = 0);
