#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "platform/bus/timer.h"

namespace tn {

// All timers of one thread.
//
// A program uses few distinct durations (a header limit, an idle limit, a reply limit) on many timers. So there is one
// list per distinct duration, a lane: the queue's time never runs backwards, hence a timer that is armed now expires
// after all others of its lane, and arming is appending. Deadlines are exact; nothing is rounded to a tick. The next
// deadline of all is the earliest head of a lane, and lanes are few.
//
// Most timers are armed anew, or cancelled, long before they expire: an idle limit moves with each event. Such a timer
// keeps its place in its lane and only notes what it is to do, so that its neighbours are not touched. When its place
// comes to the head of the lane, before the timer is counted as anything, it goes to where it belongs by then.
//
// The queue has its own time, which its runner moves once per turn: every timer armed in one turn counts from the same
// moment, and arming reads no clock.
class TimerQueue {
 public:
  using Callback = std::function<void()>;
  using Handle = std::uint64_t;  // 0 is none

  TimerQueue();
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;
  // Disarms the timers that are left; their callables do not run.
  ~TimerQueue();

  // Arms a one-shot timer that the queue owns. The handle is never given twice.
  Handle add(std::uint32_t ms, Callback callback);
  // False: no such timer (it ran, runs now, or was removed).
  bool remove(Handle handle);

  // The time that timers count from.
  [[nodiscard]] Clock::time_point now() const { return now_; }
  // A time before now() is taken as now().
  void setNow(Clock::time_point now);

  [[nodiscard]] std::optional<Clock::time_point> nextDeadline() const;
  // A time before which no timer expires, at hand without a look at them; the end of time when none was armed.
  [[nodiscard]] Clock::time_point noneBefore() const { return noneBefore_; }
  // Milliseconds from now() to the next deadline, rounded up so that the wait never ends too early; 0 when it has
  // passed, -1 when no timer is armed.
  [[nodiscard]] int nextTimeout() const;

  // Moves the time to `now` and runs what has expired by then, earliest deadline first, and of equal deadlines what was
  // armed in an earlier turn. A timer that a callable arms meanwhile waits for the next call even when its time is 0,
  // so one that arms itself again and again cannot hold the loop.
  void runExpired(Clock::time_point now);

 private:
  friend class Timer;
  struct Owned;
  // Empty lanes are kept, as their duration will be wanted again, until there are this many lanes.
  static constexpr std::size_t keptLanes = 32;

  Timer::Lane& lane(std::uint32_t ms);
  void dropEmptyLanes();
  // The lane whose head, settled, expires first; null: no timer is armed.
  [[nodiscard]] Timer::Lane* earliestLane() const;
  void runOwned(Handle handle);

  Clock::time_point now_;
  // No timer expires before this: kept with every timer armed, and looked up when it has passed.
  mutable Clock::time_point noneBefore_ = Clock::time_point::max();
  std::vector<std::unique_ptr<Timer::Lane>> lanes_;  // by duration, shortest first
  Timer::Lane* lastLane_ = nullptr;                  // that was asked for last; most ask for the same
  std::unique_ptr<Timer::Lane> expired_;             // taken from the lanes by runExpired, not run yet
  std::unordered_map<Handle, std::unique_ptr<Owned>> owned_;
  Handle lastHandle_ = 0;
};

}  // namespace tn
