// The light cache: fixed-size samples placed on the surfaces of a scene, their lulmap file format
// (read in all six versions, written as the newest) and a spatial tree over the sample spheres.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>

#include "io/vector.h"
#include "lightcache/light_tree.h"
#include "threads/block_sequence.h"
#include "threads/spinning_mutex.h"

// One light-cache sample: thirty little-endian 32-bit words (w0-w29), stored in files of the
// newest version exactly as in memory.
//
//   words    field          meaning
//   w0-w2    position       world position
//   w3-w5    normal         surface normal
//   w6       radiusSquared  square of the sample's radius; the sphere of radius
//                           sqrt(radiusSquared) around the position is where the sample applies
//   w7       pad0           alignment, never read from files
//   w8-w13   extra          opaque renderer words (newest version only; zero otherwise)
//   w14-w17  valueA         first estimate: radiance R, G, B as floats, then a weight word
//   w18-w21  valueB         second estimate, same layout (a copy of valueA in versions 1 and 2)
//   w22-w24  normalB        second normal, matched by the store filter (a copy of normal in
//                           versions 1 and 2)
//   w25      pad1           alignment, never read from files
//   w26-w27  aux            opaque renderer words (newest version only; zero otherwise)
//   w28      id             identifier; zero for files before version 5
//   w29      pad2           alignment, never read from files
struct LightMapSample {
  LUtils::Vector position;
  LUtils::Vector normal;
  float radiusSquared;
  uint32_t pad0;
  uint32_t extra[6];
  uint32_t valueA[4];
  uint32_t valueB[4];
  LUtils::Vector normalB;
  uint32_t pad1;
  uint32_t aux[2];
  uint32_t id;
  uint32_t pad2;

  // The drawn colour: the first three words of valueA read as floats.
  LUtils::Color colour() const {
    return {std::bit_cast<float>(valueA[0]), std::bit_cast<float>(valueA[1]),
            std::bit_cast<float>(valueA[2])};
  }
  // The radius of the sample's sphere; 0 when radiusSquared is not positive.
  float radius() const { return radiusSquared > 0.0f ? std::sqrt(radiusSquared) : 0.0f; }
  // Whether p lies in the sample's sphere: |p - position|^2, computed in floats, is finite and at
  // most radiusSquared. The tree and every brute-force scan use this one test.
  bool sphereContains(const LUtils::Vector& p) const {
    const float dx = p.x - position.x, dy = p.y - position.y, dz = p.z - position.z;
    const float d2 = dx * dx + dy * dy + dz * dz;
    return d2 <= radiusSquared && d2 <= std::numeric_limits<float>::max();
  }
};

static_assert(sizeof(LightMapSample) == 120, "the light-cache sample is 120 bytes");
static_assert(offsetof(LightMapSample, radiusSquared) == 6 * 4);
static_assert(offsetof(LightMapSample, extra) == 8 * 4);
static_assert(offsetof(LightMapSample, valueA) == 14 * 4);
static_assert(offsetof(LightMapSample, valueB) == 18 * 4);
static_assert(offsetof(LightMapSample, normalB) == 22 * 4);
static_assert(offsetof(LightMapSample, aux) == 26 * 4);
static_assert(offsetof(LightMapSample, id) == 28 * 4);

// A yes/no test on one sample, applied to the candidates of a tree query.
class LightMapFilter {
 public:
  virtual ~LightMapFilter() = default;
  virtual bool accept(const LightMapSample& sample) = 0;
};

// Accepts a sample unless its normal faces away from `direction` (dot product, in double
// precision, below 0.01).
class LightMapSampleFilter : public LightMapFilter {
 public:
  explicit LightMapSampleFilter(const LUtils::Vector& direction) : direction_(direction) {}
  bool accept(const LightMapSample& sample) override;

 private:
  LUtils::Vector direction_;
};

// The store filter: does a sample apply at a query point with a query normal? A sample must carry
// the filter's id (0xFFFFFFFF matches every sample), have a normalB within the 0.8 cosine of the
// query normal, and the query point must lie close to both tangent planes:
// (d . sample normal) * (d . second) <= 0.01 |d|^2 with d = point - sample position.
class LightMapFilter_store : public LightMapFilter {
 public:
  static constexpr uint32_t kAnyId = 0xFFFFFFFFu;

  LightMapFilter_store(const LUtils::Vector& point, const LUtils::Vector& normal,
                       const LUtils::Vector& second, uint32_t id)
      : point_(point), normal_(normal), second_(second), id_(id) {}
  bool accept(const LightMapSample& sample) override;

 private:
  LUtils::Vector point_;
  LUtils::Vector normal_;
  LUtils::Vector second_;
  uint32_t id_;
};

// Receives the samples a tree query finds; returns non-zero to go on, zero to stop the query.
class LightMapStoreCb {
 public:
  virtual ~LightMapStoreCb() = default;
  virtual int store(LightMapSample& sample) = 0;
};

class LightMap {
 public:
  // Chooses the samples a save writes. count() is written as the file's sample count as it is,
  // so it must equal the number of samples accept() passes for the file to be readable whole.
  class SaveCb {
   public:
    virtual ~SaveCb() = default;
    virtual bool accept(const LightMapSample& sample) = 0;
    virtual int count() = 0;
  };

  static constexpr uint32_t kVersion1 = 0x10000;  // 44-byte records, one value group
  static constexpr uint32_t kVersion2 = 0x20000;  // 60-byte records, four trailing words ignored
  static constexpr uint32_t kVersion3 = 0x30000;  // 72-byte records, two value groups, normalB
  static constexpr uint32_t kVersion4 = 0x40000;  // 80-byte records, two trailing words ignored
  static constexpr uint32_t kVersion5 = 0x50000;  // 120-byte records with ids
  static constexpr uint32_t kVersion6 = 0x60000;  // 120-byte records, the memory layout
  static constexpr uint32_t kSamplesPerBlock = 20000;
  static constexpr int32_t kDefaultTreeParameter = 500;

  // The bytes of one sample record in files of `version`; 0 for a version that is not one.
  static uint32_t fileRecordBytes(uint32_t version);

  // A smaller block (samples and tree nodes alike) serves tests and fuzzing, where a cache of a
  // few samples should neither cost whole blocks nor leave the block boundaries untried.
  explicit LightMap(uint32_t samplesPerBlock = kSamplesPerBlock);
  LightMap(const LightMap&) = delete;
  LightMap& operator=(const LightMap&) = delete;

  // Reads a lulmap file. A file of the newest version replaces the samples held; older versions
  // add to them. Returns 0, -1 for a null name, -2 when the file cannot be opened, -3 for an
  // unknown version word, a header cut short or a file shorter than its sample count says (the
  // light cache is then left as it was), -4 when the data ends early or reading fails part way
  // through, which a regular file can only do if it changes while read (the complete records
  // read before are kept; a partial record never becomes a sample). The tree is rebuilt after
  // every load that reads records.
  int load(const char* fileName);
  // The same from an open file positioned at its start (the caller closes it). `size` is the
  // file's size in bytes when known, so that a count it cannot hold is refused before anything
  // changes; -1 when it is not (a pipe): such a file is read until it ends.
  int loadFrom(std::FILE* file, int64_t size);

  // Writes all samples (or those saveCb accepts, with saveCb->count() as the count) in the newest
  // version. The file is written beside the target and renamed over it only when complete.
  // Returns 0 (also for a null or empty name, which writes nothing), -2 when the file cannot be
  // created, -5 when writing fails (an existing file is then left intact).
  int save(const char* fileName, SaveCb* saveCb);
  // The same to an open file, written from its current position and flushed, not synchronised
  // or closed. Returns 0 or -5.
  int saveTo(std::FILE* file, SaveCb* saveCb);

  size_t sampleCount();  // read under the sample lock

  // Appends one zeroed sample for the caller to fill (under the insertion lock when the
  // multithreaded flag is set), or null when memory runs out. The tree does not see it until
  // rebuildTree().
  LightMapSample* insertSample();

  // Frees every sample and the tree, and sets the tree parameter back to its default.
  void clear();

  // Rebuilds the tree over all samples; a light cache with fewer than two samples has none.
  //
  // The tree parameter is the split threshold of the build: a node holding more samples than it
  // is split at the middle of its longest side (linear time, and it keeps separate clusters
  // apart), a node holding that many or fewer is split at the median along that side (a balanced
  // bottom). Values of kLeafSize or less split at the middle all the way down; a middle split that
  // leaves one side empty, or one deeper than a fixed limit, falls back to the median.
  void rebuildTree();

  // Calls store for every sample whose sphere contains p and that `filter` (if any) accepts, until
  // store returns zero. Returns the number of samples stored. Without a tree (fewer than two
  // samples) the samples are scanned directly. Either way, samples inserted after the last
  // rebuild are not seen.
  size_t query(const LUtils::Vector& p, LightMapFilter* filter, LightMapStoreCb& store);

  // The sample sequence, in storage order; drawing walks its blocks directly.
  LUtils::BlockSequence<LightMapSample>& samples() { return samples_; }
  LUtils::BlockSequence<LightMapNode>& nodes() { return nodes_; }
  const LightMapNode* treeRoot() const { return root_; }
  // The depth of the built tree (0 when there is none).
  uint32_t treeDepth() const { return treeState_; }
  bool needsRebuild() const { return needsRebuild_ != 0; }

  int multithreaded() const { return multithreaded_; }
  void setMultithreaded(int on) { multithreaded_ = on; }
  int32_t treeParameter() const { return treeParameter_; }
  void setTreeParameter(int32_t value) { treeParameter_ = value; }

 private:
  void resetTree();
  void buildTree();
  int64_t saveCount(SaveCb* saveCb);
  bool writeSamples(std::FILE* file, int64_t count, SaveCb* saveCb);

  uint32_t treeState_ = 0;  // depth of the built tree, 0 before a build
  LightMapNode* root_ = nullptr;
  int needsRebuild_ = 1;
  LUtils::BlockSequence<LightMapSample> samples_;
  LUtils::BlockSequence<LightMapNode> nodes_;
  LUtils::SpinningMutex insertionLock_;
  int multithreaded_ = 0;
  int32_t treeParameter_ = kDefaultTreeParameter;
  size_t indexed_ = 0;  // samples present at the last rebuild: what queries see
};
