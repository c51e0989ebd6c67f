#pragma once

#include <chrono>
#include <cstdint>

namespace service {

// Milliseconds since 1970, by the clock that people see.
[[nodiscard]] inline std::uint64_t calendarMs() {
  const auto since = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

}  // namespace service
