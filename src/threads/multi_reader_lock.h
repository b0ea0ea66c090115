// A read/write lock for data that many threads read and some fill at once (an irradiance map
// being merged into while it is drawn). Each thread index has its own cache-line-wide slot, so
// readers on different threads never share a lock or a cache line.
#pragma once

#include <atomic>
#include <cassert>
#include <cstdint>
#include <memory>

#include "threads/spinning_mutex.h"

namespace LUtils {

// Every operation takes the caller's thread index, below the slot count given at construction;
// a thread must always use the same index, and no two threads may use the same one at once.
//
// - A thread that holds read locks may take the write lock with the same index (its own reads
//   do not hold it up); write-unlocking gives the read locks back.
// - Write locks by the same index nest and only count up; each needs its write unlock.
// - A read lock taken while holding the write lock survives the write unlock (a downgrade).
class MultiReaderLock {
 public:
  explicit MultiReaderLock(uint32_t threadSlots);
  MultiReaderLock(const MultiReaderLock&) = delete;
  MultiReaderLock& operator=(const MultiReaderLock&) = delete;

  // The read side is inline: it is taken once per lookup on the hot paths.
  void readLock(uint32_t thread) {
    Slot& own = slot(thread);
    own.mutex.lock();
    ++own.readers;
    own.mutex.unlock();
  }
  void readUnlock(uint32_t thread) {
    Slot& own = slot(thread);
    own.mutex.lock();
    --own.readers;
    own.mutex.unlock();
  }
  void writeLock(uint32_t thread);
  void writeUnlock(uint32_t thread);

  uint32_t threadSlots() const { return slotCount_; }

 private:
  static constexpr uint32_t kNoOwner = 0xFFFFFFFFu;

  struct alignas(64) Slot {
    SpinningMutex mutex;
    int32_t readers = 0;
    int32_t savedReaders = 0;  // the writer's own read locks, given back at write unlock
  };
  static_assert(sizeof(Slot) == 64, "one thread slot per cache line");

  Slot& slot(uint32_t thread) {
    assert(thread < slotCount_ && "thread index beyond the lock's slots");
    return slots_[thread];
  }

  SpinningMutex master_;
  int32_t recursion_ = 0;                 // written only by the owner
  std::atomic<uint32_t> owner_{kNoOwner}; // the writing thread's index
  uint32_t slotCount_;
  std::unique_ptr<Slot[]> slots_;
};

}  // namespace LUtils
