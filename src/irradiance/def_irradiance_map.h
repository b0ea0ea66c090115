// The default irradiance map: samples in block storage, the working and file settings, the format
// version of the last load, and the registry of sample streams opened on it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "irradiance/irradiance_map.h"
#include "irradiance/parallel_incremental.h"
#include "irradiance/sample_kdtree.h"
#include "threads/block_sequence.h"
#include "threads/multi_reader_lock.h"
#include "threads/spinning_mutex.h"

namespace LUtils {

class DefIrradianceMap;

// Reads a map's samples one after the other, from the first on.
class ReadIrradianceMapStream {
 public:
  explicit ReadIrradianceMapStream(DefIrradianceMap& map) : map_(map) {}

  // Copies the next sample into `out`; false once every sample was read.
  bool read(IrradSample& out);
  void rewind() { next_ = 0; }
  size_t position() const { return next_; }

 private:
  DefIrradianceMap& map_;
  size_t next_ = 0;
};

// Appends samples to a map; the map allows one at a time.
class WriteIrradianceMapStream {
 public:
  explicit WriteIrradianceMapStream(DefIrradianceMap& map) : map_(map) {}

  // The stored copy, or null when the storage could not grow.
  IrradSample* write(const IrradSample& sample);
  size_t written() const { return written_; }

 private:
  DefIrradianceMap& map_;
  size_t written_ = 0;
};

class DefIrradianceMap : public IrradianceMap {
 public:
  // Samples per storage block: as many as fill 4 MiB (49932 samples). A map of tens of millions
  // of samples needs only a few hundred blocks (allocation and the block table cost nothing next
  // to the data), while a small map wastes at most one partly filled block and growth never
  // needs a large contiguous allocation.
  static constexpr uint32_t kSamplesPerBlock =
      static_cast<uint32_t>((size_t{4} << 20) / sizeof(IrradSample));

  // prepare() argument of a load with index: also precompute per-sample interpolation data.
  static constexpr int kPrepareAfterLoad = 32767;

  // A smaller block serves tests and fuzzing, where a map of a few samples should neither cost a
  // whole block nor leave the block boundaries untried.
  explicit DefIrradianceMap(uint32_t samplesPerBlock = kSamplesPerBlock);
  ~DefIrradianceMap() override;
  DefIrradianceMap(const DefIrradianceMap&) = delete;
  DefIrradianceMap& operator=(const DefIrradianceMap&) = delete;

  // --- the 21 operations, in slot order ---
  void clear() override;                                                    // 1
  Color irradiance(ThreadData& thread, ShadeContext& context, ShadeData& shade,
                   const Color& color, int flags) override;                 // 3
  void prepare(int mode) override;                                          // 4
  // Defined with the file format, in irradiance_file.cpp.
  int loadFromFile(const char* name, int buildIndex, float timeOffset) override;  // 5
  const IrradianceMapHeader* fileHeader() const override { return &fileHeader_; }  // 6
  // Defined with the file format, in irradiance_file.cpp.
  int saveToFile(const char* name, SaveCb* saveCb) override;                // 7
  int addSamples(IrradianceMap& source, ProgressCallback* progress, int incremental) override;  // 8
  const char* errorText(int code) override;                                 // 9
  IrradianceMapHeader* header() override { return &header_; }               // 10
  int enumerateSamples(uint32_t first, EnumIrradianceSamplesCallback* callback) override;  // 11
  void querySamples(const Vector& p, StoreCB& store) override;              // 12
  ReadIrradianceMapStream* openReadStream() override;                       // 13
  void closeReadStream(ReadIrradianceMapStream* stream) override;           // 14
  WriteIrradianceMapStream* openWriteStream() override;                     // 15
  void closeWriteStream(WriteIrradianceMapStream* stream) override;         // 16
  int loadAndAddFromFile(const char* name, float timeOffset, ProgressCallback* progress,
                         int incremental) override;                         // 17
  uint32_t formatVersion() const override { return version_; }              // 19
  void setHeader(const IrradianceMapHeader& header) override { header_ = header; }  // 20

  // The load of loadFromFile from a stream positioned at the start of the file's bytes; the
  // caller opened it and closes it. Defined in irradiance_file.cpp.
  int loadFromStream(PStream& in, int buildIndex, float timeOffset);
  // Threads that read the samples of a large file (loadFromFile) at once: 0, the default, is
  // defaultThreadCount(); 1 reads on the calling thread.
  void setLoadThreads(int32_t count) { loadThreads_ = count; }

  // Writes the map as a current file (working settings, then the samples that saveCb accepts)
  // to an open stream. Returns 0 or -5. Defined in irradiance_file.cpp.
  int saveToFile(PStream& out, SaveCb* saveCb);

  // Appends a copy of one sample at the end of the storage; takes the storage lock in locked
  // mode. Null when the storage could not grow (the storage has printed its message).
  IrradSample* appendSample(const IrradSample& sample) {
    if (!lockedMode_) return samples_.append(sample);
    std::lock_guard<SpinningMutex> guard(samples_.lock());
    return samples_.append(sample);
  }

  size_t sampleCount() {
    if (!lockedMode_) return samples_.size();
    std::lock_guard<SpinningMutex> guard(samples_.lock());
    return samples_.size();
  }
  BlockSequence<IrradSample>& samples() { return samples_; }
  const BlockSequence<IrradSample>& samples() const { return samples_; }

  // Locked mode: appends (and counts) take the storage lock, for maps filled from several threads.
  bool lockedMode() const { return lockedMode_; }
  void setLockedMode(bool locked) { lockedMode_ = locked; }

  // Set while several threads work on the map; the merge and the lookup then guard the samples.
  int32_t multiThreaded() const { return multiThreaded_; }
  void setMultiThreaded(int32_t on) { multiThreaded_ = on; }

  // The threads of the incremental merge: addSamples looks samples up `count` at once on
  // `threads` (count 0: the manager's threadCount()). A null manager, the default, is
  // mergeThreadManager(). One thread, or a map merged into itself, keeps the one-sample-at-a-time
  // path; every count gives the same map.
  void setMergeThreads(ThreadManager* threads, int32_t count = 0) {
    mergeThreads_ = threads;
    mergeThreadCount_ = count;
  }
  // What the last incremental merge on several threads did.
  const ParallelAddStats& lastParallelAdd() const { return lastParallelAdd_; }

  // 1 once prepare() has run since the last clear.
  int32_t built() const { return built_; }

  // The sample kd-tree that the lookup and querySamples use (rebuilt by prepare(), extended by
  // incremental insertion), and the lock that guards the samples while multiThreaded() is set.
  SampleKdTree& kdTree() { return kdTree_; }
  MultiReaderLock& multiReaderLock() { return rwLock_; }

  // The render-ID index that prepare() makes when the working settings keep samples apart by
  // render ID: the samples of one positive ID, in storage order (empty for an ID no sample has,
  // or when no index was made). minRenderId() > maxRenderId() when there is none.
  const std::vector<IrradSample*>& samplesWithRenderId(int32_t id) const;
  int32_t minRenderId() const { return renderIdMin_; }
  int32_t maxRenderId() const { return renderIdMax_; }

 protected:
  // One source sample of addSamples. Plain mode appends the record unchanged; a non-zero
  // `incremental` goes through insertIncremental().
  void addOneSample(const IrradSample& sample, int incremental);

  // The incremental insertion of one source sample: the irradiance lookup at the sample decides
  // whether the map needs it.
  void insertIncremental(const IrradSample& sample);

  // The render-ID part of prepare(): index the samples by ID, or clamp the IDs into -1..0.
  void indexRenderIds();

 private:
  friend class ReadIrradianceMapStream;
  class AddCb;

  BlockSequence<IrradSample> samples_;
  bool lockedMode_ = false;
  IrradianceMapHeader header_;
  IrradianceMapHeader fileHeader_;
  uint32_t version_ = 0;

  SpinningMutex streamLock_;
  std::vector<ReadIrradianceMapStream*> readStreams_;
  WriteIrradianceMapStream* writeStream_ = nullptr;

  int32_t multiThreaded_ = 0;
  int32_t loadThreads_ = 0;
  // loadFromStream, reading the records of a large current file from the open file `fd` (-1:
  // through the stream) on loadThreads_ threads.
  int loadFromStream(PStream& in, int buildIndex, float timeOffset, int fd);
  int32_t built_ = 0;
  SampleKdTree kdTree_;
  MultiReaderLock rwLock_;
  ThreadManager* mergeThreads_ = nullptr;
  int32_t mergeThreadCount_ = 0;
  ParallelAddStats lastParallelAdd_;

  // Only the IDs that occur get an entry, so a map with IDs 1 and 2^31-1 costs two lists.
  int32_t renderIdMin_ = 0;
  int32_t renderIdMax_ = -1;
  std::unordered_map<int32_t, std::vector<IrradSample*>> renderIdIndex_;
};

}  // namespace LUtils
