#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// A part of a file, both ends included. An empty part has `last` one below `first`.
struct ByteRange {
  std::uint32_t first;
  std::uint32_t last;

  [[nodiscard]] std::uint32_t length() const { return last + 1 - first; }
};

// The part that a "Range" value asks of a file of `size` bytes. Nothing: the whole file is to be sent, as the value is
// no single range, cannot be parsed, or does not lie within the file (an end beyond the file is not clipped).
[[nodiscard]] std::optional<ByteRange> parseRange(std::string_view value, std::uint32_t size);
