#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "fuzz/require.h"
#include "jsproxy/text_code.h"

// The forms in which bytes travel through browsers, beside a description of each that is written for nothing but to be
// plain.

namespace {

// The low 8 bits of each character up to U+01FF, one or two bytes each.
std::optional<std::string> bytesOf(std::string_view text) {
  std::string bytes;
  while (!text.empty()) {
    const auto first = static_cast<std::uint8_t>(text[0]);
    if (first < 0x80) {
      bytes += text[0];
      text.remove_prefix(1);
      continue;
    }
    if (first < 0xC0 || first > 0xC7 || text.size() < 2) return std::nullopt;
    const auto second = static_cast<std::uint8_t>(text[1]);
    if (second < 0x80 || second > 0xBF) return std::nullopt;
    bytes += static_cast<char>((first - 0xC0) * 64 + (second - 0x80));
    text.remove_prefix(2);
  }
  return bytes;
}

int digit(char c) {
  const std::size_t place = std::string_view("0123456789abcdefABCDEF").find(c);
  if (c == '\0' || place == std::string_view::npos) return 0;
  return static_cast<int>(place < 16 ? place : place - 6);
}

std::string unescaped(std::string_view text) {
  std::string out;
  while (!text.empty()) {
    const bool escape = text[0] == '%';
    if (escape && text.size() < 3) return "";
    out += escape ? static_cast<char>(digit(text[1]) * 16 + digit(text[2])) : text[0];
    text.remove_prefix(escape ? 3 : 1);
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  std::string decoded = "before";
  const auto expected = bytesOf(text);
  require(textToBytes(text, decoded) == expected.has_value());
  require(decoded == expected.value_or(""));

  const std::string encoded = bytesToText({data, size});
  require(encoded.find('\0') == std::string::npos);
  require(textToBytes(encoded, decoded) && decoded == text && bytesOf(encoded) == decoded);

  require(urlDecode(text) == unescaped(text));
  return 0;
}
