#include "services/userd/tally.h"

#include <gtest/gtest.h>

#include "platform/byte_order.h"

namespace userd {
namespace {

using namespace std::chrono_literals;

const tn::Clock::time_point start = tn::Clock::time_point() + 1000h;

// Keys with the same `place` stand in the same places.
TallyKey key(std::uint64_t place, std::uint64_t which = 0) {
  TallyKey key{};
  storeLe64(key.data(), place);
  storeLe64(key.data() + 8, which + 1);
  return key;
}

TEST(Tally, CountsByKey) {
  Tally tally(64, 10s, 100);
  tally.add(key(1), start);
  tally.add(key(1), start);
  tally.add(key(2), start);
  EXPECT_EQ(tally.count(key(1), start), 2U);
  EXPECT_EQ(tally.count(key(2), start), 1U);
  EXPECT_EQ(tally.count(key(3), start), 0U);
}

TEST(Tally, ForgetsOneAfterTheOther) {
  Tally tally(64, 10s, 100);
  for (int i = 0; i < 3; ++i)
    tally.add(key(1), start);
  EXPECT_EQ(tally.count(key(1), start + 9999ms), 3U);
  EXPECT_EQ(tally.count(key(1), start + 10s), 2U);
  EXPECT_EQ(tally.count(key(1), start + 29999ms), 1U);
  EXPECT_EQ(tally.count(key(1), start + 30s), 0U);
  tally.add(key(1), start + 60s);
  EXPECT_EQ(tally.count(key(1), start + 60s), 1U);
}

TEST(Tally, CountsNoMoreThanItsMost) {
  Tally tally(64, 10s, 5);
  for (int i = 0; i < 100; ++i)
    tally.add(key(1), start);
  EXPECT_EQ(tally.count(key(1), start), 5U);
  EXPECT_EQ(tally.count(key(1), start + 50s), 0U);
}

TEST(Tally, TakesBack) {
  Tally tally(64, 10s, 100);
  tally.add(key(1), start);
  tally.add(key(1), start);
  tally.takeBack(key(1), start);
  EXPECT_EQ(tally.count(key(1), start), 1U);
  tally.takeBack(key(1), start);
  tally.takeBack(key(1), start);
  tally.takeBack(key(2), start);
  EXPECT_EQ(tally.count(key(1), start), 0U);
  tally.add(key(1), start);
  EXPECT_EQ(tally.count(key(1), start), 1U);
}

TEST(Tally, KeepsWhatCountsMostWhenThereIsNoRoom) {
  Tally tally(8 * Tally::ways, 10s, 100);
  for (int i = 0; i < 5; ++i)
    tally.add(key(0, 0), start);
  for (std::uint64_t stranger = 1; stranger < 10'000; ++stranger)
    tally.add(key(0, stranger), start);
  EXPECT_EQ(tally.count(key(0, 0), start), 5U);
  EXPECT_EQ(tally.count(key(0, 9'999), start), 1U);
  EXPECT_EQ(tally.count(key(0, 1), start), 0U);
}

TEST(Tally, KeepsAMarkWithACount) {
  Tally tally(Tally::ways, 10s, 100);
  tally.setMark(key(1), start);
  EXPECT_EQ(tally.mark(key(1)), tn::Clock::time_point());
  tally.add(key(1), start);
  tally.setMark(key(1), start + 4s);
  EXPECT_EQ(tally.mark(key(1)), start + 4s);
}

}  // namespace
}  // namespace userd
