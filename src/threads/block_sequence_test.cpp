#include "threads/block_sequence.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace LUtils
