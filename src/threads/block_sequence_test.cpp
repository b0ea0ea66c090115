#include "threads/block_sequence.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace LUtils {
namespace {

TEST(BlockSequence, AddressesStayPutAndForEachWalksFromAnIndexAcrossBlocks) {
  BlockSequence<int> seq(4);
  std::vector<int*> addresses;
  for (int i = 0; i < 11; ++i) addresses.push_back(seq.append(i));
  EXPECT_EQ(seq.size(), 11u);
  EXPECT_EQ(seq.blockCount(), 3u);
  EXPECT_EQ(seq.blockLength(2), 3u);
  for (int i = 0; i < 11; ++i) {
    EXPECT_EQ(&seq[i], addresses[i]);
    EXPECT_EQ(*addresses[i], i);
  }

  std::vector<int> seen;
  EXPECT_EQ(seq.forEach(5, [&](int& v) { seen.push_back(v); return true; }), 6u);
  EXPECT_EQ(seen, (std::vector<int>{5, 6, 7, 8, 9, 10}));
  seen.clear();
  EXPECT_EQ(seq.forEach(2, [&](int& v) { seen.push_back(v); return v < 4; }), 3u);
  EXPECT_EQ(seen, (std::vector<int>{2, 3, 4}));
  EXPECT_EQ(seq.forEach(11, [](int&) { return true; }), 0u);
  EXPECT_EQ(seq.forEach(400, [](int&) { return true; }), 0u);
}

TEST(BlockSequence, EmptyAndCleared) {
  BlockSequence<std::string> seq(2);
  EXPECT_TRUE(seq.empty());
  EXPECT_EQ(seq.forEach(0, [](std::string&) { return true; }), 0u);
  for (const char* s : {"a", "b", "c"}) seq.append(s);
  seq.clear();
  EXPECT_EQ(seq.size(), 0u);
  EXPECT_EQ(seq.blockCount(), 0u);
  EXPECT_EQ(*seq.append("d"), "d");
  EXPECT_EQ(seq.size(), 1u);
}

// Blocks of 320 KB: the second and later are mapped as they are allocated, the first is not.
TEST(BlockSequence, LargeBlocksHoldTheirElementsThroughClearAndReuse) {
  BlockSequence<std::string> seq(10000);
  const auto text = [](int i) {
    return "a string too long to be kept inline " + std::to_string(i);
  };
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 25000; ++i) ASSERT_NE(seq.append(text(i)), nullptr);
    ASSERT_EQ(seq.blockCount(), 3u);
    for (int i : {0, 9999, 10000, 19999, 20000, 24999}) EXPECT_EQ(seq[i], text(i));
    seq.clear();  // destroys every string, in the mapped blocks too
    EXPECT_TRUE(seq.empty());
  }
}

// A reader's whole blocks, truncate() and clear() free what they took, and the sequence grows
// again after each. The blocks after the first lie in regions of 64 of these blocks, the second
// region from block 65 on: truncating into a region keeps it, and one left without blocks goes.
TEST(BlockSequence, ReadBlocksTruncateAndGrowAgainAcrossRegions) {
  if (const char* forced = std::getenv("CACHEVIEW_HUGE_PAGES")) {
    EXPECT_EQ(hugePagesPay(), std::string(forced) == "1");
  }
  const uint32_t per = 32768;  // 256 KB blocks
  BlockSequence<uint64_t> seq(per);
  const auto expectWritten = [&seq] {
    for (size_t i = 0; i < seq.size(); i += 4093) ASSERT_EQ(seq[i], i * 7) << i;
    ASSERT_EQ(seq[seq.size() - 1], (seq.size() - 1) * 7);
  };
  for (int round = 0; round < 2; ++round) {
    for (uint64_t i = 0; i < 70 * per + 10; ++i) ASSERT_NE(seq.append(i * 7), nullptr);
    ASSERT_TRUE(seq.appendUnwritten(per));  // a reader's whole last block
    ASSERT_EQ(seq.blockCount(), 72u);
    for (size_t i = 70 * per + 10; i < seq.size(); ++i) seq[i] = i * 7;
    expectWritten();
    seq.truncate(64 * per + 1);  // into the last block of the first region
    EXPECT_EQ(seq.blockCount(), 65u);
    expectWritten();
    seq.truncate(5);
    EXPECT_EQ(seq.blockCount(), 1u);
    for (uint64_t i = 5; i < 66 * per; ++i) ASSERT_NE(seq.append(i * 7), nullptr);
    expectWritten();
    if (round == 0) seq.clear();
  }
}

TEST(FreshArena, PiecesAreAlignedDisjointAndLastUntilReleased) {
  FreshArena arena;
  for (int round = 0; round < 2; ++round) {
    std::vector<std::pair<unsigned char*, size_t>> pieces;
    for (size_t bytes : {size_t{1}, size_t{100}, size_t{98320}, FreshArena::kRegionBytes + 5,
                         size_t{64}, size_t{1} << 20, size_t{1} << 20}) {
      auto* p = static_cast<unsigned char*>(arena.take(bytes));
      ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 64, 0u);
      std::memset(p, static_cast<int>(pieces.size() + 1), bytes);
      pieces.emplace_back(p, bytes);
    }
    for (size_t k = 0; k < pieces.size(); ++k) {
      const auto [p, bytes] = pieces[k];
      EXPECT_EQ(p[0], k + 1);
      EXPECT_EQ(p[bytes - 1], k + 1);
    }
    arena.release();
  }
}

}  // namespace
}  // namespace LUtils
