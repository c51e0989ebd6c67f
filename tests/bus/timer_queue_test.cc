#include "platform/bus/timer_queue.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace tn {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;

class TimerQueueTest : public testing::Test {
 protected:
  void advance(std::int64_t ms) { queue.runExpired(queue.now() + milliseconds(ms)); }
  Timer::Callback note(const std::string& name) {
    return [this, name] { ran.push_back(name); };
  }

  TimerQueue queue;
  std::vector<std::string> ran;
};

TEST_F(TimerQueueTest, RunsAtTheDeadlineAndNotBefore) {
  Timer timer(note("a"));
  timer.start(queue, 20);
  EXPECT_TRUE(timer.armed());
  queue.runExpired(queue.now() + milliseconds(20) - microseconds(1));
  EXPECT_TRUE(ran.empty());
  queue.runExpired(queue.now() + microseconds(1));
  EXPECT_EQ(ran, std::vector<std::string>{"a"});
  EXPECT_FALSE(timer.armed());
  advance(1000);
  EXPECT_EQ(ran.size(), 1U);
}

TEST_F(TimerQueueTest, RunsInTheOrderOfDeadlinesAcrossDurations) {
  Timer a(note("a"));
  Timer b(note("b"));
  Timer c(note("c"));
  a.start(queue, 30);
  b.start(queue, 10);
  advance(5);
  c.start(queue, 10);
  advance(100);
  EXPECT_EQ(ran, (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(TimerQueueTest, EqualDeadlinesRunInTheOrderOfArming) {
  Timer a(note("a"));
  Timer b(note("b"));
  Timer c(note("c"));
  a.start(queue, 30);
  advance(10);
  b.start(queue, 20);
  c.start(queue, 20);
  advance(20);
  EXPECT_EQ(ran, (std::vector<std::string>{"a", "b", "c"}));
}

TEST_F(TimerQueueTest, ArmingAnewMovesTheDeadline) {
  Timer timer(note("a"));
  timer.start(queue, 20);
  advance(15);
  timer.start(queue, 20);
  advance(15);
  EXPECT_TRUE(ran.empty());
  advance(5);
  EXPECT_EQ(ran.size(), 1U);
}

TEST_F(TimerQueueTest, ArmingAnewWithAnotherDuration) {
  Timer timer(note("a"));
  timer.start(queue, 2000);
  timer.start(queue, 3);
  EXPECT_EQ(queue.nextTimeout(), 3);
  advance(3);
  EXPECT_EQ(ran.size(), 1U);
  EXPECT_EQ(queue.nextTimeout(), -1);
}

TEST_F(TimerQueueTest, CancelledOrDestroyedTimersDoNotRun) {
  Timer cancelled(note("cancelled"));
  cancelled.start(queue, 5);
  cancelled.cancel();
  EXPECT_FALSE(cancelled.armed());
  {
    Timer destroyed(note("destroyed"));
    destroyed.start(queue, 5);
  }
  advance(10);
  EXPECT_TRUE(ran.empty());
  cancelled.cancel();
}

TEST_F(TimerQueueTest, ATimerCanMoveToAnotherQueue) {
  TimerQueue other;
  Timer timer(note("a"));
  timer.start(queue, 5);
  timer.start(other, 5);
  advance(100);
  EXPECT_TRUE(ran.empty());
  other.runExpired(other.now() + milliseconds(5));
  EXPECT_EQ(ran.size(), 1U);
}

TEST_F(TimerQueueTest, ADestroyedQueueLeavesItsTimersDisarmed) {
  Timer timer(note("a"));
  {
    TimerQueue brief;
    timer.start(brief, 5);
    brief.add(5, note("b"));
  }
  EXPECT_FALSE(timer.armed());
  timer.start(queue, 5);
  advance(5);
  EXPECT_EQ(ran, std::vector<std::string>{"a"});
}

TEST_F(TimerQueueTest, TimeoutIsRoundedUpAndNeverNegative) {
  EXPECT_EQ(queue.nextTimeout(), -1);
  EXPECT_FALSE(queue.nextDeadline().has_value());
  Timer timer;
  timer.start(queue, 10);
  EXPECT_EQ(queue.nextTimeout(), 10);
  queue.setNow(queue.now() + microseconds(1));
  EXPECT_EQ(queue.nextTimeout(), 10);
  queue.setNow(queue.now() + milliseconds(9));
  EXPECT_EQ(queue.nextTimeout(), 1);
  queue.setNow(queue.now() + milliseconds(9));
  EXPECT_EQ(queue.nextTimeout(), 0);
  timer.start(queue, 0xFFFFFFFF);
  EXPECT_EQ(queue.nextTimeout(), 0x7FFFFFFF);
}

TEST_F(TimerQueueTest, TimeNeverRunsBackwards) {
  const auto start = queue.now();
  queue.setNow(start - milliseconds(100));
  EXPECT_EQ(queue.now(), start);
}

TEST_F(TimerQueueTest, ACallableMayArmItsOwnTimerAnew) {
  Timer timer;
  timer.setCallback([&] {
    ran.emplace_back("tick");
    EXPECT_FALSE(timer.armed());
    if (ran.size() < 3) timer.start(queue, 10);
  });
  timer.start(queue, 10);
  for (int i = 0; i < 5; ++i)
    advance(10);
  EXPECT_EQ(ran.size(), 3U);
}

TEST_F(TimerQueueTest, ACallableMayDestroyItsOwnTimer) {
  auto timer = std::make_unique<Timer>();
  auto held = std::make_shared<std::string>("still here");
  const std::weak_ptr<std::string> watch = held;
  timer->setCallback([&, held = std::move(held)] {
    timer.reset();
    ran.push_back(*held);  // the callable itself lives until it returns
  });
  timer->start(queue, 1);
  advance(1);
  EXPECT_EQ(ran, std::vector<std::string>{"still here"});
  EXPECT_TRUE(watch.expired());
}

TEST_F(TimerQueueTest, ACallableMayArmAndThenDestroyItsOwnTimer) {
  auto timer = std::make_unique<Timer>();
  timer->setCallback([&] {
    timer->start(queue, 1);
    timer.reset();
    ran.emplace_back("a");
  });
  timer->start(queue, 1);
  advance(1);
  advance(10);
  EXPECT_EQ(ran.size(), 1U);
}

TEST_F(TimerQueueTest, ACallableMayReplaceItself) {
  Timer timer;
  timer.setCallback([&] {
    ran.emplace_back("first");
    timer.setCallback(note("second"));
    timer.start(queue, 1);
  });
  timer.start(queue, 1);
  advance(1);
  advance(1);
  EXPECT_EQ(ran, (std::vector<std::string>{"first", "second"}));
}

TEST_F(TimerQueueTest, ACallableMayCancelOthersThatExpiredWithIt) {
  auto victim = std::make_unique<Timer>(note("victim"));
  Timer other(note("other"));
  Timer killer([&] {
    victim.reset();
    other.cancel();
    ran.emplace_back("killer");
  });
  Timer last(note("last"));
  killer.start(queue, 5);
  victim->start(queue, 5);
  other.start(queue, 5);
  last.start(queue, 5);
  advance(5);
  EXPECT_EQ(ran, (std::vector<std::string>{"killer", "last"}));
}

TEST_F(TimerQueueTest, ACallableMayPostponeAnotherThatExpiredWithIt) {
  Timer other(note("other"));
  Timer first([&] { other.start(queue, 5); });
  first.start(queue, 5);
  other.start(queue, 5);
  advance(5);
  EXPECT_TRUE(ran.empty());
  EXPECT_TRUE(other.armed());
  advance(5);
  EXPECT_EQ(ran, std::vector<std::string>{"other"});
}

TEST_F(TimerQueueTest, AnImmediateTimerThatArmsItselfRunsOncePerTurn) {
  Timer timer;
  timer.setCallback([&] {
    ran.emplace_back("tick");
    timer.start(queue, 0);
  });
  timer.start(queue, 0);
  advance(0);
  EXPECT_EQ(ran.size(), 1U);
  EXPECT_EQ(queue.nextTimeout(), 0);
  advance(0);
  EXPECT_EQ(ran.size(), 2U);
}

TEST_F(TimerQueueTest, ATimerWithoutACallableExpiresQuietly) {
  Timer timer;
  timer.start(queue, 1);
  advance(1);
  EXPECT_FALSE(timer.armed());
}

TEST_F(TimerQueueTest, HandlesAreNeverReusedAndRemovable) {
  const auto first = queue.add(10, note("first"));
  EXPECT_NE(first, 0U);
  EXPECT_TRUE(queue.remove(first));
  EXPECT_FALSE(queue.remove(first));
  const auto second = queue.add(10, note("second"));
  EXPECT_NE(second, first);
  advance(10);
  EXPECT_EQ(ran, std::vector<std::string>{"second"});
  EXPECT_FALSE(queue.remove(second));
  EXPECT_FALSE(queue.remove(0));
}

TEST_F(TimerQueueTest, ARunningHandleIsGoneAlready) {
  TimerQueue::Handle handle = 0;
  bool removed = true;
  handle = queue.add(1, [&] {
    removed = queue.remove(handle);
    queue.add(1, note("next"));
  });
  advance(1);
  EXPECT_FALSE(removed);
  advance(1);
  EXPECT_EQ(ran, std::vector<std::string>{"next"});
}

TEST_F(TimerQueueTest, WhatACallableHoldsMayRemoveTimersWhileItGoes) {
  struct Remover {
    explicit Remover(TimerQueue& q) : queue(q) {}
    ~Remover() { queue.remove(handle); }
    TimerQueue& queue;
    TimerQueue::Handle handle = 0;
  };
  const auto other = queue.add(5, note("other"));
  auto remover = std::make_shared<Remover>(queue);
  remover->handle = other;
  const auto handle = queue.add(5, [remover] {});
  remover.reset();
  EXPECT_TRUE(queue.remove(handle));
  EXPECT_FALSE(queue.remove(other));
}

TEST_F(TimerQueueTest, ArmingAnewGoesBehindThoseThatWereArmedMeanwhile) {
  Timer a(note("a"));
  Timer b(note("b"));
  Timer c(note("c"));
  a.start(queue, 20);
  b.start(queue, 20);
  c.start(queue, 20);
  advance(10);
  c.start(queue, 20);
  advance(1);
  a.start(queue, 20);
  EXPECT_EQ(queue.nextTimeout(), 9);
  advance(9);
  EXPECT_EQ(ran, std::vector<std::string>{"b"});
  EXPECT_EQ(queue.nextTimeout(), 10);
  advance(100);
  EXPECT_EQ(ran, (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(TimerQueueTest, ACancelledTimerIsNoDeadlineAndCanBeArmedAnew) {
  Timer timer(note("a"));
  Timer later(note("b"));
  timer.start(queue, 20);
  advance(5);
  later.start(queue, 20);
  timer.cancel();
  EXPECT_EQ(queue.nextTimeout(), 20);
  later.cancel();
  EXPECT_EQ(queue.nextTimeout(), -1);
  timer.start(queue, 20);
  EXPECT_EQ(queue.nextTimeout(), 20);
  advance(20);
  EXPECT_EQ(ran, std::vector<std::string>{"a"});
}

// Against a plain model: many durations, more than are kept as empty lanes, armed, cancelled, destroyed and expired at
// random. What expires together runs by deadline, and of equal ones what was armed in an earlier turn.
class ManyTimers : public TimerQueueTest {
 protected:
  static constexpr std::int64_t idle = -1;
  struct Expected {
    std::int64_t deadline = idle;
    std::int64_t armedAt = 0;
  };

  void make(std::size_t i) {
    timers[i] = std::make_unique<Timer>([this, i] { onExpiry(expected[i]); });
    expected[i].deadline = idle;
  }
  void onExpiry(Expected& timer) {
    ASSERT_NE(timer.deadline, idle);
    EXPECT_LE(timer.deadline, now);
    EXPECT_TRUE(timer.deadline > last.deadline || (timer.deadline == last.deadline && timer.armedAt >= last.armedAt));
    last = timer;
    timer.deadline = idle;
  }
  void arm(std::size_t i, std::uint32_t ms) {
    timers[i]->start(queue, ms);
    expected[i] = {now + ms, now};
  }
  void check() {
    Clock::time_point next = Clock::time_point::max();
    for (std::size_t i = 0; i < timers.size(); ++i) {
      EXPECT_EQ(timers[i]->armed(), expected[i].deadline != idle);
      if (expected[i].deadline != idle) next = std::min(next, start + milliseconds(expected[i].deadline));
    }
    EXPECT_GT(next, start + milliseconds(now));
    EXPECT_EQ(queue.nextDeadline().value_or(Clock::time_point::max()), next);
  }

  const Clock::time_point start = queue.now();
  std::vector<std::unique_ptr<Timer>> timers{200};
  std::vector<Expected> expected{200};
  Expected last;
  std::int64_t now = 0;
};

TEST_F(ManyTimers, AgreeWithAPlainModel) {
  std::mt19937 random(7);
  for (std::size_t i = 0; i < timers.size(); ++i)
    make(i);
  for (int step = 0; step < 20000; ++step) {
    const std::size_t i = random() % timers.size();
    switch (random() % 12) {
      case 0:
        make(i);
        break;
      case 1:
        timers[i]->cancel();
        expected[i].deadline = idle;
        break;
      case 2:
      case 3:
        arm(i, static_cast<std::uint32_t>(random() % 100));
        break;
      default:
        arm(i, i % 2 == 0 ? 30 : 50);
    }
    if (random() % 4 != 0) continue;
    now += static_cast<std::int64_t>(random() % 20);
    last = {};
    queue.runExpired(start + milliseconds(now));
    check();
  }
}

}  // namespace
}  // namespace tn
