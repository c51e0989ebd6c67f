#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

inline std::vector<std::uint8_t> fromHex(std::string_view text) {
  const auto digit = [](char c) { return static_cast<unsigned>(c <= '9' ? c - '0' : c - 'a' + 10); };
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    bytes.push_back(static_cast<std::uint8_t>(digit(text[i]) * 16 + digit(text[i + 1])));
  }
  return bytes;
}

inline std::string toHex(std::span<const std::uint8_t> bytes) {
  std::string text;
  for (const std::uint8_t b : bytes) {
    text += "0123456789abcdef"[b >> 4];
    text += "0123456789abcdef"[b & 15];
  }
  return text;
}
