#include "services/userd/doorkeeper.h"

#include <algorithm>
#include <utility>

namespace userd {
namespace {

// Waits are rounded up to this, so that timers have few different durations.
constexpr std::uint32_t waitStepMs = 50;

std::uint32_t roundedUp(Throttle::Milliseconds wait) {
  const auto ms = static_cast<std::uint32_t>(wait.count());
  return (ms + waitStepMs - 1) / waitStepMs * waitStepMs;
}

std::uint32_t secondsOf(Throttle::Milliseconds time) {
  return static_cast<std::uint32_t>(std::chrono::ceil<std::chrono::seconds>(time).count());
}

}  // namespace

Doorkeeper::Doorkeeper(const Accounts& accounts, HashQueue& queue, Throttle& throttle, tn::TimerQueue& timers,
                       std::string dummyHash)
    : accounts_(accounts), queue_(queue), throttle_(throttle), timers_(timers), dummyHash_(std::move(dummyHash)) {}

Doorkeeper::~Doorkeeper() {
  for (const auto& [id, pending] : pending_)
    queue_.cancel(pending.ticket);
}

unsigned Doorkeeper::rankOf(const Throttle::Attempt& attempt) {
  return attempt.trusted ? 0 : 1 + attempt.failures;
}

void Doorkeeper::attempt(const Client& client, std::string_view name, Secret password, Callback callback) {
  const auto now = timers_.now();
  const Throttle::Attempt attempt = throttle_.examine(client, name, now);
  if (!makeRoomFor(attempt)) return callback({Verdict::busy});
  const auto wait = throttle_.begin(attempt, now);
  if (!wait) return callback({Verdict::tooMany, 0, secondsOf(wait.error())});
  const Id id = ++last_;
  Pending& pending = pending_[id];
  pending.attempt = attempt;
  pending.name = name;
  pending.password = std::move(password);
  pending.callback = std::move(callback);
  pending.deadline.setCallback([this, id] { onDeadline(id); });
  pending.deadline.start(timers_, answerMs);
  if (*wait == Throttle::Milliseconds(0)) return compare(id);
  pending.wait.setCallback([this, id] { compare(id); });
  pending.wait.start(timers_, roundedUp(*wait));
}

bool Doorkeeper::makeRoomFor(const Throttle::Attempt& attempt) {
  if (pending_.size() < maxAttempts) return true;
  const auto last = std::ranges::max_element(
      pending_, {}, [](const auto& entry) { return std::pair(rankOf(entry.second.attempt), entry.first); });
  if (rankOf(last->second.attempt) <= rankOf(attempt)) return false;
  onDeadline(last->first);
  return true;
}

void Doorkeeper::compare(Id id) {
  Pending& pending = pending_[id];
  const User* const user = accounts_.userNamed(pending.name);
  pending.user = user != nullptr ? user->number : 0;
  pending.hash = user != nullptr ? user->hash : dummyHash_;
  pending.ticket = queue_.put({std::move(pending.password), pending.hash}, rankOf(pending.attempt),
                              [this, id](const HashResult& result) { onResult(id, result.right); });
}

// The user may have been changed meanwhile.
void Doorkeeper::onResult(Id id, bool right) {
  Pending& pending = pending_[id];
  pending.ticket = 0;
  const User* const user = accounts_.user(pending.user);
  if (!right || user == nullptr || user->disabled || user->hash != pending.hash) return finish(id, {Verdict::wrong});
  throttle_.forgive(pending.attempt, timers_.now());
  finish(id, {Verdict::right, user->number});
}

// What the hasher has begun was looked at, though nobody is told.
void Doorkeeper::onDeadline(Id id) {
  Pending& pending = pending_[id];
  const bool begun = pending.ticket != 0 && !queue_.cancel(pending.ticket);
  if (!begun) throttle_.takeBack(pending.attempt, timers_.now());
  finish(id, {Verdict::busy});
}

void Doorkeeper::finish(Id id, const Answer& answer) {
  const auto ended = pending_.extract(id);
  ended.mapped().callback(answer);
}

Refusal notLookedAt(const Doorkeeper::Answer& answer) {
  if (answer.verdict == Doorkeeper::Verdict::busy) return {error::tooMuch, "too busy, try again"};
  return {error::tooMuch, "too many attempts, try again in " + std::to_string(answer.retryAfterSeconds) + " s"};
}

}  // namespace userd
