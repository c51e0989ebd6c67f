#pragma once

// Characters as HTTP sees them (RFC 9110, 5.6): bytes of US-ASCII, whatever the locale says.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace ascii {

[[nodiscard]] constexpr bool isDigit(char c) {
  return c >= '0' && c <= '9';
}

[[nodiscard]] constexpr bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

[[nodiscard]] constexpr bool isControl(char c) {
  const auto byte = static_cast<std::uint8_t>(c);
  return byte < 0x20 || byte == 0x7f;
}

// Printable without the space: what a request line's pieces are made of.
[[nodiscard]] constexpr bool isVisible(char c) {
  return c > 0x20 && c < 0x7f;
}

[[nodiscard]] constexpr bool isBlank(char c) {
  return c == ' ' || c == '\t';
}

[[nodiscard]] constexpr char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

// A set of characters that is asked for one after the other.
class CharSet {
 public:
  // Letters, digits, and those of `others`.
  constexpr explicit CharSet(std::string_view others) {
    for (std::size_t i = 0; i < members_.size(); ++i) {
      const char c = static_cast<char>(i);
      members_[i] = isLetter(c) || isDigit(c) || others.find(c) != std::string_view::npos;
    }
  }
  constexpr explicit CharSet(bool (*isMember)(char)) {
    for (std::size_t i = 0; i < members_.size(); ++i)
      members_[i] = isMember(static_cast<char>(i));
  }
  [[nodiscard]] constexpr bool has(char c) const { return members_[static_cast<std::uint8_t>(c)]; }
  [[nodiscard]] constexpr bool hasAll(std::string_view text) const { return lengthIn(text) == text.size(); }
  // How many characters at the front of `text` are members.
  [[nodiscard]] constexpr std::size_t lengthIn(std::string_view text) const {
    std::size_t length = 0;
    while (length < text.size() && has(text[length]))
      ++length;
    return length;
  }

 private:
  std::array<bool, 256> members_{};
};

inline constexpr CharSet tokenChars{"!#$%&'*+-.^_`|~"};

[[nodiscard]] constexpr bool isToken(std::string_view text) {
  return !text.empty() && tokenChars.hasAll(text);
}

[[nodiscard]] constexpr bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (a[i] != b[i] && lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

[[nodiscard]] constexpr std::string_view trimBlanks(std::string_view text) {
  while (!text.empty() && isBlank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && isBlank(text.back()))
    text.remove_suffix(1);
  return text;
}

}  // namespace ascii
