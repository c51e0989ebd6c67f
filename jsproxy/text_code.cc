#include "jsproxy/text_code.h"

#include <cstddef>

namespace {

// Enciphered bytes are as good as random, so a branch on any of them is mispredicted every other time. Both directions
// therefore do the same work for one-byte and two-byte characters and move on by one or two.

constexpr unsigned firstTwoByte = 0x80;  // bytes from here on have two bytes in the text, and so has 0
constexpr unsigned leadOfNul = 0xC4;     // of U+0100
constexpr unsigned lead = 0xC0;
constexpr unsigned trail = 0x80;
constexpr unsigned leadMask = 0xF8;  // U+0000 to U+01FF
constexpr unsigned trailMask = 0xC0;
constexpr unsigned trailBits = 0x3F;

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
      const bool isNul = byte == 0;
      const bool isTwo = isNul || byte >= firstTwoByte;
      const unsigned first = isNul ? leadOfNul : lead | byte >> 6;
      out[0] = static_cast<char>(isTwo ? first : byte);
      // The second one is overwritten by what follows a one-byte character; there is room for it at the end as well.
      out[1] = static_cast<char>(trail | (byte & trailBits));
      out += isTwo ? 2 : 1;
    }
    return static_cast<std::size_t>(out - begin);
  });
  return text;
}

bool textToBytes(std::string_view text, std::string& bytes) {
  bool bad = false;
  bytes.resize_and_overwrite(text.size(), [text, &bad](char* const begin, std::size_t) {
    char* out = begin;
    std::size_t at = 0;
    while (at + 1 < text.size()) {
      const auto first = static_cast<std::uint8_t>(text[at]);
      const auto second = static_cast<std::uint8_t>(text[at + 1]);
      const bool isTwo = first >= firstTwoByte;
      const bool isPair = (first & leadMask) == lead && (second & trailMask) == trail;
      bad |= isTwo && !isPair;
      *out++ = static_cast<char>(isTwo ? (first << 6 & 0xC0) | (second & trailBits) : first);
      at += isTwo ? 2 : 1;
    }
    if (at < text.size()) {
      bad |= static_cast<std::uint8_t>(text[at]) >= firstTwoByte;
      *out++ = text[at];
    }
    return bad ? 0 : static_cast<std::size_t>(out - begin);
  });
  return !bad;
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
