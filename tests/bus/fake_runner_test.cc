#include "tests/fakes/fake_runner.h"

#include <gtest/gtest.h>
#include <vector>

namespace tn {
namespace {

using fakes::FakeRunner;
using Operation = FakeRunner::Operation;

TEST(FakeRunnerTest, TellsASocketOfWhatItIsWatchedFor) {
  FakeRunner runner;
  std::vector<unsigned> told;
  EXPECT_TRUE(runner.addSocket(77, readable, [&](int, unsigned events) { told.push_back(events); }));
  EXPECT_FALSE(runner.addSocket(77, readable, [](int, unsigned) {}));
  EXPECT_TRUE(runner.ready(77, readable | writable));
  EXPECT_FALSE(runner.ready(77, writable));
  EXPECT_TRUE(runner.changeSocket(77, 0));
  EXPECT_FALSE(runner.ready(77, readable));
  EXPECT_TRUE(runner.ready(77, readable | hangUp));
  EXPECT_EQ(told, (std::vector<unsigned>{readable, hangUp}));
  EXPECT_EQ(runner.mask(77), 0U);
  EXPECT_EQ(runner.trigger(77), Trigger::level);
}

TEST(FakeRunnerTest, RecordsCallsAndTheirResults) {
  FakeRunner runner;
  EXPECT_FALSE(runner.changeSocket(-1, 0));
  EXPECT_TRUE(runner.addSocket(
      77, writable, [](int, unsigned) {}, Trigger::cached));
  runner.drained(77, writable);
  EXPECT_TRUE(runner.removeSocket(77));
  EXPECT_FALSE(runner.removeSocket(77));
  const std::vector<FakeRunner::Call> expected{{Operation::change, -1, 0, false},
                                               {Operation::add, 77, writable, true},
                                               {Operation::drained, 77, writable, true},
                                               {Operation::remove, 77, 0, true},
                                               {Operation::remove, 77, 0, false}};
  EXPECT_EQ(runner.calls, expected);
  EXPECT_FALSE(runner.watched(77));
}

TEST(FakeRunnerTest, SaysWhatIsAtHand) {
  FakeRunner runner;
  EXPECT_TRUE(runner.addSocket(77, readable, [](int, unsigned) {}));
  EXPECT_FALSE(runner.isReady(77, writable));
  runner.atHand = writable;
  EXPECT_TRUE(runner.isReady(77, writable));
  EXPECT_FALSE(runner.isReady(77, readable | writable));
  EXPECT_FALSE(runner.isReady(78, writable));
}

TEST(FakeRunnerTest, ACallbackMayRemoveItself) {
  FakeRunner runner;
  int calls = 0;
  runner.addSocket(77, readable, [&](int fd, unsigned) {
    runner.removeSocket(fd);
    ++calls;
  });
  EXPECT_TRUE(runner.ready(77, readable));
  EXPECT_FALSE(runner.ready(77, readable));
  EXPECT_EQ(calls, 1);
}

TEST(FakeRunnerTest, AdvanceRunsEachTimerAtItsOwnDeadline) {
  FakeRunner runner;
  const auto start = runner.timers().now();
  std::vector<std::int64_t> at;
  const auto note = [&] {
    at.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(runner.timers().now() - start).count());
  };
  runner.addTimer(50, [&] {
    note();
    runner.addTimer(20, note);
  });
  runner.advance(49);
  EXPECT_TRUE(at.empty());
  runner.advance(51);
  EXPECT_EQ(at, (std::vector<std::int64_t>{50, 70}));
  EXPECT_EQ(runner.timers().now(), start + std::chrono::milliseconds(100));
}

TEST(FakeRunnerTest, AdvanceEndsDespiteATimerThatArmsItselfAtOnce) {
  FakeRunner runner;
  int runs = 0;
  Timer timer;
  timer.setCallback([&] {
    ++runs;
    timer.start(runner.timers(), 0);
  });
  timer.start(runner.timers(), 0);
  runner.advance(5);
  EXPECT_GT(runs, 1);
}

}  // namespace
}  // namespace tn
