#include "irradiance/def_irradiance_map.h"

#include <algorithm>
#include <climits>

#include "io/file_errors.h"
#include "io/placement.h"
#include "irradiance/irradiance_lookup.h"
#include "threads/progress_callback.h"
#include "threads/thread_manager.h"

namespace LUtils {

// --- sample streams ---

bool ReadIrradianceMapStream::read(IrradSample& out) {
  auto& samples = map_.samples_;
  if (map_.lockedMode_) {
    std::lock_guard<SpinningMutex> guard(samples.lock());
    if (next_ >= samples.size()) return false;
    out = samples[next_++];
    return true;
  }
  if (next_ >= samples.size()) return false;
  out = samples[next_++];
  return true;
}

IrradSample* WriteIrradianceMapStream::write(const IrradSample& sample) {
  IrradSample* stored = map_.appendSample(sample);
  if (stored) ++written_;
  return stored;
}

// --- the map ---

// The lock has a slot for every thread index a lookup may come with.
DefIrradianceMap::DefIrradianceMap(uint32_t samplesPerBlock)
    : samples_(samplesPerBlock),
      rwLock_(static_cast<uint32_t>(std::max<int32_t>(64, defaultThreadCount()))) {}

DefIrradianceMap::~DefIrradianceMap() {
  for (ReadIrradianceMapStream* stream : readStreams_) delete stream;
  delete writeStream_;
}

void DefIrradianceMap::clear() {
  {
    std::lock_guard<SpinningMutex> guard(samples_.lock());
    samples_.clear();
  }
  kdTree_.clear();
  renderIdIndex_.clear();
  renderIdMin_ = 0;
  renderIdMax_ = -1;
  built_ = 0;
}

Color DefIrradianceMap::irradiance(ThreadData& thread, ShadeContext& context, ShadeData& shade,
                                   const Color& color, int flags) {
  return irradianceLookup(*this, thread, context, shade, color, flags);
}

void DefIrradianceMap::prepare(int mode) {
  // The lookup needs no per-sample interpolation data beyond the sample itself (its weights
  // come from the radius and the normals at lookup time), so kPrepareAfterLoad adds nothing.
  (void)mode;
  kdTree_.build(samples_);
  built_ = 1;
  indexRenderIds();
}

void DefIrradianceMap::indexRenderIds() {
  renderIdIndex_.clear();
  renderIdMin_ = 0;
  renderIdMax_ = -1;
  const size_t n = samples_.size();
  if (header_.containsRenderIds) {
    int32_t lo = INT32_MAX;
    int32_t hi = 0;
    for (size_t i = 0; i < n; ++i) {
      const int32_t id = samples_[i].renderId;
      if (id > 0) {
        lo = std::min(lo, id);
        hi = std::max(hi, id);
      }
    }
    if (hi < lo) return;  // no positive ID: nothing to index
    renderIdMin_ = lo;
    renderIdMax_ = hi;
    for (size_t i = 0; i < n; ++i) {
      IrradSample& s = samples_[i];
      if (s.renderId >= lo && s.renderId <= hi) renderIdIndex_[s.renderId].push_back(&s);
    }
    return;
  }
  for (size_t i = 0; i < n; ++i) {
    int32_t& id = samples_[i].renderId;
    id = std::clamp(id, -1, 0);
  }
}

const std::vector<IrradSample*>& DefIrradianceMap::samplesWithRenderId(int32_t id) const {
  static const std::vector<IrradSample*> kNone;
  const auto it = renderIdIndex_.find(id);
  return it == renderIdIndex_.end() ? kNone : it->second;
}

// --- merging ---

// The per-sample callback of addSamples: hands each source sample to the destination and
// advances the progress.
class DefIrradianceMap::AddCb : public EnumIrradianceSamplesCallback {
 public:
  AddCb(DefIrradianceMap* map, ProgressCallback* progress, int32_t incremental)
      : map_(map), progress_(progress), incremental_(incremental) {}

  int process(IrradSample& sample) override {
    map_->addOneSample(sample, incremental_);
    ++count_;
    if (progress_) progress_->setProgress(count_);
    return 1;
  }

 private:
  DefIrradianceMap* map_;
  ProgressCallback* progress_;
  int32_t count_ = 0;
  int32_t incremental_;
};

int DefIrradianceMap::addSamples(IrradianceMap& source, ProgressCallback* progress,
                                 int incremental) {
  const int count = source.enumerateSamples(0, nullptr);
  if (count <= 0) return 0;
  AddCb cb(this, progress, incremental);
  if (progress) {
    progress->setTotal(count);
    progress->setProgress(0);
    progress->start();
  }
  ThreadManager* threads = nullptr;
  int32_t threadCount = 1;
  if (incremental && &source != this) {
    threads = mergeThreads_ ? mergeThreads_ : &mergeThreadManager();
    threadCount = mergeThreadCount_ > 0 ? mergeThreadCount_ : threads->threadCount();
  }
  lastParallelAdd_ = {};
  // The index's folds during the merge use the merge's threads, no more: one thread means one.
  struct BuildThreads {
    SampleKdTree& tree;
    ~BuildThreads() { tree.setBuildThreads(0); }
  } restore{kdTree_};
  if (threads) kdTree_.setBuildThreads(threadCount);
  if (threadCount > 1) {
    lastParallelAdd_ = addIncrementallyInParallel(*this, source, count, progress, *threads,
                                                  threadCount);
  } else if (incremental && &source != this) {
    addIncrementallyInRuns(*this, source, count, progress);
  } else {
    source.enumerateSamples(0, &cb);
  }
  if (progress) progress->done();
  return 0;
}

void DefIrradianceMap::addOneSample(const IrradSample& sample, int incremental) {
  if (incremental) {
    insertIncremental(sample);
    return;
  }
  // Thread 0 takes the write side of the lock while the map is multi-threaded. The kd-tree is
  // left alone: lookups find these samples after the next prepare().
  if (multiThreaded_) rwLock_.writeLock(0);
  appendSample(sample);
  if (multiThreaded_) rwLock_.writeUnlock(0);
}

void DefIrradianceMap::insertIncremental(const IrradSample& sample) {
  insertSampleIncrementally(*this, sample);
}

int DefIrradianceMap::loadAndAddFromFile(const char* name, float timeOffset,
                                         ProgressCallback* progress, int incremental) {
  DefIrradianceMap source;
  const int result = source.loadFromFile(name, 0, timeOffset);
  if (result != 0) return result;
  addSamples(source, progress, incremental);
  return 0;
}

// --- enumeration and queries ---

const char* DefIrradianceMap::errorText(int code) { return fileErrorText(code); }

int DefIrradianceMap::enumerateSamples(uint32_t first, EnumIrradianceSamplesCallback* callback) {
  // The end is taken once: samples that the callback appends (a map merged into itself) are not
  // visited.
  const size_t end = sampleCount();
  if (!callback) return first >= end ? 0 : static_cast<int>(std::min<size_t>(end - first, INT_MAX));

  int visited = 0;
  size_t i = first;
  const size_t per = samples_.elementsPerBlock();
  while (i < end) {
    const size_t b = i / per;
    IrradSample* block;
    if (lockedMode_) {
      std::lock_guard<SpinningMutex> guard(samples_.lock());
      block = samples_.block(b);
    } else {
      block = samples_.block(b);
    }
    const size_t blockEnd = std::min(end, (b + 1) * per);
    for (; i < blockEnd; ++i) {
      ++visited;
      if (!callback->process(block[i - b * per])) return visited;
    }
  }
  return visited;
}

void DefIrradianceMap::querySamples(const Vector& p, StoreCB& store) {
  if (built_) {
    kdTree_.query(p, store);
    return;
  }
  // Before the first prepare() there is no index: scan every sample, with the index's rule for
  // the samples it cannot place, so that the answer does not depend on whether it was built.
  const size_t n = sampleCount();
  const size_t per = samples_.elementsPerBlock();
  for (size_t b = 0; b * per < n; ++b) {
    IrradSample* block = samples_.block(b);
    const size_t len = std::min(n - b * per, per);
    for (size_t i = 0; i < len; ++i) {
      const IrradSample& s = block[i];
      if (placeable(s.position, s.validRadius2) && lengthSquared(p - s.position) < s.validRadius2) {
        store.store(block[i]);
      }
    }
  }
}

// --- stream registry ---

ReadIrradianceMapStream* DefIrradianceMap::openReadStream() {
  auto* stream = new ReadIrradianceMapStream(*this);
  std::lock_guard<SpinningMutex> guard(streamLock_);
  readStreams_.push_back(stream);
  return stream;
}

void DefIrradianceMap::closeReadStream(ReadIrradianceMapStream* stream) {
  {
    std::lock_guard<SpinningMutex> guard(streamLock_);
    const auto it = std::find(readStreams_.begin(), readStreams_.end(), stream);
    if (it == readStreams_.end()) return;  // not one of ours
    *it = readStreams_.back();
    readStreams_.pop_back();
  }
  delete stream;
}

WriteIrradianceMapStream* DefIrradianceMap::openWriteStream() {
  std::lock_guard<SpinningMutex> guard(streamLock_);
  if (writeStream_) return nullptr;  // only one writer at a time
  writeStream_ = new WriteIrradianceMapStream(*this);
  return writeStream_;
}

void DefIrradianceMap::closeWriteStream(WriteIrradianceMapStream* stream) {
  std::lock_guard<SpinningMutex> guard(streamLock_);
  if (!stream || stream != writeStream_) return;
  delete writeStream_;
  writeStream_ = nullptr;
}

// --- factory ---

IrradianceMap* newIrradianceMap() { return new DefIrradianceMap(); }
void deleteIrradianceMap(IrradianceMap* map) { delete map; }

}  // namespace LUtils
