#include "platform/bus/allocator.h"

#include <gtest/gtest.h>
#include <random>
#include <set>
#include <vector>

namespace {

using tn::Allocator;

TEST(Allocator, CountsUpAndTellsWhenAllAreInUse) {
  Allocator ids(5, 8);
  for (const std::uint32_t expected : {5U, 6U, 7U, 8U})
    EXPECT_EQ(ids.allocate(), expected);
  EXPECT_EQ(ids.allocate(), std::nullopt);
  EXPECT_EQ(ids.allocate(), std::nullopt);
}

TEST(Allocator, DoesNotGiveAReleasedNumberAtOnce) {
  Allocator ids(1, 4);
  for (int round = 0; round < 3; ++round) {
    for (const std::uint32_t expected : {1U, 2U, 3U, 4U}) {
      const auto id = ids.allocate();
      ASSERT_EQ(id, expected);
      ids.release(*id);
    }
  }
}

TEST(Allocator, FindsTheOneFreeNumber) {
  Allocator ids(1, 100);
  for (int i = 0; i < 100; ++i)
    ASSERT_TRUE(ids.allocate());
  for (const std::uint32_t free : {50U, 49U, 1U, 100U, 100U, 1U, 2U}) {
    ids.release(free);
    EXPECT_EQ(ids.allocate(), free);
    EXPECT_EQ(ids.allocate(), std::nullopt);
  }
}

TEST(Allocator, LeavesNumbersAloneThatAreNotInUse) {
  Allocator ids(10, 12);
  ids.release(0);
  ids.release(10);
  ids.release(0xffffffff);
  EXPECT_EQ(ids.allocate(), 10U);
  ids.release(11);
  EXPECT_EQ(ids.allocate(), 11U);
  ids.release(10);
  ids.release(10);
  EXPECT_EQ(ids.allocate(), 12U);
  EXPECT_EQ(ids.allocate(), 10U);
  EXPECT_EQ(ids.allocate(), std::nullopt);
}

TEST(Allocator, KnowsRangesOfOneAndOfAll) {
  Allocator one(7, 7);
  EXPECT_EQ(one.allocate(), 7U);
  EXPECT_EQ(one.allocate(), std::nullopt);
  one.release(7);
  EXPECT_EQ(one.allocate(), 7U);

  Allocator all(0, 0xffffffff);
  EXPECT_EQ(all.allocate(), 0U);
  EXPECT_EQ(all.allocate(), 1U);
  all.release(0);
  EXPECT_EQ(all.allocate(), 2U);

  Allocator top(0xfffffffe, 0xffffffff);
  EXPECT_EQ(top.allocate(), 0xfffffffeU);
  EXPECT_EQ(top.allocate(), 0xffffffffU);
  EXPECT_EQ(top.allocate(), std::nullopt);
  top.release(0xffffffff);
  EXPECT_EQ(top.allocate(), 0xffffffffU);
  EXPECT_EQ(top.allocate(), std::nullopt);
}

TEST(Allocator, NeverGivesANumberTwiceInAnyOrderOfCalls) {
  std::mt19937 random(3);
  Allocator ids(1000, 1059);
  std::set<std::uint32_t> used;
  for (int step = 0; step < 50000; ++step) {
    // Phases that fill up and phases that empty.
    const bool grow = random() % 100 < ((step / 500) % 2 == 0 ? 70U : 30U);
    if (grow) {
      const auto id = ids.allocate();
      ASSERT_EQ(id.has_value(), used.size() < 60) << step;
      if (!id) continue;
      ASSERT_TRUE(*id >= 1000 && *id <= 1059) << *id;
      ASSERT_TRUE(used.insert(*id).second) << *id;
    } else {
      const auto id = static_cast<std::uint32_t>(990 + random() % 80);
      ids.release(id);
      used.erase(id);
    }
  }
}

// The reference: the first free number from `next` on, around the end.
TEST(Allocator, TakesTheNextFreeNumberBehindTheLastOne) {
  std::mt19937 random(4);
  Allocator ids(0, 15);
  std::vector<bool> used(16);
  std::uint32_t next = 0;
  for (int step = 0; step < 20000; ++step) {
    const auto drop = static_cast<std::uint32_t>(random() % 16);
    if (random() % 2 == 0) {
      ids.release(drop);
      used[drop] = false;
      continue;
    }
    std::optional<std::uint32_t> expected;
    for (std::uint32_t i = 0; i < 16 && !expected; ++i) {
      if (!used[(next + i) % 16]) expected = (next + i) % 16;
    }
    ASSERT_EQ(ids.allocate(), expected) << step;
    if (!expected) continue;
    used[*expected] = true;
    next = (*expected + 1) % 16;
  }
}

}  // namespace
