#include "threads/multi_reader_lock.h"

#include <mutex>
#include <thread>

namespace LUtils {

MultiReaderLock::MultiReaderLock(uint32_t threadSlots)
    : slotCount_(threadSlots ? threadSlots : 1), slots_(new Slot[slotCount_]) {}

void MultiReaderLock::writeLock(uint32_t thread) {
  // Only this thread ever stores its own index as the owner, so the test needs no lock.
  if (owner_.load(std::memory_order_relaxed) == thread) {
    ++recursion_;
    return;
  }
  Slot& own = slot(thread);
  int32_t ownReaders;
  {
    // Drop our own read locks before waiting for the master: two readers upgrading at once
    // would otherwise each wait for the other's reads forever.
    std::lock_guard<SpinningMutex> guard(own.mutex);
    ownReaders = own.readers;
    own.readers = 0;
  }
  master_.lock();
  own.savedReaders = ownReaders;
  for (uint32_t i = 0; i < slotCount_; ++i) {
    if (i == thread) continue;
    Slot& other = slots_[i];
    other.mutex.lock();
    while (other.readers != 0) {
      other.mutex.unlock();
      std::this_thread::yield();
      other.mutex.lock();
    }
  }
  recursion_ = 1;
  owner_.store(thread, std::memory_order_relaxed);
}

void MultiReaderLock::writeUnlock(uint32_t thread) {
  assert(owner_.load(std::memory_order_relaxed) == thread && "write unlock without the lock");
  if (--recursion_ > 0) return;
  owner_.store(kNoOwner, std::memory_order_relaxed);
  Slot& own = slot(thread);
  {
    std::lock_guard<SpinningMutex> guard(own.mutex);
    own.readers += own.savedReaders;
    own.savedReaders = 0;
  }
  for (uint32_t i = 0; i < slotCount_; ++i) {
    if (i != thread) slots_[i].mutex.unlock();
  }
  master_.unlock();
}

}  // namespace LUtils
