#pragma once

// Characters as HTTP sees them (RFC 9110, 5.6): bytes of US-ASCII, whatever the locale says.

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
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

// How many characters at the front of `text` are from `first` to "~" and none of `without`, counted by eights: less
// than eight more may follow. Long texts are looked at by this first, and by a CharSet then.
template <char first, char... without>
[[nodiscard]] inline std::size_t lengthOfEights(std::string_view text) {
  constexpr auto each = [](char c) { return static_cast<std::uint8_t>(c) * std::uint64_t{0x0101010101010101}; };
  std::size_t length = 0;
  while (text.size() - length >= sizeof(std::uint64_t)) {
    std::uint64_t bytes = 0;
    std::memcpy(&bytes, text.data() + length, sizeof bytes);
    // The highest bit of a byte shows that it is above US-ASCII, or above "~", or below `first`, or one of `without`.
    // What is carried to a neighbour comes from a byte that is none of these either.
    const std::uint64_t others = bytes | (bytes + each(1)) | (bytes - each(first)) |
                                 (std::uint64_t{0} | ... | ((bytes ^ each(without)) - each(1)));
    if ((others & each('\x80')) != 0) break;
    length += sizeof bytes;
  }
  return length;
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
  // How many characters at the front of `text` are members; `length` of them are known to be.
  [[nodiscard]] constexpr std::size_t lengthIn(std::string_view text, std::size_t length = 0) const {
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
