#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

namespace tn {

using Clock = std::chrono::steady_clock;

class TimerQueue;

// A one-shot timer that its owner keeps as a member. Destroying it cancels it; once cancelled its callable never runs.
// The queue it is armed on must outlive it. The callable may arm, cancel or destroy the timer it belongs to.
class Timer {
 public:
  using Callback = std::function<void()>;

  Timer() = default;
  explicit Timer(Callback callback) : callback_(std::move(callback)) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;
  ~Timer();

  // What runs when the timer expires. Called from within the callable itself, it holds from the next expiry on.
  void setCallback(Callback callback) { callback_ = std::move(callback); }

  // Arms the timer for `ms` milliseconds from the queue's current time; one that is armed is armed anew. O(1), no
  // system call; for a duration that it had last it is a few stores.
  void start(TimerQueue& queue, std::uint32_t ms);
  void cancel() { armed_ = false; }
  [[nodiscard]] bool armed() const { return armed_; }

 private:
  friend class TimerQueue;
  struct Lane;
  void join(TimerQueue& queue, std::uint32_t ms);
  void expire();

  Lane* lane_ = nullptr;  // the queue's list that this timer stands in, armed or not
  Timer* previous_ = nullptr;
  Timer* next_ = nullptr;
  Timer** running_ = nullptr;     // set while the callable runs; emptied by the destructor
  Clock::time_point place_{};     // the deadline that it stands in the list for
  Clock::time_point deadline_{};  // never before `place_`
  bool armed_ = false;
  Callback callback_;
};

}  // namespace tn
