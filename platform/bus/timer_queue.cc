#include "platform/bus/timer_queue.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace tn {

using std::chrono::ceil;
using std::chrono::milliseconds;

// A list of armed timers in the order of their deadlines.
struct Timer::Lane {
  Lane(TimerQueue& owner, std::uint32_t duration) : queue(owner), ms(duration) {}

  void append(Timer& timer);
  void unlink(Timer& timer);

  TimerQueue& queue;
  const std::uint32_t ms;
  Timer* head = nullptr;
  Timer* tail = nullptr;
};

void Timer::Lane::append(Timer& timer) {
  timer.lane_ = this;
  timer.previous_ = tail;
  timer.next_ = nullptr;
  (tail != nullptr ? tail->next_ : head) = &timer;
  tail = &timer;
}

void Timer::Lane::unlink(Timer& timer) {
  (timer.previous_ != nullptr ? timer.previous_->next_ : head) = timer.next_;
  (timer.next_ != nullptr ? timer.next_->previous_ : tail) = timer.previous_;
  timer.lane_ = nullptr;
}

Timer::~Timer() {
  cancel();
  if (running_ != nullptr) *running_ = nullptr;
}

void Timer::start(TimerQueue& queue, std::uint32_t ms) {
  Lane* lane = lane_;
  const Clock::time_point deadline = queue.now_ + milliseconds(ms);
  // Armed again in the same turn, with nobody else in between.
  if (lane != nullptr && lane->tail == this && lane->ms == ms && &lane->queue == &queue && deadline_ == deadline &&
      lane != queue.expired_.get()) {
    return;
  }
  cancel();
  const bool sameLane = lane != nullptr && &lane->queue == &queue && lane->ms == ms && lane != queue.expired_.get();
  if (!sameLane) lane = &queue.lane(ms);
  deadline_ = deadline;
  queue.noneBefore_ = std::min(queue.noneBefore_, deadline);
  lane->append(*this);
}

void Timer::cancel() {
  if (lane_ != nullptr) lane_->unlink(*this);
}

// The callable is moved out while it runs, so that it outlives the timer when it destroys it.
void Timer::expire() {
  if (!callback_) return;
  Timer* self = this;
  Timer** const outer = std::exchange(running_, &self);
  Callback callback = std::exchange(callback_, nullptr);
  callback();
  if (self == nullptr) {
    if (outer != nullptr) *outer = nullptr;
    return;
  }
  running_ = outer;
  if (!callback_) callback_ = std::move(callback);
}

struct TimerQueue::Owned {
  Timer timer;
  Callback callback;
};

TimerQueue::TimerQueue() : now_(Clock::now()), expired_(std::make_unique<Timer::Lane>(*this, 0)) {}

TimerQueue::~TimerQueue() {
  // What the callables hold may still look for its timers here while it is destroyed.
  std::exchange(owned_, {}).clear();
  for (const auto& lane : lanes_) {
    while (lane->head != nullptr)
      lane->unlink(*lane->head);
  }
  while (expired_->head != nullptr)
    expired_->unlink(*expired_->head);
}

TimerQueue::Handle TimerQueue::add(std::uint32_t ms, Callback callback) {
  const Handle handle = ++lastHandle_;
  auto owned = std::make_unique<Owned>();
  owned->callback = std::move(callback);
  owned->timer.setCallback([this, handle] { runOwned(handle); });
  owned->timer.start(*this, ms);
  owned_.emplace(handle, std::move(owned));
  return handle;
}

bool TimerQueue::remove(Handle handle) {
  return !owned_.extract(handle).empty();
}

void TimerQueue::runOwned(Handle handle) {
  auto node = owned_.extract(handle);
  const Callback callback = std::move(node.mapped()->callback);
  if (callback) callback();
}

void TimerQueue::setNow(Clock::time_point now) {
  now_ = std::max(now_, now);
}

std::optional<Clock::time_point> TimerQueue::nextDeadline() const {
  if (expired_->head != nullptr) return expired_->head->deadline_;
  const Timer::Lane* lane = earliestLane();
  if (lane == nullptr) return std::nullopt;
  return lane->head->deadline_;
}

int TimerQueue::nextTimeout() const {
  const auto deadline = nextDeadline();
  if (!deadline) return -1;
  if (*deadline <= now_) return 0;
  const auto left = ceil<milliseconds>(*deadline - now_).count();
  constexpr auto longest = std::numeric_limits<int>::max();
  return left < longest ? static_cast<int>(left) : longest;
}

void TimerQueue::runExpired(Clock::time_point now) {
  setNow(now);
  if (now_ < noneBefore_) return;
  for (Timer::Lane* lane = earliestLane(); lane != nullptr && lane->head->deadline_ <= now_; lane = earliestLane()) {
    Timer& timer = *lane->head;
    lane->unlink(timer);
    expired_->append(timer);
  }
  while (expired_->head != nullptr) {
    Timer& timer = *expired_->head;
    expired_->unlink(timer);
    timer.expire();
  }
  noneBefore_ = nextDeadline().value_or(Clock::time_point::max());
}

Timer::Lane& TimerQueue::lane(std::uint32_t ms) {
  if (lastLane_ != nullptr && lastLane_->ms == ms) return *lastLane_;
  const auto find = [this, ms] {
    return std::find_if(lanes_.begin(), lanes_.end(), [ms](const auto& lane) { return lane->ms >= ms; });
  };
  auto place = find();
  if (place == lanes_.end() || (*place)->ms != ms) {
    if (lanes_.size() >= keptLanes) {
      dropEmptyLanes();
      place = find();
    }
    place = lanes_.insert(place, std::make_unique<Timer::Lane>(*this, ms));
  }
  lastLane_ = place->get();
  return *lastLane_;
}

void TimerQueue::dropEmptyLanes() {
  lastLane_ = nullptr;
  std::erase_if(lanes_, [](const std::unique_ptr<Timer::Lane>& lane) { return lane->head == nullptr; });
}

// Of equal deadlines the longer duration was armed earlier, so it goes first.
Timer::Lane* TimerQueue::earliestLane() const {
  Timer::Lane* earliest = nullptr;
  for (const auto& lane : lanes_) {
    if (lane->head == nullptr) continue;
    if (earliest == nullptr || lane->head->deadline_ <= earliest->head->deadline_) earliest = lane.get();
  }
  return earliest;
}

}  // namespace tn
