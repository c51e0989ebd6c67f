#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "services/sysd/board.h"

namespace sysd {

// Who is told of which objects, and how often. Time is counted in ticks.
class SubscriberList {
 public:
  using Path = std::vector<std::uint32_t>;

  static constexpr std::size_t most = 256;
  static constexpr std::size_t mostOfSession = 8;
  // The elements of a path that tell a session: program, handler, session.
  static constexpr std::size_t sessionElements = 3;

  struct Subscriber {
    Path path;
    std::vector<Object> objects;
    std::uint32_t every = 1;                        // ticks
    std::array<std::uint64_t, objectCount> told{};  // the revision of each object that it was told last
  };

  enum class Taken : std::uint8_t { taken, tooMany, tooManyOfSession };

  // Adds a subscriber, or replaces the one of that path.
  [[nodiscard]] Taken put(Subscriber subscriber);
  void remove(std::span<const std::uint32_t> path);

  [[nodiscard]] bool empty() const { return subscribers_.empty(); }
  [[nodiscard]] std::size_t size() const { return subscribers_.size(); }
  [[nodiscard]] std::span<Subscriber> all() { return subscribers_; }

 private:
  std::vector<Subscriber> subscribers_;
};

}  // namespace sysd
