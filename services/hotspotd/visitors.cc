#include "services/hotspotd/visitors.h"

#include <algorithm>

namespace hotspot {
namespace {

constexpr tn::Addr6 mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
constexpr std::size_t mappedBytes = 12;
constexpr std::size_t networkBytes = 8;

// Whoever has an IPv6 network has all of its addresses, so its first 64 bits count.
Visitor suspectOf(const Visitor& visitor) {
  Visitor suspect = visitor;
  const bool ipv4 = std::equal(mappedPrefix.begin(), mappedPrefix.begin() + mappedBytes, suspect.address.begin());
  if (!ipv4) std::fill(suspect.address.begin() + networkBytes, suspect.address.end(), std::uint8_t{0});
  return suspect;
}

}  // namespace

Visitors::Verdict Visitors::logIn(const Visitor& visitor, bool codeIsRight, std::chrono::minutes duration,
                                  tn::Clock::time_point now) {
  const Visitor suspect = suspectOf(visitor);
  if (!mayTry(suspect, now)) return Verdict::tooManyTries;
  if (!codeIsRight) {
    countWrong(suspect, now);
    return Verdict::wrongCode;
  }
  if (!loggedIn_.contains(visitor) && loggedIn_.size() >= maxLoggedIn && loggedIn(now) >= maxLoggedIn) {
    return Verdict::full;
  }
  suspects_.erase(suspect);
  loggedIn_[visitor] = now + duration;
  return Verdict::admitted;
}

bool Visitors::logOut(const Visitor& visitor) {
  return loggedIn_.erase(visitor) != 0;
}

std::optional<std::chrono::seconds> Visitors::remaining(const Visitor& visitor, tn::Clock::time_point now) const {
  const auto found = loggedIn_.find(visitor);
  if (found == loggedIn_.end() || found->second <= now) return std::nullopt;
  return std::chrono::ceil<std::chrono::seconds>(found->second - now);
}

std::size_t Visitors::loggedIn(tn::Clock::time_point now) {
  std::erase_if(loggedIn_, [now](const auto& entry) { return entry.second <= now; });
  return loggedIn_.size();
}

bool Visitors::mayTry(const Visitor& suspect, tn::Clock::time_point now) const {
  const auto found = suspects_.find(suspect);
  return found == suspects_.end() || found->second.end <= now || found->second.wrong < maxTries;
}

// When there is no room, the one whose time ends first is forgotten: with 4096 networks at hand an attacker has that
// many times the tries anyway.
void Visitors::countWrong(const Visitor& suspect, tn::Clock::time_point now) {
  if (suspects_.size() >= maxSuspects && !suspects_.contains(suspect)) {
    std::erase_if(suspects_, [now](const auto& entry) { return entry.second.end <= now; });
    if (suspects_.size() >= maxSuspects) {
      suspects_.erase(std::ranges::min_element(
          suspects_, [](const auto& a, const auto& b) { return a.second.end < b.second.end; }));
    }
  }
  Tries& tries = suspects_[suspect];
  if (tries.end <= now) tries = {0, now + triesFor};
  ++tries.wrong;
}

}  // namespace hotspot
