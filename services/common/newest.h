#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "platform/bus/message.h"

namespace service {

// A queue of the newest entries of something that goes on, each with the `number` that it has from 1, without gaps; how
// it is asked, and how it answers.

// What of the queue is shown.
template <typename Entry>
struct Newest {
  std::vector<const Entry*> entries;  // in order; they die with the next change
  std::uint64_t newest = 0;           // number of the newest entry; 0 before there is one
  std::uint64_t lost = 0;             // entries behind `after` that are no longer kept
};

// What whoever knows the entries up to number `query.after` is shown: those that fit, the newest ones of more than
// `query.most`, and of those that would cost more than `query.mostBytes` together. A number that is greater than
// `newest` is from another life, and counts as none.
template <typename Entry, typename Query, typename Fits, typename Cost>
[[nodiscard]] Newest<Entry> findNewest(const Query& query, const std::deque<Entry>& kept, std::uint64_t newest,
                                       const Fits& fits, const Cost& cost) {
  const std::uint64_t after = query.after > newest ? 0 : query.after;
  const std::uint64_t gone = newest - kept.size();
  Newest<Entry> found{{}, newest, gone > after ? gone - after : 0};
  std::size_t bytes = 0;
  for (auto entry = kept.rbegin(); entry != kept.rend() && entry->number > after; ++entry) {
    if (found.entries.size() == query.most) break;
    if (!fits(*entry)) continue;
    bytes += cost(*entry);
    if (bytes > query.mostBytes) break;
    found.entries.push_back(&*entry);
  }
  std::reverse(found.entries.begin(), found.entries.end());
  return found;
}

// Of the command that asks for them (docs/services.md):
inline constexpr tn::u64_id afterField{1};
inline constexpr tn::u32_id mostField{2};

// The answer; describe(entry) gives the message of each.
template <typename Entry, typename Describe>
[[nodiscard]] tn::message newestMessage(const Newest<Entry>& found, const Describe& describe) {
  constexpr tn::message_array_id entriesField{1};
  constexpr tn::u64_id newestField{2};
  constexpr tn::u64_id lostField{3};
  std::vector<tn::message> entries;
  entries.reserve(found.entries.size());
  for (const Entry* entry : found.entries)
    entries.push_back(describe(*entry));
  tn::message answer;
  answer.insert_vector(entriesField, entries);
  answer.insert(newestField, found.newest);
  answer.insert(lostField, found.lost);
  return answer;
}

}  // namespace service
