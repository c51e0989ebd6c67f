#pragma once

#include <algorithm>
#include <cstdint>

namespace tnrun {

// How long to wait before a program that ended is started again: longer each time, so that one that cannot run does not
// keep the machine busy; from the beginning once it ran well for a while.
class RestartPause {
 public:
  static constexpr std::uint32_t firstMs = 200;
  static constexpr std::uint32_t longestMs = 10'000;
  static constexpr std::uint64_t wellMs = 60'000;

  // The pause after a run of `ranMs` milliseconds.
  [[nodiscard]] std::uint32_t after(std::uint64_t ranMs) {
    if (ranMs >= wellMs) next_ = firstMs;
    const std::uint32_t pause = next_;
    next_ = std::min(next_ * 2, longestMs);
    return pause;
  }

 private:
  std::uint32_t next_ = firstMs;
};

}  // namespace tnrun
