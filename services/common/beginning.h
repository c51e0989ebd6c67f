#pragma once

#include <cstddef>
#include <string_view>

namespace service {

// The first bytes of a text, at the most so many; a character of UTF-8 is not cut in its middle.
[[nodiscard]] inline std::string_view beginningOf(std::string_view text, std::size_t most) {
  if (text.size() <= most) return text;
  constexpr std::size_t longestCharacter = 4;
  const auto isWithin = [text](std::size_t at) { return (static_cast<unsigned char>(text[at]) & 0xc0U) == 0x80; };
  std::size_t end = most;
  for (std::size_t back = 1; back < longestCharacter && end > 0 && isWithin(end); ++back)
    --end;
  return text.substr(0, end);
}

}  // namespace service
