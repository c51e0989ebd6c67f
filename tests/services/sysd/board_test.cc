#include "services/sysd/board.h"

#include <gtest/gtest.h>

#include "tests/services/sysd/fake_source.h"

namespace sysd {
namespace {

using namespace std::chrono_literals;

const tn::Clock::time_point start = tn::Clock::time_point() + 1000h;

TEST(Board, ReadsWhatIsOldAgain) {
  FakeSource source;
  Board board(source);
  (void)board.get(Object::memory, start, 200ms);
  (void)board.get(Object::memory, start + 200ms, 200ms);
  EXPECT_EQ(source.readsOf(Object::memory), 1U);
  (void)board.get(Object::memory, start + 201ms, 200ms);
  EXPECT_EQ(source.readsOf(Object::memory), 2U);
  EXPECT_EQ(source.readsOf(Object::system), 0U);
}

TEST(Board, NumbersObjectsAndCountsTheirChanges) {
  FakeSource source;
  Board board(source);
  EXPECT_EQ(board.get(Object::memory, start, 0ms).object.get(tn::field::objectNumber), 2U);
  EXPECT_EQ(board.get(Object::memory, start + 1s, 0ms).revision, 1U);
  source.figure(Object::memory) = 5;
  const Board::Entry& changed = board.get(Object::memory, start + 2s, 0ms);
  EXPECT_EQ(changed.revision, 2U);
  EXPECT_EQ(changed.object.get(tn::u32_id(1)), 5U);
}

}  // namespace
}  // namespace sysd
