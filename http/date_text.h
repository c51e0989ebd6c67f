#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// The HTTP date of a moment that most requests share: formatted once a second rather than once a response.
class DateText {
 public:
  // The view lives until the next call with another second.
  [[nodiscard]] std::string_view at(std::int64_t seconds);

 private:
  std::int64_t seconds_ = 0;
  std::string text_;  // empty: none yet
};
