#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

// A hash of short texts, such as paths, for tables of bounded size: eight bytes at a time. It is not meant to stand
// against somebody who looks for texts with equal hashes; what that can cost is bounded by the table.
[[nodiscard]] inline std::size_t textHash(std::string_view text) {
  constexpr std::uint64_t factor = 0x9E3779B97F4A7C15;
  std::uint64_t hash = text.size() * factor;
  while (!text.empty()) {
    const std::size_t size = std::min(text.size(), sizeof hash);
    std::uint64_t piece = 0;
    std::memcpy(&piece, text.data(), size);
    hash = (hash ^ piece) * factor;
    hash ^= hash >> 32;
    text.remove_prefix(size);
  }
  return static_cast<std::size_t>(hash);
}
