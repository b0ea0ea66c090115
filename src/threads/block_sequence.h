// Block storage: a growing sequence of elements kept in fixed-size blocks that are never moved, so
// the address of an element stays valid for the life of the sequence. Maps keep their samples here
// and the spatial indexes point into it; the thread manager keeps its worker records here.
//
// A sequence that outgrows its first block is a large one, and every block after the first will
// be filled: those blocks are mapped as they are allocated (threads/prefault.h). The first is
// not, so that the many small sequences pay only for the pages they touch.
//
// The first block comes from the heap. The blocks after it, where blocks are large, come from
// regions of several blocks mapped together, in huge pages where those are the cheaper to map
// (hugePagesPay()); a region is unmapped once its last block is dropped. Which pages pay differs
// between machines in opposite directions. On a virtual machine that hands free memory back to
// its host, a fresh huge page cost several times what its small pages do (4-5 ms against about 1
// ms per 2 MB): a map of ten million samples took 0.5-1.0 s to load in huge pages against 0.25 s
// in small ones. On one whose host backs memory lazily, a fresh small page cost 13-19 us and a
// fresh huge page 0.13 ms, fifty times less per byte, and huge pages cut a first incremental
// merge of 3M samples by a quarter to a third. A region's tail past its last whole huge page is
// in small pages, and its pages are mapped block by block as the sequence grows, so a sequence
// holds at most part of one huge page more than its blocks.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "threads/prefault.h"
#include "threads/spinning_mutex.h"

namespace LUtils {

// Prints the storage's allocation-failure message on the console.
inline void reportBlockAllocationFailure() {
  std::fputs("[_SequenceBlock] Could not allocate memory\n", stdout);
  std::fflush(stdout);
}

template <class T>
class BlockSequence {
 public:
  explicit BlockSequence(uint32_t elementsPerBlock = 20000)
      : perBlock_(elementsPerBlock ? elementsPerBlock : 1) {}
  ~BlockSequence() { clear(); }
  BlockSequence(const BlockSequence&) = delete;
  BlockSequence& operator=(const BlockSequence&) = delete;

  // Appends one value-initialised element and returns it, or null (after printing the storage's
  // message) when a new block cannot be allocated. Not synchronised: callers that share the
  // sequence between threads hold lock() around it.
  T* append() {
    T* slot = nextSlot();
    return slot ? new (slot) T() : nullptr;
  }
  T* append(const T& value) {
    T* slot = nextSlot();
    return slot ? new (slot) T(value) : nullptr;
  }

  // Appends n elements left unwritten, for a reader that fills whole blocks in place (elements
  // of trivial types only). Their blocks are not mapped ahead. False, with nothing appended and
  // nothing printed, when a block cannot be allocated.
  bool appendUnwritten(size_t n) {
    static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);
    const size_t before = count_;
    const size_t need = (count_ + n + perBlock_ - 1) / perBlock_;
    try {
      while (blocks_.size() < need) {
        if (!addBlock()) throw std::bad_alloc();
      }
    } catch (const std::bad_alloc&) {
      truncate(before);
      return false;
    }
    count_ += n;
    return true;
  }

  // Drops the elements from index n on (n <= size()) and frees the blocks left empty; elements
  // of trivial types only.
  void truncate(size_t n) {
    static_assert(std::is_trivially_destructible_v<T>);
    freeBlocksFrom((n + perBlock_ - 1) / perBlock_);
    if (n < count_) count_ = n;
  }

  size_t size() const { return count_; }
  bool empty() const { return count_ == 0; }
  uint32_t elementsPerBlock() const { return perBlock_; }

  T& operator[](size_t i) { return blocks_[i / perBlock_][i % perBlock_]; }
  const T& operator[](size_t i) const { return blocks_[i / perBlock_][i % perBlock_]; }

  // Blocks in order; every block but the last is full.
  size_t blockCount() const { return blocks_.size(); }
  T* block(size_t b) { return blocks_[b]; }
  const T* block(size_t b) const { return blocks_[b]; }
  size_t blockLength(size_t b) const {
    return b + 1 < blocks_.size() ? perBlock_ : count_ - b * size_t{perBlock_};
  }

  // Calls f(element) for the elements from index `first` on, in order, until f returns false.
  // Returns the number of elements for which f was called.
  template <class F>
  size_t forEach(size_t first, F&& f) {
    size_t visited = 0;
    for (size_t b = first / perBlock_; b < blocks_.size(); ++b) {
      T* data = blocks_[b];
      const size_t n = blockLength(b);
      for (size_t i = (b == first / perBlock_ ? first % perBlock_ : 0); i < n; ++i) {
        ++visited;
        if (!f(data[i])) return visited;
      }
    }
    return visited;
  }

  // Destroys every element and frees every block.
  void clear() {
    if constexpr (!std::is_trivially_destructible_v<T>) {
      for (size_t b = 0; b < blocks_.size(); ++b) {
        const size_t n = blockLength(b);
        for (size_t i = 0; i < n; ++i) blocks_[b][i].~T();
      }
    }
    freeBlocksFrom(0);
    count_ = 0;
  }

  SpinningMutex& lock() { return lock_; }

 private:
  size_t blockBytes() const { return sizeof(T) * size_t{perBlock_}; }

  // Blocks from this size up, after the first, come from regions.
  static constexpr size_t kRegionBlockMinimum = size_t{256} << 10;
  static constexpr size_t kRegionTarget = size_t{16} << 20;
  bool inRegion(size_t b) const { return b > 0 && blockBytes() >= kRegionBlockMinimum; }
  size_t blocksPerRegion() const { return std::max<size_t>(1, kRegionTarget / blockBytes()); }
  size_t regionBytes() const { return blocksPerRegion() * blockBytes(); }

  // Appends the next block: false, with nothing appended, when no memory can be had.
  bool addBlock() {
    const size_t b = blocks_.size();
    if (!inRegion(b)) {
      void* mem = std::malloc(blockBytes());
      if (!mem) return false;
      try {
        blocks_.push_back(static_cast<T*>(mem));
      } catch (const std::bad_alloc&) {
        std::free(mem);
        return false;
      }
      return true;
    }
    const size_t r = (b - 1) / blocksPerRegion();
    if (r == regions_.size()) {
      void* region = mapLarge(regionBytes(), hugePagesPay());
      if (!region) return false;
      try {
        regions_.push_back(static_cast<T*>(region));
      } catch (const std::bad_alloc&) {
        unmapLarge(region, regionBytes());
        return false;
      }
    }
    try {
      blocks_.push_back(regions_[r] + (b - 1) % blocksPerRegion() * size_t{perBlock_});
    } catch (const std::bad_alloc&) {
      freeBlocksFrom(b);  // the region just mapped, if any
      return false;
    }
    return true;
  }
  // Frees the blocks from the `keep`-th on, and the regions that held only those.
  void freeBlocksFrom(size_t keep) {
    for (size_t b = keep; b < blocks_.size(); ++b) {
      if (!inRegion(b)) std::free(blocks_[b]);
    }
    if (keep < blocks_.size()) blocks_.resize(keep);
    const size_t regionsKept = keep < 2 ? 0 : (keep - 2) / blocksPerRegion() + 1;
    for (size_t r = regionsKept; r < regions_.size(); ++r) unmapLarge(regions_[r], regionBytes());
    if (regionsKept < regions_.size()) regions_.resize(regionsKept);
  }

  T* nextSlot() {
    const size_t inBlock = count_ % perBlock_;
    if (inBlock == 0 && count_ / perBlock_ == blocks_.size()) {
      if (!addBlock()) {
        reportBlockAllocationFailure();
        return nullptr;
      }
      if (blocks_.size() > 1) prefaultForWriting(blocks_.back(), blockBytes());
    }
    T* slot = blocks_[count_ / perBlock_] + inBlock;
    ++count_;
    return slot;
  }

  uint32_t perBlock_;
  size_t count_ = 0;
  std::vector<T*> blocks_;
  std::vector<T*> regions_;  // each holds blocksPerRegion() blocks, from block 1 on
  SpinningMutex lock_;
};

}  // namespace LUtils
