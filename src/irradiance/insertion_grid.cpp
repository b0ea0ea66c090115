#include "irradiance/insertion_grid.h"

#include <algorithm>
#include <cstring>

#include "io/placement.h"

namespace LUtils {

void InsertionGrid::clear() {
  for (Shard& shard : shards_) shard.clear();
  levelBits_[0].store(0, std::memory_order_relaxed);
  levelBits_[1].store(0, std::memory_order_relaxed);
  samples_.clear();
}

void InsertionGrid::Shard::clear() {
  // A small table is kept, emptied, for the next use: a grid that holds one batch at a time is
  // cleared for every batch, and would otherwise allocate and fault in its tables again each time.
  if (slots_.size() <= kKeptSlots) {
    if (used_) std::fill(slots_.begin(), slots_.end(), Slot{kEmpty, 0, 0});
  } else {
    slots_.clear();
    slots_.shrink_to_fit();
    shift_ = 64;
  }
  used_ = 0;
  fields_.clear();
  samplesOf_.clear();
  end_ = 0;
  chunksUsed_ = 0;
  large_.clear();
  for (std::vector<uint32_t>& list : freeRanges_) list.clear();
}

const InsertionGrid::Slot* InsertionGrid::Shard::find(uint64_t key) const {
  if (slots_.empty()) return nullptr;
  const size_t mask = slots_.size() - 1;
  for (size_t i = home(key);; i = (i + 1) & mask) {
    const Slot& s = slots_[i];
    if (s.key == key) return &s;
    if (s.key == kEmpty) return nullptr;
  }
}

InsertionGrid::Slot& InsertionGrid::Shard::findOrAdd(uint64_t key) {
  if (2 * (used_ + 1) > slots_.size()) grow();
  const size_t mask = slots_.size() - 1;
  for (size_t i = home(key);; i = (i + 1) & mask) {
    Slot& s = slots_[i];
    if (s.key == key) return s;
    if (s.key == kEmpty) {
      s.key = key;
      s.count = 0;
      s.begin = allocate(kMinClass);
      ++used_;
      return s;
    }
  }
}

void InsertionGrid::Shard::grow() {
  Slots old;
  old.swap(slots_);
  const size_t size = old.empty() ? 256 : 2 * old.size();
  slots_.assign(size, Slot{kEmpty, 0, 0});
  shift_ = 64 - std::countr_zero(size);
  const size_t mask = size - 1;
  for (const Slot& s : old) {
    if (s.key == kEmpty) continue;
    size_t i = home(s.key);
    while (slots_[i].key != kEmpty) i = (i + 1) & mask;
    slots_[i] = s;
  }
}

// Maps the next chunk number to a chunk of kChunkEntries, one kept from before clear() if any.
void InsertionGrid::Shard::addChunk() {
  if (chunksUsed_ == chunks_.size()) {
    const size_t fieldsCount = 4 * size_t{kChunkEntries} + 4;
    if (chunks_.size() == chunks_.capacity()) chunks_.reserve(2 * chunks_.size() + 4);
    if (chunks_.size() < kHeapChunks || !hugePagesPay()) {
      heapChunks_.push_back({std::make_unique_for_overwrite<float[]>(fieldsCount),
                             std::make_unique_for_overwrite<IrradSample*[]>(kChunkEntries)});
      chunks_.push_back({heapChunks_.back().fields.get(), heapChunks_.back().samples.get()});
    } else {
      auto* fields = static_cast<float*>(arena_.take(fieldsCount * sizeof(float)));
      auto* samples =
          static_cast<IrradSample**>(arena_.take(kChunkEntries * sizeof(IrradSample*)));
      chunks_.push_back({fields, samples});
    }
  }
  const Chunk& chunk = chunks_[chunksUsed_++];
  fields_.push_back(chunk.fields);
  samplesOf_.push_back(chunk.samples);
}

// A range of the size class: a freed one of that size, or a new one at the pool's end. A range
// never straddles two chunks: one that does not fit in what is left of the last chunk starts the
// next (the rest of the last is left unused).
uint32_t InsertionGrid::Shard::allocate(int sizeClass) {
  std::vector<uint32_t>& list = freeRanges_[sizeClass];
  if (!list.empty()) {
    const uint32_t begin = list.back();
    list.pop_back();
    // Ranges are taken back at random places: ask for the next one's lines now.
    if (!list.empty()) {
      const uint32_t c = classSize(sizeClass);
      const char* fields = reinterpret_cast<const char*>(fieldsAt(list.back()));
      for (uint32_t b = 0; b < 16 * c; b += 64) prefetchLine(fields + b);
      prefetchLine(fields + 16 * c - 1);
      prefetchLine(samplesAt(list.back()));
      prefetchLine(samplesAt(list.back()) + c - 1);
    }
    return begin;
  }
  const uint32_t c = classSize(sizeClass);
  const uint64_t mask = kChunkEntries - 1;
  if (c > kChunkEntries / 2) {
    // A block of its own, under as many chunk numbers as it spans, from the next one.
    end_ = (end_ + mask) & ~mask;
    const uint64_t begin = end_;
    Block b{std::make_unique_for_overwrite<float[]>(4 * size_t{c} + 4),
            std::make_unique_for_overwrite<IrradSample*[]>(c)};
    for (uint64_t at = 0; at < c; at += kChunkEntries) {
      fields_.push_back(b.fields.get() + 4 * at);
      samplesOf_.push_back(b.samples.get() + at);
    }
    large_.push_back(std::move(b));
    end_ = begin + ((uint64_t{c} + mask) & ~mask);
    return static_cast<uint32_t>(begin);
  }
  if ((end_ & mask) + c > kChunkEntries) end_ = (end_ + mask) & ~mask;
  if ((end_ & mask) == 0) addChunk();
  const uint64_t begin = end_;
  end_ += c;
  return static_cast<uint32_t>(begin);
}

void InsertionGrid::Shard::append(Slot& slot, const Sphere& s) {
  const int sizeClass = classOf(slot.count);
  uint32_t c = classSize(sizeClass);
  if (slot.count == c) {
    // Full: move the cell to a range of the next size; the one it leaves goes to the free list
    // of its size.
    const int next = nextClass(sizeClass);
    const uint32_t grown = classSize(next);
    const uint32_t begin = allocate(next);
    float* to = fieldsAt(begin);
    const float* from = fieldsAt(slot.begin);
    for (int field = 0; field < 4; ++field) {
      std::memcpy(to + field * grown, from + field * c, slot.count * sizeof(float));
    }
    std::memcpy(samplesAt(begin), samplesAt(slot.begin), slot.count * sizeof(IrradSample*));
    freeRanges_[sizeClass].push_back(slot.begin);
    slot.begin = begin;
    c = grown;
  }
  float* x = fieldsAt(slot.begin);
  x[slot.count] = s.x;
  x[c + slot.count] = s.y;
  x[2 * c + slot.count] = s.z;
  x[3 * c + slot.count] = s.r;
  samplesAt(slot.begin)[slot.count] = s.sample;
  ++slot.count;
}

bool InsertionGrid::boxOf(const Sphere& s, double lo[3], double hi[3], int& k) {
  const double c[3] = {s.x, s.y, s.z};
  double side = 0.0;
  for (int a = 0; a < 3; ++a) {
    const double margin = s.r + (std::abs(c[a]) + s.r) * 0x1p-40;
    lo[a] = c[a] - margin;
    hi[a] = c[a] + margin;
    side = std::max(side, hi[a] - lo[a]);
  }
  // side < 2^k for the smallest such k, read from the exponent bits: side is a normal double
  // for every placeable sample (at least twice the smallest positive float), and finite.
  k = static_cast<int>(std::bit_cast<uint64_t>(side) >> 52 & 0x7FF) - 1022;
  k += k & 1;
  if (k > kMaxLevel) return false;  // unreachable: kept so that a key can never overflow
  k = std::max(k, kMinLevel);
  return true;
}

bool InsertionGrid::begin(const Sphere& s, Box* box) {
  if (!placeable(s.sample->position, s.sample->validRadius2) ||
      !(s.r > 0.0f && std::isfinite(s.r))) {
    return false;
  }
  Box own;
  if (!box) box = &own;
  if (!boxOf(s, box->lo, box->hi, box->level)) return false;
  const int k = box->level;
  samples_.push_back(s.sample);
  const int i = (k - kMinLevel) / 2;
  // Most samples land on a level already in use: only a new one writes the word, which the
  // workers of a parallel merge read in every query.
  const uint64_t bit = uint64_t{1} << (i % 64);
  if (!(levelBits_[i / 64].load(std::memory_order_relaxed) & bit)) {
    levelBits_[i / 64].fetch_or(bit, std::memory_order_relaxed);
  }
  return true;
}

template <class F>
int InsertionGrid::forEachCell(const Sphere& s, F&& f) {
  double lo[3], hi[3];
  int k = 0;
  boxOf(s, lo, hi, k);
  forEachCellOfBox(lo, hi, k, f);
  return k;
}

template <class F>
void InsertionGrid::forEachCellOfBox(const double lo[3], const double hi[3], int k, F&& f) {
  const double scale = kLevelScale[(k - kMinLevel) / 2];
  int64_t from[3], to[3];
  for (int a = 0; a < 3; ++a) {
    from[a] = cellOf(lo[a], scale);
    to[a] = cellOf(hi[a], scale);
  }
  constexpr uint64_t mask = (uint64_t{1} << kCoordBits) - 1;
  const uint64_t level = static_cast<uint64_t>(k - kMinLevel) << (3 * kCoordBits);
  for (int64_t ix = from[0]; ix <= to[0]; ++ix) {
    const uint64_t keyX = level | (static_cast<uint64_t>(ix) & mask) << (2 * kCoordBits);
    for (int64_t iy = from[1]; iy <= to[1]; ++iy) {
      const uint64_t keyXY = keyX | (static_cast<uint64_t>(iy) & mask) << kCoordBits;
      for (int64_t iz = from[2]; iz <= to[2]; ++iz) f(keyXY | (static_cast<uint64_t>(iz) & mask));
    }
  }
}

void InsertionGrid::list(const Sphere& s, uint32_t shards) {
  forEachCell(s, [&](uint64_t key) {
    const int shard = shardOf(key);
    if (shards >> shard & 1) shards_[shard].add(key, s);
  });
}

void InsertionGrid::addCells(std::span<PendingCell> cells) {
  for (const PendingCell& c : cells) shards_[shardOf(c.key)].prefetch(c.key);
  for (PendingCell& c : cells) {
    const Shard& shard = shards_[shardOf(c.key)];
    c.slot = Shard::kNowhere;
    if (const Slot* slot = shard.find(c.key)) {
      shard.prefetchAppend(*slot);
      c.slot = shard.indexOf(*slot);
    }
  }
  for (const PendingCell& c : cells) shards_[shardOf(c.key)].addFound(c.slot, c.key, *c.sphere);
}

// As list(), from the cells found when the spheres were added, a window at a time.
void InsertionGrid::list(const CellBatch& batch, uint32_t shards) {
  constexpr size_t kWindow = 64;
  PendingCell window[kWindow];
  for (int s = 0; s < kShards; ++s) {
    if (!(shards >> s & 1)) continue;
    const std::vector<CellBatch::Cell>& cells = batch.cells_[s];
    for (size_t from = 0; from < cells.size(); from += kWindow) {
      const size_t n = std::min(cells.size() - from, kWindow);
      for (size_t c = 0; c < n; ++c) {
        const CellBatch::Cell& cell = cells[from + c];
        window[c] = {cell.key, &batch.spheres_[cell.sphere], Shard::kNowhere};
      }
      addCells(std::span<PendingCell>(window, n));
    }
  }
}

// The same for the spheres of `unlisted`, in every shard.
void InsertionGrid::list(Unlisted& unlisted) {
  constexpr uint32_t kWindow = 64;
  for (uint32_t from = 0; from < unlisted.cellCount_; from += kWindow) {
    const uint32_t n = std::min(unlisted.cellCount_ - from, kWindow);
    addCells(std::span<PendingCell>(unlisted.cells_ + from, n));
  }
}

void InsertionGrid::CellBatch::add(const Sphere& sphere, const Box& box, CellFilter* filter) {
  const auto index = static_cast<uint32_t>(spheres_.size());
  spheres_.push_back(sphere);
  if (2 * (usedChains_.size() + 8) > chains_.size()) growChains();
  // The keys first, asking for the lines where their chains and filter bits lie, which the
  // writes then find in the cache.
  uint64_t keys[8];
  int n = 0;
  const int k = box.level;
  forEachCellOfBox(box.lo, box.hi, k, [&](uint64_t key) {
    prefetchLine(chains_.data() + home(key));
    if (filter) filter->prefetch(key);
    keys[n++] = key;
  });
  for (int j = 0; j < n; ++j) {
    cells_[shardOf(keys[j])].push_back({keys[j], index});
    link(keys[j], index);
    if (filter) filter->addCell(keys[j]);
  }
  levels_.add(k);
  if (filter) filter->addLevel(k);
}

void InsertionGrid::CellBatch::link(uint64_t key, uint32_t sphere) {
  const auto at = static_cast<uint32_t>(links_.size());
  links_.push_back({sphere, kEnd});
  const size_t mask = chains_.size() - 1;
  for (size_t i = home(key);; i = (i + 1) & mask) {
    Chain& c = chains_[i];
    if (c.key == key) {
      links_[c.last].next = at;
      c.last = at;
      return;
    }
    if (c.key == kEmpty) {
      c = {key, at, at};
      usedChains_.push_back(static_cast<uint32_t>(i));
      return;
    }
  }
}

void InsertionGrid::CellBatch::growChains() {
  std::vector<Chain> old;
  old.swap(chains_);
  const size_t size = old.empty() ? 1024 : 2 * old.size();
  chains_.assign(size, Chain{kEmpty, kEnd, kEnd});
  chainShift_ = 64 - std::countr_zero(size);
  const size_t mask = size - 1;
  usedChains_.clear();
  for (const Chain& c : old) {
    if (c.key == kEmpty) continue;
    size_t i = home(c.key);
    while (chains_[i].key != kEmpty) i = (i + 1) & mask;
    chains_[i] = c;
    usedChains_.push_back(static_cast<uint32_t>(i));
  }
}

bool InsertionGrid::CellBatch::reaches(const Vector& p) const {
  if (links_.empty()) return false;
  struct Sink {
    bool reached = false;
    void add(IrradSample* s, float d2) { reached = reached || d2 < currentValidRadius2(*s); }
  } sink;
  forEachKey(levels_, p, [&](uint64_t key) { scanCell(key, p, sink); });
  return sink.reached;
}

void InsertionGrid::CellBatch::clear() {
  spheres_.clear();
  for (std::vector<Cell>& cells : cells_) cells.clear();
  for (uint32_t i : usedChains_) chains_[i] = {kEmpty, kEnd, kEnd};
  usedChains_.clear();
  links_.clear();
  levels_ = {{0, 0}};
}

void InsertionGrid::Unlisted::add(const Sphere& sphere, const Box& box) {
  const uint32_t i = count_++;
  SphereGroup& g = groups_[i / 4];
  g.x[i % 4] = sphere.x;
  g.y[i % 4] = sphere.y;
  g.z[i % 4] = sphere.z;
  g.r[i % 4] = sphere.r;
  samples_[i] = sphere.sample;
  levels_[i] = static_cast<uint8_t>(box.level - kMinLevel);
  spheres_[i] = sphere;
  uint32_t n = cellCount_;
  forEachCellOfBox(box.lo, box.hi, box.level,
                   [&](uint64_t key) { cells_[n++] = {key, &spheres_[i], Shard::kNowhere}; });
  cellCount_ = n;
}

void InsertionGrid::CellFilter::clear() {
  for (uint32_t w : used_) bits_[w] = 0;
  used_.clear();
  levels_ = {{0, 0}};
  everywhere_ = false;
}

void InsertionGrid::CellFilter::add(const Sphere& s) {
  double lo[3], hi[3];
  int k = 0;
  if (!std::isfinite(s.x) || !std::isfinite(s.y) || !std::isfinite(s.z) ||
      !(s.r > 0.0f && std::isfinite(s.r)) || !boxOf(s, lo, hi, k)) {
    everywhere_ = true;
    return;
  }
  addLevel(k);
  forEachCellOfBox(lo, hi, k, [&](uint64_t key) { addCell(key); });
}

}  // namespace LUtils
