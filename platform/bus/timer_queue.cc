#include "platform/bus/timer_queue.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace tn {

using std::chrono::ceil;
using std::chrono::milliseconds;

// A list of timers in the order of their places.
struct Timer::Lane {
  Lane(TimerQueue* owner, std::uint32_t duration) : queue(owner), ms(duration) {}

  // Before `next`; null is the end.
  void insert(Timer& timer, Timer* next);
  void append(Timer& timer) { insert(timer, nullptr); }
  void unlink(Timer& timer);
  // Moves on what stands at the head but does not expire there.
  void settle();

  TimerQueue* const queue;  // null: its timers have expired and are about to run
  const std::uint32_t ms;
  Timer* head = nullptr;
  Timer* tail = nullptr;
};

void Timer::Lane::insert(Timer& timer, Timer* next) {
  timer.lane_ = this;
  timer.place_ = timer.deadline_;
  timer.next_ = next;
  timer.previous_ = next != nullptr ? next->previous_ : tail;
  (timer.previous_ != nullptr ? timer.previous_->next_ : head) = &timer;
  (next != nullptr ? next->previous_ : tail) = &timer;
}

void Timer::Lane::unlink(Timer& timer) {
  (timer.previous_ != nullptr ? timer.previous_->next_ : head) = timer.next_;
  (timer.next_ != nullptr ? timer.next_->previous_ : tail) = timer.previous_;
  timer.lane_ = nullptr;
}

// Those that move on do it together, in one walk from the end, where those stand that are armed anew all the time: when
// nothing was settled for as long as the lane's duration, they may be all.
void Timer::Lane::settle() {
  const auto isSettled = [](const Timer& timer) { return timer.armed_ && timer.place_ == timer.deadline_; };
  if (head == nullptr || isSettled(*head)) return;
  std::vector<Timer*> moving;
  while (head != nullptr && !isSettled(*head)) {
    Timer& timer = *head;
    unlink(timer);
    if (timer.armed_) moving.push_back(&timer);
  }
  std::ranges::sort(moving, {}, &Timer::deadline_);
  Timer* next = nullptr;
  for (auto timer = moving.rbegin(); timer != moving.rend(); ++timer) {
    Timer* before = next != nullptr ? next->previous_ : tail;
    while (before != nullptr && before->place_ > (*timer)->deadline_)
      next = std::exchange(before, before->previous_);
    insert(**timer, next);
    next = *timer;
  }
}

Timer::~Timer() {
  if (lane_ != nullptr) lane_->unlink(*this);
  if (running_ != nullptr) *running_ = nullptr;
}

void Timer::start(TimerQueue& queue, std::uint32_t ms) {
  deadline_ = queue.now_ + milliseconds(ms);
  armed_ = true;
  if (lane_ == nullptr || lane_->queue != &queue || lane_->ms != ms) join(queue, ms);
}

// Into the lane of the duration, out of any other.
void Timer::join(TimerQueue& queue, std::uint32_t ms) {
  if (lane_ != nullptr) lane_->unlink(*this);
  queue.noneBefore_ = std::min(queue.noneBefore_, deadline_);
  queue.lane(ms).append(*this);
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

TimerQueue::TimerQueue() : now_(Clock::now()), expired_(std::make_unique<Timer::Lane>(nullptr, 0)) {}

TimerQueue::~TimerQueue() {
  // What the callables hold may still look for its timers here while it is destroyed.
  std::exchange(owned_, {}).clear();
  const auto empty = [](Timer::Lane& lane) {
    while (lane.head != nullptr) {
      lane.head->armed_ = false;
      lane.unlink(*lane.head);
    }
  };
  for (const auto& lane : lanes_)
    empty(*lane);
  empty(*expired_);
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
  expired_->settle();
  const Timer::Lane* lane = expired_->head != nullptr ? expired_.get() : earliestLane();
  noneBefore_ = lane != nullptr ? lane->head->deadline_ : Clock::time_point::max();
  if (lane == nullptr) return std::nullopt;
  return noneBefore_;
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
    if (std::exchange(timer.armed_, false)) timer.expire();
  }
  (void)nextDeadline();
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
    place = lanes_.insert(place, std::make_unique<Timer::Lane>(this, ms));
  }
  lastLane_ = place->get();
  return *lastLane_;
}

void TimerQueue::dropEmptyLanes() {
  lastLane_ = nullptr;
  std::erase_if(lanes_, [](const std::unique_ptr<Timer::Lane>& lane) {
    lane->settle();
    return lane->head == nullptr;
  });
}

// Of equal deadlines the longer duration was armed earlier, so it goes first.
Timer::Lane* TimerQueue::earliestLane() const {
  Timer::Lane* earliest = nullptr;
  for (const auto& lane : lanes_) {
    lane->settle();
    if (lane->head == nullptr) continue;
    if (earliest == nullptr || lane->head->deadline_ <= earliest->head->deadline_) earliest = lane.get();
  }
  return earliest;
}

}  // namespace tn
