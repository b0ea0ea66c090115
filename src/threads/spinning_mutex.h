// A mutex entered by spinning before it blocks: up to 1500 tries in a row, then up to 1500 tries
// that yield the processor after each failure, then a blocking lock. Every lock of the thread code
// and of the block storage is entered this way.
#pragma once

#include <mutex>
#include <thread>

namespace LUtils {

class SpinningMutex {
 public:
  static constexpr int kSpinTries = 1500;
  static constexpr int kYieldTries = 1500;

  void lock() {
    for (int i = 0; i < kSpinTries; ++i) {
      if (mutex_.try_lock()) return;
    }
    for (int i = 0; i < kYieldTries; ++i) {
      if (mutex_.try_lock()) return;
      std::this_thread::yield();
    }
    mutex_.lock();
  }
  bool try_lock() { return mutex_.try_lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

}  // namespace LUtils
