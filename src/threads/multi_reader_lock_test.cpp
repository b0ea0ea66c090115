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

// A thread that takes a lock, reports when it holds it, and gives it back (on the same thread,
// as a lock that holds mutexes requires) when told to. A short look confirms that it is still
// kept out.
class Contender {
 public:
  template <class Acquire, class Release>
  Contender(Acquire acquire, Release release)
      : thread_([this, acquire, release] {
          acquire();
          inside_.store(true);
          waitUntil([&] { return letGo_.load(); });
          release();
        }) {}
  ~Contender() { letGo(); }
  bool keptOut() {
    std::this_thread::sleep_for(milliseconds(50));
    return !inside_.load();
  }
  bool gotIn() { return waitUntil([&] { return inside_.load(); }); }
  void letGo() {
    letGo_.store(true);
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> inside_{false};
  std::atomic<bool> letGo_{false};
  std::thread thread_;
};

Contender reader(MultiReaderLock& lock, uint32_t t) {
  return Contender([&lock, t] { lock.readLock(t); }, [&lock, t] { lock.readUnlock(t); });
}
Contender writer(MultiReaderLock& lock, uint32_t t) {
  return Contender([&lock, t] { lock.writeLock(t); }, [&lock, t] { lock.writeUnlock(t); });
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
  Contender first = writer(lock, 0);
  EXPECT_TRUE(first.keptOut());
  lock.readUnlock(1);
  ASSERT_TRUE(first.gotIn());

  Contender blockedReader = reader(lock, 2);
  EXPECT_TRUE(blockedReader.keptOut());
  first.letGo();
  ASSERT_TRUE(blockedReader.gotIn());

  Contender second = writer(lock, 1);
  EXPECT_TRUE(second.keptOut());
  blockedReader.letGo();
  ASSERT_TRUE(second.gotIn());

  Contender third = writer(lock, 0);
  EXPECT_TRUE(third.keptOut());
  second.letGo();
  ASSERT_TRUE(third.gotIn());
  third.letGo();
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
    Contender other = reader(lock, 1);
    lock.writeUnlock(0);
    EXPECT_TRUE(other.keptOut()) << "the inner write unlock released the lock";
    lock.writeUnlock(0);
    EXPECT_TRUE(other.gotIn());
    other.letGo();

    // The two read locks are back: a writer waits for both of them.
    Contender otherWriter = writer(lock, 1);
    lock.readUnlock(0);
    EXPECT_TRUE(otherWriter.keptOut());
    lock.readUnlock(0);
    EXPECT_TRUE(otherWriter.gotIn());
  });
}

TEST(MultiReaderLock, AReadTakenUnderTheWriteLockOutlivesIt) {
  MultiReaderLock lock(2);
  lock.writeLock(0);
  lock.readLock(0);
  lock.writeUnlock(0);
  Contender other = writer(lock, 1);
  EXPECT_TRUE(other.keptOut());
  lock.readUnlock(0);
  EXPECT_TRUE(other.gotIn());
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

  auto checkRead = [&] {
    readers.fetch_add(1);
    if (writers.load() != 0) violations.fetch_add(1);
    const int64_t first = data[0];
    std::this_thread::yield();  // widen the window in which a wrongly admitted writer shows up
    for (int64_t v : data) {
      if (v != first) violations.fetch_add(1);  // a torn write
    }
    if (writers.load() != 0) violations.fetch_add(1);
    readers.fetch_sub(1);
  };
  auto write = [&] {
    if (writers.fetch_add(1) != 0 || readers.load() != 0) violations.fetch_add(1);
    for (size_t i = 0; i < data.size(); ++i) {
      ++data[i];
      if (i == data.size() / 2) std::this_thread::yield();
    }
    ++writes;
    if (readers.load() != 0) violations.fetch_add(1);
    writers.fetch_sub(1);
  };

  runBounded("lock stress", [&] {
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        std::minstd_rand random(t + 1);
        for (int i = 0; i < kOpsPerThread; ++i) {
          switch (random() % 6) {
            case 0:  // read, upgrade, back to read
              lock.readLock(t);
              checkRead();
              lock.writeLock(t);
              write();
              lock.writeUnlock(t);
              checkRead();
              lock.readUnlock(t);
              break;
            case 1:  // nested write
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
  EXPECT_GT(writes, 0);
  for (int64_t v : data) EXPECT_EQ(v, writes);
}

}  // namespace
}  // namespace LUtils
