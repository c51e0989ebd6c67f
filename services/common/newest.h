#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace service {

// For a queue of the newest entries of something that goes on, each with the `number` that it has from 1, without gaps.

// The entries that whoever knows those up to number `query.after` is shown, in order: those that fit, the newest ones
// of more than `query.most`, and of those that would cost more than `query.mostBytes` together. A number that is
// greater than the newest is from another life, and counts as none.
template <typename Entry, typename Query, typename Fits, typename Cost>
[[nodiscard]] std::vector<const Entry*> entriesBehind(const Query& query, const std::deque<Entry>& kept,
                                                      const Fits& fits, const Cost& cost) {
  std::vector<const Entry*> found;
  if (kept.empty()) return found;
  const std::uint64_t after = query.after > kept.back().number ? 0 : query.after;
  std::size_t bytes = 0;
  for (auto entry = kept.rbegin(); entry != kept.rend() && entry->number > after; ++entry) {
    if (found.size() == query.most) break;
    if (!fits(*entry)) continue;
    bytes += cost(*entry);
    if (bytes > query.mostBytes) break;
    found.push_back(&*entry);
  }
  std::reverse(found.begin(), found.end());
  return found;
}

// How many entries behind number `after` are no longer kept, where `newest` have come and `kept` of them are.
[[nodiscard]] inline std::uint64_t lostBehind(std::uint64_t after, std::uint64_t newest, std::size_t kept) {
  if (after > newest) after = 0;
  const std::uint64_t gone = newest - kept;
  return gone > after ? gone - after : 0;
}

}  // namespace service
