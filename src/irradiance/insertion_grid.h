// The index of samples inserted one at a time during an incremental merge: a hash grid over
// their validity spheres that takes a sample in constant time and answers a point query with one
// cell per level in use, however many samples came before.
//
// Levels are absolute: the cells of level k are cubes of side 2^k world units aligned at the
// origin, for even k only. A sample goes to the level whose cell side is the smallest power of
// four not smaller than its bounding box (the validity sphere widened a little), and is listed in
// every cell of that level the box overlaps: at most two per axis, so at most eight. A point
// inside the sphere is inside the box, so the one cell that holds the point on that level lists
// the sample. Steps of four rather than two halve the levels a query visits (radii in one frame
// span a factor of 10 to 100) for a few more entries per cell, which are tested four at a time.
// Cell coordinates wrap at 2^18 cells per axis; cells that far apart share a list, which costs a
// little scanning and never an answer, since every listed sphere is tested.
//
// The cells are dealt by key to kShards shards, each a hash table with a pool of its own. A
// sample is inserted in two steps: begin() places it on its level and counts it, and list()
// writes it into the cells of some of the shards. insert() does both for every shard at once; a
// batch of samples that were begun in order can instead be listed by several threads, each taking
// its own shards and the samples in the same order, so that every cell lists its samples in the
// order they were begun and the grid is the same, shard for shard, whatever the number of
// threads. A sample begun and not yet listed is counted but found by no query; gather() finds
// such samples in the batch that will list them (CellBatch), or among a few tested one by one
// (Unlisted), in the order the grid will list them.
//
// A cell's entries lie together in one range of its shard's pool, one array per field (x, y, z,
// bounding radius) so that they are tested four at a time; a full cell moves to a range half as
// large again, and the range it leaves is reused by the next cell that needs one of that size. A
// shard's pool is a list of chunks of kChunkEntries entries that never move once allocated (a
// range larger than half a chunk gets a block of its own): growing it copies nothing and touches
// each page once, where one growing array would copy the whole pool at every doubling. The
// radius kept is the validity radius when inserted, a bound: the query also tests the sample's
// current validRadius2, which may only be lowered while indexed.
//
// The grid lists only the samples an index can place (io/placement.h): a finite position and a
// finite, positive radius; it leaves any other out, so no query returns it. Box arithmetic is in
// double, so every placeable sample, even at the float limit, has a level (the largest box, a
// radius near 2^64 around a coordinate near 2^128, needs cells of about 2^90).
#pragma once

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "io/prefetch.h"
#include "io/vector.h"
#include "irradiance/irrad_sample.h"
#include "irradiance/sphere_hits.h"
#include "threads/prefault.h"

namespace LUtils {

class InsertionGrid {
 public:
  // A bounding sphere and its sample: the position and a radius no smaller than the validity
  // radius (with margin for rounding).
  struct Sphere {
    float x, y, z, r;
    IrradSample* sample;
  };
  // Where begin() placed a sphere: its box (boxOf()) and its level, for the steps after begin()
  // that would otherwise work them out again.
  struct Box {
    double lo[3], hi[3];
    int level = 0;
  };
  static constexpr int kShardBits = 3;
  static constexpr int kShards = 1 << kShardBits;
  static constexpr uint32_t kAllShards = (1u << kShards) - 1;

  InsertionGrid() = default;
  InsertionGrid(InsertionGrid&& other) noexcept { *this = std::move(other); }
  InsertionGrid& operator=(InsertionGrid&& other) noexcept {
    for (int i = 0; i < kShards; ++i) shards_[i] = std::move(other.shards_[i]);
    for (int w = 0; w < 2; ++w) {
      levelBits_[w].store(other.levelBits_[w].load(std::memory_order_relaxed),
                          std::memory_order_relaxed);
    }
    samples_ = std::move(other.samples_);
    return *this;
  }

  void clear();
  // Indexes the sample with the given bounding sphere; a sample that cannot be placed is left
  // out (false).
  bool insert(const Sphere& sphere) {
    if (!begin(sphere)) return false;
    list(sphere, kAllShards);
    return true;
  }
  // The first step of insert(): places the sample on its level and counts it, or leaves it out
  // (false). It is found only once listed. Fills `box` (may be null) when it takes the sample.
  bool begin(const Sphere& sphere, Box* box = nullptr);
  // The second step, for the shards whose bits are set in `shards`: lists a sample that begin()
  // took in the cells of those shards. Listing different shards on different threads at once is
  // safe; begin() must not run meanwhile.
  void list(const Sphere& sphere, uint32_t shards);
  // Begun spheres with their cells found once, dealt to the shards: what list() would compute
  // for every shard it is given, so that threads listing different shards share the work. A
  // batch also indexes its cells itself, so that a query (gather() given the batch) finds its
  // spheres before they are listed, where listing will put them.
  class CellBatch;
  // As list(), for the spheres of a batch.
  void list(const CellBatch& batch, uint32_t shards);
  // Samples that a grid began after every one it lists and has not listed yet, few enough to
  // be tested one by one: a query given them finds them as the grid will once they are listed,
  // each on its level right after the grid's own cell, in the order added.
  class Unlisted;
  // Lists the spheres of `unlisted` in every shard, in the order added; it keeps them until
  // cleared.
  void list(Unlisted& unlisted);

  // Samples indexed, in insertion order.
  size_t size() const { return samples_.size(); }
  const std::vector<IrradSample*>& samples() const { return samples_; }
  // True when the grid holds so many samples that its 32-bit pool offsets could run out: time
  // to fold it into a tree. Counted in samples, so that it does not depend on when they are
  // listed.
  bool nearlyFull() const { return samples_.size() >= kMaxSamples; }

  // The cells that a set of spheres would take in a grid, without their entries: answers
  // whether a sphere of the set may contain a point, never "no" wrongly, in a few hash probes
  // of a bit table small enough to stay in the second-level cache. Each cell is a bit of the
  // table, found by hashing its key: cells that share a bit and the box around each sphere make
  // the rare wrong "yes". A sphere the grid could not place makes every answer "yes".
  class CellFilter;

  // A point's cells on the levels in use, found a few queries ahead of its own: ask() computes
  // their keys and asks for the lines where their slots are searched, askEntries() then finds
  // the slots and asks for their entries, and the query (gather() given the probe) scans them
  // without computing the keys or searching the slots again. What changed in between is found
  // anew: on other levels in use, the query goes without the probe; a slot that moved, or a cell
  // that had none, is searched again. So a probe is only a hint: never wrong, at worst slow.
  class Probe {
   private:
    friend class InsertionGrid;
    static constexpr int kMaxLevels = 8;
    static constexpr uint32_t kNoSlot = ~uint32_t{0};
    uint64_t levels_[2] = {0, 0};  // the levels in use when asked
    int count_ = -1;  // keys found; -1: more levels than it holds, or not asked
    uint64_t keys_[kMaxLevels];
    uint32_t slots_[kMaxLevels];  // where each key's slot was in its shard's table, or kNoSlot
  };
  void ask(const Vector& p, Probe& probe) const {
    const LevelBits bits = levelBits();
    probe.levels_[0] = bits.word[0];
    probe.levels_[1] = bits.word[1];
    probe.count_ = 0;
    forEachKey(bits, p, [&](uint64_t key) {
      if (probe.count_ < 0 || probe.count_ == Probe::kMaxLevels) {
        probe.count_ = -1;
        return;
      }
      shards_[shardOf(key)].prefetch(key);
      probe.slots_[probe.count_] = Probe::kNoSlot;
      probe.keys_[probe.count_++] = key;
    });
  }
  // Best once ask() has brought the slots' lines.
  void askEntries(Probe& probe) const {
    for (int j = 0; j < probe.count_; ++j) {
      const Shard& shard = shards_[shardOf(probe.keys_[j])];
      if (const Slot* slot = shard.find(probe.keys_[j])) {
        shard.prefetchEntries(*slot);
        probe.slots_[j] = shard.indexOf(*slot);
      }
    }
  }
  // Adds to `hits` every sample whose bounding sphere contains p, level by level from the
  // smallest cells, in insertion order within a cell; the caller flushes them. `probe` (may be
  // null): the cells a probe asked for at p. `later` (may be null) holds spheres begun in this
  // grid after every listed one and not yet listed: on each level this grid's cell, then
  // later's, as listing will put them.
  template <class F>
  void gather(const CellBatch* later, const Vector& p, const Probe* probe,
              PendingHits<F>& hits) const;
  template <class F>
  void gather(const Unlisted& later, const Vector& p, const Probe* probe,
              PendingHits<F>& hits) const;

 private:
  // Each sample takes at most eight cells, a cell's range at most 1.5 times its entries and at
  // least four, and ranges left by growing cells are reused: 2^25 samples stay far below 2^32
  // pool entries in every shard.
  static constexpr size_t kMaxSamples = size_t{1} << 25;
  // A cell: its key, and `count` entries from pool index `begin` in a range of capacity(count).
  struct Slot {
    uint64_t key;
    uint32_t begin, count;
  };
  static constexpr uint64_t kEmpty = ~uint64_t{0};
  static constexpr int kCoordBits = 18;
  static constexpr int kMinLevel = -126, kMaxLevel = 127;
  // The levels in use are bits of two words, bit i for k = kMinLevel + 2i; their scales 2^-k
  // come from a table.
  static constexpr int kLevels = (kMaxLevel - kMinLevel) / 2 + 1;
  static_assert(kMinLevel % 2 == 0 && kLevels <= 128);
  struct LevelBits {
    uint64_t word[2];
    void add(int k) {
      const int i = (k - kMinLevel) / 2;
      word[i / 64] |= uint64_t{1} << (i % 64);
    }
  };
  static constexpr std::array<double, kLevels> kLevelScale = [] {
    std::array<double, kLevels> scales{};
    double scale = 1.0;  // exact powers of two, out from k = 0
    for (int k = 0; k >= kMinLevel; k -= 2, scale *= 4.0) scales[(k - kMinLevel) / 2] = scale;
    scale = 1.0;
    for (int k = 0; k <= kMaxLevel; k += 2, scale *= 0.25) scales[(k - kMinLevel) / 2] = scale;
    return scales;
  }();
  LevelBits levelBits() const {
    return {levelBits_[0].load(std::memory_order_relaxed),
            levelBits_[1].load(std::memory_order_relaxed)};
  }
  // Calls f(k, 2^-k) for the levels of `bits`, smallest cells first.
  template <class F>
  static void forEachLevel(LevelBits bits, F&& f) {
    for (int w = 0; w < 2; ++w) {
      for (uint64_t b = bits.word[w]; b; b &= b - 1) {
        const int i = 64 * w + std::countr_zero(b);
        f(kMinLevel + 2 * i, kLevelScale[i]);
      }
    }
  }

  // Ranges come in sizes 4, 8, 12, 16, 24, ... (about 1.5 apart from 8 on; class k holds
  // classSize(k), and class 4, of 6, is not used). Most cells hold only a few entries, but the
  // test reads four at a time anyway, and a cell that starts at four moves less often as it
  // fills. One that outgrows four goes straight to eight: the move through six cost 2% of a
  // merge's instructions, and the wider range costs it next to no memory.
  static constexpr int kMinClass = 3;
  static constexpr int kSecondClass = 5;
  static constexpr uint32_t classSize(int k) {
    return k == 0 ? 1u : (k & 1 ? 2u : 3u) << ((k - 1) >> 1);
  }
  static constexpr int nextClass(int k) { return k == kMinClass ? kSecondClass : k + 1; }
  // The smallest class that holds `count` entries.
  static int classOf(uint32_t count) {
    if (count <= classSize(kMinClass)) return kMinClass;
    if (count <= classSize(kSecondClass)) return kSecondClass;
    const int b = std::bit_width(count - 1);  // 2^(b-1) < count <= 2^b
    return count <= (3u << (b - 2)) ? 2 * b - 2 : 2 * b - 1;
  }
  static uint32_t capacity(uint32_t count) { return classSize(classOf(count)); }
  // The cell index of coordinate v at a level: floor(v * 2^-k), exact in double for every float
  // v and level, clamped far beyond any coordinate that wraps differently (NaN goes to cell 0).
  // Truncation and a correction rather than std::floor, which is a library call on baseline x86.
  static constexpr double kCellLimit = 4.0e18;
  static int64_t cellOf(double v, double scale) {
    const double c = v * scale;
    if (!(c > -kCellLimit)) return c < 0.0 ? static_cast<int64_t>(-kCellLimit) : 0;
    if (c > kCellLimit) return static_cast<int64_t>(kCellLimit);
    return floorOf(c);
  }
  // floor(c) for |c| <= 4e18.
  static int64_t floorOf(double c) {
    const auto t = static_cast<int64_t>(c);
    return t - (static_cast<double>(t) > c ? 1 : 0);
  }
  static uint64_t keyOf(int k, int64_t ix, int64_t iy, int64_t iz) {
    constexpr uint64_t mask = (uint64_t{1} << kCoordBits) - 1;
    return (static_cast<uint64_t>(k - kMinLevel) << (3 * kCoordBits)) |
           ((static_cast<uint64_t>(ix) & mask) << (2 * kCoordBits)) |
           ((static_cast<uint64_t>(iy) & mask) << kCoordBits) | (static_cast<uint64_t>(iz) & mask);
  }
  static int shardOf(uint64_t key) {
    return static_cast<int>((key * 0xD6E8FEB86659FD93ull) >> (64 - kShardBits));
  }
  static uint64_t keyAt(int k, double scale, const Vector& p) {
    return keyOf(k, cellOf(p.x, scale), cellOf(p.y, scale), cellOf(p.z, scale));
  }
  // Calls f(key) for p's cell on every level of `bits`, smallest cells first. The cell of the
  // smallest level is computed, and each larger level's from it: a cell of level k + 2j is
  // 4^j cells of level k across, aligned, so its index is the smaller one shifted right by 2j
  // (a floor, also below zero). Where the smallest level's index is clamped (coordinates
  // beyond 4e18 cells), every level is computed on its own.
  template <class F>
  static void forEachKey(LevelBits bits, const Vector& p, F&& f) {
    int first = -1;
    for (int w = 0; w < 2 && first < 0; ++w) {
      if (bits.word[w]) first = 64 * w + std::countr_zero(bits.word[w]);
    }
    if (first < 0) return;
    const double scale = kLevelScale[first];
    const double c[3] = {p.x * scale, p.y * scale, p.z * scale};
    if (!(std::abs(c[0]) < kCellLimit && std::abs(c[1]) < kCellLimit &&
          std::abs(c[2]) < kCellLimit)) {
      forEachLevel(bits, [&](int k, double levelScale) { f(keyAt(k, levelScale, p)); });
      return;
    }
    const int64_t x = floorOf(c[0]), y = floorOf(c[1]), z = floorOf(c[2]);
    for (int w = 0; w < 2; ++w) {
      for (uint64_t b = bits.word[w]; b; b &= b - 1) {
        const int i = 64 * w + std::countr_zero(b);
        // Indexes below 2^62 in size shifted by 63 are 0 or -1, their floor at any larger shift.
        const int shift = std::min(2 * (i - first), 63);
        f(keyOf(kMinLevel + 2 * i, x >> shift, y >> shift, z >> shift));
      }
    }
  }
  // The box of a sphere in double, widened by far more than the rounding of its corners, so
  // that it certainly holds every point the sphere's own test accepts; false when it has no
  // level.
  static bool boxOf(const Sphere& s, double lo[3], double hi[3], int& k);
  // Calls f(key) for every cell of the sphere's level that its box overlaps, for a sphere that
  // begin() took; returns the level.
  template <class F>
  static int forEachCell(const Sphere& s, F&& f);
  // The same for a box and level that boxOf() gave.
  template <class F>
  static void forEachCellOfBox(const double lo[3], const double hi[3], int k, F&& f);
  // Calls f(key, shard, slot or null) for p's cell on every level in use, smallest cells first,
  // with the slots that the probe (may be null) found where they are still good.
  template <class F>
  void forEachCellAt(const Vector& p, const Probe* probe, F&& f) const;
  // A sphere to be added to one of its cells, and the slot where find() saw the cell.
  struct PendingCell {
    uint64_t key;
    const Sphere* sphere;
    uint32_t slot;
  };
  // Adds each sphere to its cell, in order: first asks for the cells' slots, then for the
  // entries of the cells that exist, then adds them, so that the loads of the slots, and then
  // of the entries, overlap, and each existing cell is searched for once.
  void addCells(std::span<PendingCell> cells);

  // One shard: a hash table of cells and the pool of their entries.
  class Shard {
   public:
    void clear();
    const Slot* find(uint64_t key) const;
    void add(uint64_t key, const Sphere& s) { append(findOrAdd(key), s); }
    // As add(), where find() gave the key's slot at `index` (kNowhere: none) before the slots
    // added since, which move it only when the table grew.
    static constexpr uint32_t kNowhere = ~uint32_t{0};
    void addFound(uint32_t index, uint64_t key, const Sphere& s) {
      if (index < slots_.size() && slots_[index].key == key) {
        append(slots_[index], s);
      } else {
        append(findOrAdd(key), s);
      }
    }
    // Asks for the slot where a search for the key starts. A bit filter in front of the table,
    // a thirty-second of its size, which answers for most cells that hold nothing without a read
    // of the table, was measured and not kept: 2% faster where four in five cells searched were
    // empty (a frame offered to one from the same camera), 2% slower where two in three were (a
    // second camera).
    void prefetch(uint64_t key) const {
      if (!slots_.empty()) prefetchLine(slots_.data() + home(key));
    }
    // Asks for the lines that append() writes: the next place in each field and in the samples.
    void prefetchAppend(const Slot& slot) const {
      const size_t c = capacity(slot.count);
      const float* fields = fieldsAt(slot.begin);
      for (size_t f = 0; f < 4; ++f) prefetchLine(fields + f * c + slot.count);
      prefetchLine(samplesAt(slot.begin) + slot.count);
    }
    // Asks for the lines of a cell's entries that scanCell() reads: the used part of each field,
    // in groups of four, and the samples.
    void prefetchEntries(const Slot& slot) const {
      const uint32_t c = capacity(slot.count);
      const char* fields = reinterpret_cast<const char*>(fieldsAt(slot.begin));
      const size_t used = 4 * ((static_cast<size_t>(slot.count) + 3) & ~size_t{3});
      for (int f = 0; f < 4; ++f) {
        const char* field = fields + f * 4 * static_cast<size_t>(c);
        for (size_t b = 0; b < used; b += 64) prefetchLine(field + b);
        prefetchLine(field + used - 1);
      }
      const char* samples = reinterpret_cast<const char*>(samplesAt(slot.begin));
      const size_t pointers = sizeof(IrradSample*) * slot.count;
      for (size_t b = 0; b < pointers; b += 64) prefetchLine(samples + b);
      prefetchLine(samples + pointers - 1);
    }
    template <class F>
    void scanCell(const Slot& slot, const Vector& p, PendingHits<F>& hits) const {
      const uint32_t c = capacity(slot.count);
      const float* x = fieldsAt(slot.begin);
      gatherSpheres(x, x + c, x + 2 * c, x + 3 * c, samplesAt(slot.begin), slot.count, p, hits);
    }

    uint32_t indexOf(const Slot& slot) const {
      return static_cast<uint32_t>(&slot - slots_.data());
    }
    // The slot of a key that was at `index`, wherever it is now.
    const Slot* findFrom(uint32_t index, uint64_t key) const {
      if (index < slots_.size() && slots_[index].key == key) return &slots_[index];
      return find(key);
    }

   private:
    size_t home(uint64_t key) const {
      return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> shift_);
    }
    Slot& findOrAdd(uint64_t key);
    uint32_t allocate(int sizeClass);
    void addChunk();
    // The fields of the range that starts at pool index `begin`, and its samples.
    float* fieldsAt(uint32_t begin) const {
      return fields_[begin >> kChunkBits] + 4 * static_cast<size_t>(begin & (kChunkEntries - 1));
    }
    IrradSample** samplesAt(uint32_t begin) const {
      return samplesOf_[begin >> kChunkBits] + (begin & (kChunkEntries - 1));
    }
    void append(Slot& slot, const Sphere& s);
    void grow();

    static constexpr size_t kKeptSlots = size_t{1} << 14;  // 256 KB: kept by clear()
    // Open addressing, linear probing, at most half full. Probes land anywhere in it, so a
    // large table lies in huge pages.
    using Slots = std::vector<Slot, LargeArrayAllocator<Slot>>;
    Slots slots_;
    int shift_ = 64;            // 64 - log2(slots_.size())
    size_t used_ = 0;           // slots holding a cell
    // The pool: per cell range of capacity c, c x, c y, c z, c r floats and c samples. Pool
    // index i lies in chunk i / kChunkEntries; fields_ and samplesOf_ give each chunk's first
    // entry (a block of its own spans several chunk numbers, each pointing kChunkEntries
    // further into it). Every block has four floats more at its end, since the test reads the
    // radii in groups of four past the last entry.
    static constexpr int kChunkBits = 12;
    static constexpr uint32_t kChunkEntries = uint32_t{1} << kChunkBits;
    struct Block {
      std::unique_ptr<float[]> fields;
      std::unique_ptr<IrradSample*[]> samples;
    };
    std::vector<float*> fields_;
    std::vector<IrradSample**> samplesOf_;
    uint64_t end_ = 0;            // pool indexes in use: [0, end_)
    // The chunks of kChunkEntries, kept by clear() for reuse. The pool is written as the merge
    // goes, so its pages are fresh ones: the first kHeapChunks come from the heap, so that a
    // small grid takes a few small pages, and the rest from an arena, in huge pages where those
    // are the cheaper to map (threads/prefault.h; a query's cells lie in a few pages and gain
    // little from huge ones otherwise).
    static constexpr size_t kHeapChunks = 4;
    struct Chunk {
      float* fields;
      IrradSample** samples;
    };
    std::vector<Chunk> chunks_;
    std::vector<Block> heapChunks_;
    FreshArena arena_;
    size_t chunksUsed_ = 0;
    std::vector<Block> large_;    // blocks of a range of their own
    std::vector<uint32_t> freeRanges_[64];  // ranges left by cells that moved, by size class
  };

  const Slot* find(uint64_t key, const Shard*& shard) const {
    shard = &shards_[shardOf(key)];
    return shard->find(key);
  }

  Shard shards_[kShards];
  // The levels in use. begin() adds to them while the workers of a parallel merge may be
  // querying the grid (the cells they find do not change until the next list()), hence atomic;
  // on a cache line of their own, apart from samples_, which begin() writes every time.
  alignas(64) std::atomic<uint64_t> levelBits_[2] = {0, 0};
  alignas(64) std::vector<IrradSample*> samples_;
};

class InsertionGrid::CellFilter {
 public:
  CellFilter() : bits_(kWords, 0) {}
  void clear();
  void add(const Sphere& sphere);
  bool mayContain(const Vector& p) const {
    if (everywhere_) return true;
    bool hit = false;
    forEachKey(levels_, p, [&](uint64_t key) {
      const uint64_t bit = bitOf(key);
      hit = hit || (bits_[bit / 64] >> (bit % 64) & 1);
    });
    return hit;
  }
  bool empty() const { return used_.empty() && !everywhere_; }

 private:
  friend class CellBatch;
  void prefetch(uint64_t key) const { prefetchLine(bits_.data() + bitOf(key) / 64); }
  void addCell(uint64_t key) {
    const uint64_t bit = bitOf(key);
    uint64_t& word = bits_[bit / 64];
    if (!word) used_.push_back(static_cast<uint32_t>(bit / 64));
    word |= uint64_t{1} << (bit % 64);
  }
  void addLevel(int k) { levels_.add(k); }
  static constexpr int kBits = 20;  // 128 KB
  static constexpr size_t kWords = (size_t{1} << kBits) / 64;
  static uint64_t bitOf(uint64_t key) { return (key * 0x9E3779B97F4A7C15ull) >> (64 - kBits); }
  std::vector<uint64_t> bits_;
  std::vector<uint32_t> used_;  // the words with bits set
  LevelBits levels_{{0, 0}};
  bool everywhere_ = false;
};

class InsertionGrid::CellBatch {
 public:
  // Adds a sphere that begin() took, placed in `box`, and its cells to `filter` when given.
  void add(const Sphere& sphere, const Box& box, CellFilter* filter = nullptr);
  void clear();
  bool empty() const { return spheres_.empty(); }
  // Whether a sphere of the batch contains p and its sample's own test (the current
  // validRadius2) takes p: what a query of the grid finds among them once they are listed.
  bool reaches(const Vector& p) const;

 private:
  friend class InsertionGrid;
  struct Cell {
    uint64_t key;
    uint32_t sphere;  // its index in spheres_
  };
  // The batch's own index, so that queries find its spheres before they are listed: per cell
  // key a chain of its spheres there, in the order added, in an open-addressed table at most
  // half full that keeps its size from batch to batch.
  struct Chain {
    uint64_t key;
    uint32_t first, last;  // links
  };
  struct Link {
    uint32_t sphere, next;
  };
  static constexpr uint32_t kEnd = ~uint32_t{0};
  size_t home(uint64_t key) const {
    return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> chainShift_);
  }
  const Chain* chainOf(uint64_t key) const {
    if (links_.empty()) return nullptr;
    const size_t mask = chains_.size() - 1;
    for (size_t i = home(key);; i = (i + 1) & mask) {
      if (chains_[i].key == key) return &chains_[i];
      if (chains_[i].key == kEmpty) return nullptr;
    }
  }
  // Adds the sphere to the chain of `key`; the table has room (add() grows it first).
  void link(uint64_t key, uint32_t sphere);
  void growChains();
  // Adds to `hits` the spheres of the cell `key` that contain p, in the order added.
  template <class Hits>
  void scanCell(uint64_t key, const Vector& p, Hits& hits) const {
    const Chain* chain = chainOf(key);
    if (!chain) return;
    for (uint32_t at = chain->first; at != kEnd; at = links_[at].next) {
      const Sphere& s = spheres_[links_[at].sphere];
      // As gatherSpheres tests the same sphere once it is listed, to the bit.
      const float dx = p.x - s.x, dy = p.y - s.y, dz = p.z - s.z;
      const float d2 = dx * dx + dy * dy + dz * dz;
      if (d2 < s.r * s.r) hits.add(s.sample, d2);
    }
  }

  std::vector<Sphere> spheres_;
  std::vector<Cell> cells_[kShards];  // each shard's cells, in the order added
  std::vector<Chain> chains_;
  std::vector<uint32_t> usedChains_;  // the slots of chains_ in use
  int chainShift_ = 64;
  std::vector<Link> links_;
  LevelBits levels_{{0, 0}};
};

class InsertionGrid::Unlisted {
 public:
  static constexpr uint32_t kCapacity = 256;
  Unlisted() = default;
  Unlisted(const Unlisted&) = delete;  // its cells point to its spheres
  Unlisted& operator=(const Unlisted&) = delete;
  // Adds a sphere that the grid began, placed in `box`; at most kCapacity until cleared. Its
  // cells are found now, once, for list().
  void add(const Sphere& sphere, const Box& box);
  void clear() {
    count_ = 0;
    cellCount_ = 0;
  }
  bool full() const { return count_ == kCapacity; }
  bool empty() const { return count_ == 0; }

 private:
  friend class InsertionGrid;
  SphereGroup groups_[kCapacity / 4];  // four spheres to a group, field by field
  IrradSample* samples_[kCapacity];
  uint8_t levels_[kCapacity];  // each sphere's level, as its keys hold it
  Sphere spheres_[kCapacity];
  PendingCell cells_[8 * kCapacity];  // every sphere's cells, in the order added
  uint32_t count_ = 0;
  uint32_t cellCount_ = 0;
};

template <class F>
void InsertionGrid::forEachCellAt(const Vector& p, const Probe* probe, F&& f) const {
  const LevelBits bits = levelBits();
  if (probe && probe->count_ >= 0 && bits.word[0] == probe->levels_[0] &&
      bits.word[1] == probe->levels_[1]) {
    for (int j = 0; j < probe->count_; ++j) {
      const uint64_t key = probe->keys_[j];
      const Shard& shard = shards_[shardOf(key)];
      f(key, shard, shard.findFrom(probe->slots_[j], key));
    }
    return;
  }
  forEachKey(bits, p, [&](uint64_t key) {
    const Shard* shard;
    const Slot* slot = find(key, shard);
    f(key, *shard, slot);
  });
}

template <class F>
void InsertionGrid::gather(const CellBatch* later, const Vector& p, const Probe* probe,
                           PendingHits<F>& hits) const {
  // Every level of `later` is one of ours: begin() placed its spheres here too.
  const bool laterEmpty = !later || later->empty();
  forEachCellAt(p, probe, [&](uint64_t key, const Shard& shard, const Slot* slot) {
    if (slot) shard.scanCell(*slot, p, hits);
    if (!laterEmpty) later->scanCell(key, p, hits);
  });
}

template <class F>
void InsertionGrid::gather(const Unlisted& later, const Vector& p, const Probe* probe,
                           PendingHits<F>& hits) const {
  // The unlisted spheres that contain p, in the order added; each is then taken on its level.
  struct Found {
    uint32_t index;
    float d2;
  };
  struct Sink {
    IrradSample* const* base;
    Found* found;
    uint32_t n;
    void add(IrradSample* const& slot, float d2) {
      found[n++] = {static_cast<uint32_t>(&slot - base), d2};
    }
  };
  Found found[Unlisted::kCapacity];
  Sink sink{later.samples_, found, 0};
  gatherGroups(later.groups_, later.samples_, later.count_, p, sink);
  forEachCellAt(p, probe, [&](uint64_t key, const Shard& shard, const Slot* slot) {
    if (slot) shard.scanCell(*slot, p, hits);
    const auto level = static_cast<uint8_t>(key >> (3 * kCoordBits));
    for (uint32_t j = 0; j < sink.n; ++j) {
      const uint32_t i = found[j].index;
      if (later.levels_[i] == level) hits.add(later.samples_[i], found[j].d2);
    }
  });
}

}  // namespace LUtils
