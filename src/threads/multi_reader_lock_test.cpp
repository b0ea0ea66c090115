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

TEST(MultiReaderLock, AWriterWaitsForEveryReaderAndKeepsEveryoneOut) {
  MultiReaderLock lock(3);
  runBounded("readers and writers", [&] {
    Contender firstReader = reader(lock, 1), secondReader = reader(lock, 2);
    ASSERT_TRUE(firstReader.gotIn() && secondReader.gotIn()) << "readers held each other out";
    Contender first = writer(lock, 0);
    EXPECT_TRUE(first.keptOut());
    firstReader.letGo();
    EXPECT_TRUE(first.keptOut());
    secondReader.letGo();
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
    lock.writeLock(2);
    lock.writeUnlock(2);
  });
}

TEST(MultiReaderLock, UpgradesNestedWritesAndDowngradesGiveEveryReadBack) {
  MultiReaderLock lock(2);
  runBounded("upgrade", [&] {
    lock.readLock(0);
    lock.readLock(0);
    lock.writeLock(0);  // own reads do not hold the writer up
    lock.writeLock(0);
    lock.readLock(0);  // taken under the write lock: it outlives it
    Contender other = reader(lock, 1);
    lock.writeUnlock(0);
    EXPECT_TRUE(other.keptOut()) << "the inner write unlock released the lock";
    lock.writeUnlock(0);
    EXPECT_TRUE(other.gotIn());
    other.letGo();

    // The two reads from before the upgrade and the one taken under it are held: a writer
    // waits for all three.
    Contender otherWriter = writer(lock, 1);
    for (int held = 3; held > 0; --held) {
      EXPECT_TRUE(otherWriter.keptOut()) << held << " reads held";
      lock.readUnlock(0);
    }
    EXPECT_TRUE(otherWriter.gotIn());
  });
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
