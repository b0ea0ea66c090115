#include "lightcache/light_merge.h"

#include <algorithm>
#include <cstdint>
#include <memory>

#include "threads/progress_callback.h"

namespace {

// Stops the query at the first sample that passes the filter.
class FirstHit : public LightMapStoreCb {
 public:
  int store(LightMapSample&) override {
    found = true;
    return 0;
  }
  bool found = false;
};

bool coveredBy(LightMap& target, const LightMapSample& s) {
  LightMapFilter_store filter(s.position, s.normalB, s.normal, s.id);
  FirstHit hit;
  target.query(s.position, &filter, hit);
  return hit.found;
}

}  // namespace

int mergeLightMaps(LightMap& target, LightMap* source, int incremental, LightMergeCounts* counts,
                   LUtils::ProgressCallback* progress) {
  LightMergeCounts local;
  LightMergeCounts& c = counts ? *counts : local;
  c = {};
  if (source == &target) return -1;
  if (!source) return 0;
  std::unique_ptr<LightMap> owned(source);

  const size_t total = source->sampleCount();
  if (total == 0) return 0;
  // Samples appended below are not in the tree, so the tests see only what the target held.
  if (incremental && target.needsRebuild()) target.rebuildTree();

  if (progress) {
    progress->setTotal(int32_t(std::min<size_t>(total, INT32_MAX)));
    progress->setProgress(0);
    progress->start();
  }
  int result = 0;
  size_t handled = 0;
  source->samples().forEach(0, [&](LightMapSample& s) {
    if (incremental && coveredBy(target, s)) {
      ++c.skipped;
    } else {
      LightMapSample* copy = target.insertSample();
      if (!copy) {
        result = -1;
        return false;
      }
      *copy = s;
      ++c.added;
    }
    ++handled;
    if (progress && (handled % 4096 == 0 || handled == total)) {
      progress->setProgress(int32_t(std::min<size_t>(handled, INT32_MAX)));
    }
    return true;
  });
  target.rebuildTree();
  if (progress) progress->done();
  return result;
}
