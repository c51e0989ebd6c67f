#include "services/userd/tally.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "platform/byte_order.h"

namespace userd {

Tally::Tally(std::size_t entries, std::chrono::milliseconds forgetTime, unsigned most)
    : entries_(entries), forgetTime_(forgetTime), most_(most) {}

std::size_t Tally::firstPlace(const TallyKey& key) const {
  return static_cast<std::size_t>(loadLe64(key.data()) % (entries_.size() / ways)) * ways;
}

const Tally::Entry* Tally::find(const TallyKey& key) const {
  const auto first = entries_.begin() + static_cast<std::ptrdiff_t>(firstPlace(key));
  const auto last = first + ways;
  const auto found = std::find_if(first, last, [&key](const Entry& entry) { return entry.key == key; });
  return found == last ? nullptr : &*found;
}

Tally::Entry* Tally::find(const TallyKey& key) {
  return const_cast<Entry*>(std::as_const(*this).find(key));
}

Tally::Entry& Tally::makeRoom(const TallyKey& key) {
  const auto first = entries_.begin() + static_cast<std::ptrdiff_t>(firstPlace(key));
  const auto soonest = std::min_element(
      first, first + ways, [](const Entry& one, const Entry& other) { return one.forgotten < other.forgotten; });
  *soonest = {key, {}, {}};
  return *soonest;
}

unsigned Tally::count(const TallyKey& key, tn::Clock::time_point now) const {
  const Entry* const entry = find(key);
  if (entry == nullptr || entry->forgotten <= now) return 0;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(entry->forgotten - now);
  return static_cast<unsigned>((left + forgetTime_ - std::chrono::milliseconds(1)) / forgetTime_);
}

void Tally::add(const TallyKey& key, tn::Clock::time_point now) {
  Entry* const found = find(key);
  Entry& entry = found != nullptr ? *found : makeRoom(key);
  const tn::Clock::time_point latest = now + forgetTime_ * most_;
  entry.forgotten = std::min<tn::Clock::time_point>(std::max(entry.forgotten, now) + forgetTime_, latest);
}

void Tally::takeBack(const TallyKey& key, tn::Clock::time_point now) {
  Entry* const entry = find(key);
  if (entry != nullptr) entry->forgotten = std::max<tn::Clock::time_point>(entry->forgotten - forgetTime_, now);
}

tn::Clock::time_point Tally::mark(const TallyKey& key) const {
  const Entry* const entry = find(key);
  return entry == nullptr ? tn::Clock::time_point() : entry->mark;
}

void Tally::setMark(const TallyKey& key, tn::Clock::time_point mark) {
  Entry* const entry = find(key);
  if (entry != nullptr) entry->mark = mark;
}

}  // namespace userd
