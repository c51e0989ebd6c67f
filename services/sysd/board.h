#pragma once

#include <array>
#include <cstdint>

#include "platform/bus/timer.h"
#include "services/sysd/source.h"

namespace sysd {

// What was read last, so that the kernel is asked once however many want to know.
class Board {
 public:
  // The source must outlive this.
  explicit Board(Source& source) : source_(source) {}

  struct Entry {
    tn::message object;          // with its number
    std::uint64_t revision = 0;  // counts readings that differed from the one before; 0: never read
    tn::Clock::time_point readAt;
  };

  // The object as it was read not longer than `age` ago. The reference lives as long as the board; what it refers to
  // changes with the next reading.
  const Entry& get(Object object, tn::Clock::time_point now, tn::Clock::duration age);

 private:
  Source& source_;
  std::array<Entry, objectCount> entries_;
};

}  // namespace sysd
