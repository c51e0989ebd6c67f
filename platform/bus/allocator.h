#pragma once

#include <cstdint>
#include <map>
#include <optional>

namespace tn {

// Gives out numbers of a range, each to one user at a time. The search goes on behind the number given last, so that
// one that was given back is not given out again before the others had their turn. Memory follows the numbers in use,
// not the range; every call is O(log n) of them.
class Allocator {
 public:
  // Numbers from `first` to `last`, both included; `first` is not above `last`.
  Allocator(std::uint32_t first, std::uint32_t last);

  // Nothing when every number is in use.
  [[nodiscard]] std::optional<std::uint32_t> allocate();
  // A number that is not in use is left alone.
  void release(std::uint32_t id);

 private:
  // The run of numbers in use that holds `id`, or the end of the map.
  using Runs = std::map<std::uint32_t, std::uint32_t>;
  [[nodiscard]] Runs::iterator runOf(std::uint32_t id);
  void join(std::uint32_t id);

  const std::uint32_t first_;
  const std::uint32_t last_;
  std::uint32_t next_;
  // First and last number of each run of numbers in use; between two runs at least one is free.
  Runs runs_;
};

}  // namespace tn
