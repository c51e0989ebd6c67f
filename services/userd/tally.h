#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/bus/timer.h"

namespace userd {

// What is counted: a digest, so that nobody outside knows which keys share a place.
using TallyKey = std::array<std::uint8_t, 16>;

// Counts events by key and forgets them at a steady rate, in memory of a fixed size.
//
// A key has `ways` places where its entry may stand. When all are taken the entry with the smallest count makes room,
// the one that is forgotten soonest anyway: a flood of new keys drives out each other rather than those that matter.
class Tally {
 public:
  static constexpr std::size_t ways = 8;

  // Room for `entries`, a multiple of `ways`. Of each key one event is forgotten per `forgetTime`, and no more than
  // `most` are counted.
  Tally(std::size_t entries, std::chrono::milliseconds forgetTime, unsigned most);

  // How often something happened and is not forgotten yet.
  [[nodiscard]] unsigned count(const TallyKey& key, tn::Clock::time_point now) const;
  void add(const TallyKey& key, tn::Clock::time_point now);
  // Takes one event back.
  void takeBack(const TallyKey& key, tn::Clock::time_point now);

  // A moment that is kept with a key as long as its count; time_point() when there is none.
  [[nodiscard]] tn::Clock::time_point mark(const TallyKey& key) const;
  // Only a key that is counted has one.
  void setMark(const TallyKey& key, tn::Clock::time_point mark);

 private:
  struct Entry {
    TallyKey key{};
    tn::Clock::time_point forgotten;  // when its count is 0 again
    tn::Clock::time_point mark;
  };

  [[nodiscard]] std::size_t firstPlace(const TallyKey& key) const;
  [[nodiscard]] const Entry* find(const TallyKey& key) const;
  [[nodiscard]] Entry* find(const TallyKey& key);
  [[nodiscard]] Entry& makeRoom(const TallyKey& key);

  std::vector<Entry> entries_;
  std::chrono::milliseconds forgetTime_;
  unsigned most_;
};

}  // namespace userd
