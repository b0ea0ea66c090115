#include "threads/block_sequence.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
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
// again after each.
TEST(BlockSequence, ReadBlocksTruncateAndGrowAgain) {
  const uint32_t per = 70000;
  BlockSequence<uint64_t> seq(per);
  for (int round = 0; round < 2; ++round) {
    for (uint64_t i = 0; i < per + 10; ++i) ASSERT_NE(seq.append(i * 7), nullptr);
    ASSERT_TRUE(seq.appendUnwritten(per));  // a reader's whole third block
    ASSERT_EQ(seq.blockCount(), 3u);
    for (size_t i = per + 10; i < seq.size(); ++i) seq[i] = i * 7;
    for (size_t i : {size_t{0}, size_t{per} - 1, size_t{per}, seq.size() - 1}) {
      EXPECT_EQ(seq[i], i * 7);
    }
    seq.truncate(5);  // frees the last two blocks
    EXPECT_EQ(seq.blockCount(), 1u);
    for (uint64_t i = 5; i < 2 * per; ++i) ASSERT_NE(seq.append(i * 7), nullptr);
    EXPECT_EQ(seq[2 * per - 1], (2 * per - 1) * 7);
    if (round == 0) seq.clear();
  }
}

}  // namespace
}  // namespace LUtils
