#include "jsproxy/text_code.h"

#include <array>
#include <cstddef>
#include <cstring>

namespace {

// Enciphered bytes are as good as random, so a branch on any of them is mispredicted every other time. Both directions
// therefore do the same work for one-byte and two-byte characters and move on by one or two.

constexpr unsigned leadOfNul = 0xC4;  // of U+0100
constexpr unsigned lead = 0xC0;
constexpr unsigned trail = 0x80;
constexpr unsigned leadMask = 0xF8;  // U+0000 to U+01FF
constexpr unsigned trailMask = 0xC0;
constexpr unsigned trailBits = 0x3F;

// The character of a byte in UTF-8, and how many bytes of the pair it has.
struct Character {
  std::array<char, 2> pair;
  std::uint8_t length;
};

constexpr auto characters = [] {
  std::array<Character, 256> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    const bool isOne = byte != 0 && byte < 0x80;
    const unsigned first = isOne ? byte : byte == 0 ? leadOfNul : lead | byte >> 6;
    const unsigned second = trail | (byte & trailBits);
    table[byte] = {{static_cast<char>(first), static_cast<char>(second)}, static_cast<std::uint8_t>(isOne ? 1 : 2)};
  }
  return table;
}();

unsigned digitOrZero(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 0;
}

}  // namespace

std::string bytesToText(std::span<const std::uint8_t> bytes) {
  std::string text;
  text.resize_and_overwrite(2 * bytes.size(), [bytes](char* const begin, std::size_t) {
    char* out = begin;
    for (const std::uint8_t byte : bytes) {
      const Character& character = characters[byte];
      // What is written behind a one-byte character is overwritten; there is room for it at the end as well.
      std::memcpy(out, character.pair.data(), character.pair.size());
      out += character.length;
    }
    return static_cast<std::size_t>(out - begin);
  });
  return text;
}

bool textToBytes(std::string_view text, std::string& bytes) {
  unsigned bad = 0;
  bytes.resize_and_overwrite(text.size(), [text, &bad](char* const begin, std::size_t) {
    char* out = begin;
    std::size_t at = 0;
    while (at + 1 < text.size()) {
      const unsigned first = static_cast<std::uint8_t>(text[at]);
      const unsigned second = static_cast<std::uint8_t>(text[at + 1]);
      const unsigned isTwo = first >> 7;
      const unsigned isPair =
          static_cast<unsigned>((first & leadMask) == lead) & static_cast<unsigned>((second & trailMask) == trail);
      const unsigned mask = 0U - isTwo;
      bad |= isTwo & ~isPair;
      *out++ = static_cast<char>((first & ~mask) | (((first << 6 & 0xC0) | (second & trailBits)) & mask));
      at += 1 + isTwo;
    }
    if (at < text.size()) {
      bad |= static_cast<std::uint8_t>(text[at]) >> 7;
      *out++ = text[at];
    }
    return bad != 0 ? 0 : static_cast<std::size_t>(out - begin);
  });
  return bad == 0;
}

std::string urlDecode(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t at = 0; at < text.size(); ++at) {
    if (text[at] != '%') {
      out += text[at];
      continue;
    }
    if (text.size() - at <= 2) return {};
    out += static_cast<char>(digitOrZero(text[at + 1]) << 4 | digitOrZero(text[at + 2]));
    at += 2;
  }
  return out;
}
