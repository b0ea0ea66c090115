#include "threads/multi_reader_lock.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <random>
#include <thread>
#include <vector>

#include "threads/test_waits.h"

namespace LUtils {
namespace {

using LUtils::testing::runBounded;
using LUtils::testing::waitUntil;
using std::chrono::milliseconds;

// Starts a thread that takes a lock and reports when it holds it; a short look confirms it is
// still kept out.
class Contender {
 public:
  template <class F>
  explicit Contender(F acquire) : thread_([this, acquire] {
      acquire();
      inside_.store(true);
    }) {}
  ~Contender() {
    if (thread_.joinable()) thread_.join();
  }
  bool keptOut() {
    std::this_thread::sleep_for(milliseconds(50));
    return !inside_.load();
  }
  bool gotIn() {
    const bool in = waitUntil([&] { return inside_.load(); });
    if (in) thread_.join();
    return in;
  }

 private:
  std::atomic<bool> inside_{false};
  std::thread thread_;
};

TEST(MultiReaderLock, SlotsAreOneCacheLineApart) {
  MultiReaderLock lock(3);
  EXPECT_EQ(lock.threadSlots(), 3u);
  EXPECT_EQ(MultiReaderLock(0).threadSlots(), 1u);
}

TEST(MultiReaderLock, ReadersHoldTheLockTogether) {
  constexpr uint32_t kThreads = 4;
  MultiReaderLock lock(kThreads);
  std::atomic<uint32_t> inside{0};
  std::atomic<uint32_t> sawEveryone{0};
  runBounded("concurrent readers", [&] {
    std::vector<std::thread> readers;
    for (uint32_t t = 0; t < kThreads; ++t) {
      readers.emplace_back([&, t] {
        lock.readLock(t);
        inside.fetch_add(1);
        if (waitUntil([&] { return inside.load() == kThreads; })) sawEveryone.fetch_add(1);
        lock.readUnlock(t);
      });
    }
    for (auto& r : readers) r.join();
  });
  EXPECT_EQ(sawEveryone.load(), kThreads);
}

TEST(MultiReaderLock, AWriterWaitsForReadersAndKeepsEveryoneOut) {
  MultiReaderLock lock(3);
  lock.readLock(1);
  {
    Contender writer([&] { lock.writeLock(0); });
    EXPECT_TRUE(writer.keptOut());
    lock.readUnlock(1);
    ASSERT_TRUE(writer.gotIn());
  }
  {
    Contender reader([&] { lock.readLock(2); });
    Contender otherWriter([&] { lock.writeLock(1); });
    EXPECT_TRUE(reader.keptOut());
    EXPECT_TRUE(otherWriter.keptOut());
    lock.writeUnlock(0);
    ASSERT_TRUE(reader.gotIn());
    lock.readUnlock(2);
    ASSERT_TRUE(otherWriter.gotIn());
  }
  lock.writeUnlock(1);
  runBounded("lock after use", [&] {
    lock.writeLock(2);
    lock.writeUnlock(2);
  });
}

TEST(MultiReaderLock, AReaderUpgradesAndNestedWritesCountUp) {
  MultiReaderLock lock(2);
  runBounded("upgrade", [&] {
    lock.readLock(0);
    lock.readLock(0);
    lock.writeLock(0);  // own reads do not hold the writer up
    lock.writeLock(0);
  });
  {
    Contender reader([&] { lock.readLock(1); });
    lock.writeUnlock(0);
    EXPECT_TRUE(reader.keptOut()) << "the inner write unlock released the lock";
    lock.writeUnlock(0);
    ASSERT_TRUE(reader.gotIn());
    lock.readUnlock(1);
  }
  {
    // The two read locks are back: a writer waits for both of them.
    Contender writer([&] { lock.writeLock(1); });
    lock.readUnlock(0);
    EXPECT_TRUE(writer.keptOut());
    lock.readUnlock(0);
    ASSERT_TRUE(writer.gotIn());
  }
  lock.writeUnlock(1);
}

TEST(MultiReaderLock, AReadTakenUnderTheWriteLockOutlivesIt) {
  MultiReaderLock lock(2);
  lock.writeLock(0);
  lock.readLock(0);
  lock.writeUnlock(0);
  Contender writer([&] { lock.writeLock(1); });
  EXPECT_TRUE(writer.keptOut());
  lock.readUnlock(0);
  ASSERT_TRUE(writer.gotIn());
  lock.writeUnlock(1);
}

TEST(MultiReaderLock, TwoReadersUpgradingAtOnceDoNotDeadlock) {
  MultiReaderLock lock(2);
  int shared = 0;
  runBounded("simultaneous upgrades", [&] {
    std::atomic<int> reading{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 2; ++t) {
      threads.emplace_back([&, t] {
        for (int i = 0; i < 200; ++i) {
          lock.readLock(t);
          reading.fetch_add(1);
          waitUntil([&] { return reading.load() >= 2; }, milliseconds(5));
          lock.writeLock(t);
          ++shared;
          lock.writeUnlock(t);
          reading.fetch_sub(1);
          lock.readUnlock(t);
        }
      });
    }
    for (auto& th : threads) th.join();
  });
  EXPECT_EQ(shared, 400);
}

// Mixed readers, writers, upgrades and nested writes. Writers rewrite a plain array so that a
// torn write is visible to readers; the counters check that a writer is alone and that readers
// never overlap one.
TEST(MultiReaderLock, StressKeepsWritersExclusive) {
  constexpr uint32_t kThreads = 4;
  constexpr int kOpsPerThread = 20000;
  MultiReaderLock lock(kThreads);
  std::array<int64_t, 16> data{};
  int64_t writes = 0;  // guarded by the write lock
  std::atomic<int> readers{0};
  std::atomic<int> writers{0};
  std::atomic<int> violations{0};
  std::atomic<int> tornReads{0};

  auto checkRead = [&] {
    readers.fetch_add(1);
    if (writers.load() != 0) violations.fetch_add(1);
    for (int64_t v : data) {
      if (v != data[0]) tornReads.fetch_add(1);
    }
    readers.fetch_sub(1);
  };
  auto write = [&] {
    if (writers.fetch_add(1) != 0 || readers.load() != 0) violations.fetch_add(1);
    for (int64_t& v : data) ++v;
    ++writes;
    writers.fetch_sub(1);
  };

  runBounded("lock stress", [&] {
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        std::minstd_rand random(t + 1);
        for (int i = 0; i < kOpsPerThread; ++i) {
          switch (random() % 8) {
            case 0:  // plain write
              lock.writeLock(t);
              write();
              lock.writeUnlock(t);
              break;
            case 1:  // read, upgrade, back to read
              lock.readLock(t);
              checkRead();
              lock.writeLock(t);
              write();
              lock.writeUnlock(t);
              checkRead();
              lock.readUnlock(t);
              break;
            case 2:  // nested write
              lock.writeLock(t);
              write();
              lock.writeLock(t);
              write();
              lock.writeUnlock(t);
              write();
              lock.writeUnlock(t);
              break;
            default:
              lock.readLock(t);
              checkRead();
              lock.readUnlock(t);
              break;
          }
        }
      });
    }
    for (auto& th : threads) th.join();
  });
  EXPECT_EQ(violations.load(), 0);
  EXPECT_EQ(tornReads.load(), 0);
  EXPECT_GT(writes, 0);
  for (int64_t v : data) EXPECT_EQ(v, writes);
}

}  // namespace
}  // namespace LUtils
