#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// Bytes as text and back: how enciphered frames travel through browser strings, and file names through query strings.

// Each byte becomes one character, written as UTF-8; byte 0 becomes U+0100, so that the text holds no NUL. Whoever
// reads it keeps the low 8 bits of each character.
[[nodiscard]] std::string bytesToText(std::span<const std::uint8_t> bytes);

// The low 8 bits of each character of a UTF-8 text replace what `bytes` held. False, and `bytes` is empty: the text is
// no UTF-8 or holds a character above U+01FF. Forms that are longer than need be (C0 and C1) are taken.
bool textToBytes(std::string_view text, std::string& bytes);

// Every "%" and the two characters behind it become one byte; what is no hexadecimal digit counts as 0 and "+" is a
// plus. Empty when a "%" has fewer than two characters behind it.
[[nodiscard]] std::string urlDecode(std::string_view text);

// The same bytes, as the crypto and message libraries want them.
[[nodiscard]] inline std::span<const std::uint8_t> asBytes(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
[[nodiscard]] inline std::span<std::uint8_t> asWritableBytes(std::string& text) {
  return {reinterpret_cast<std::uint8_t*>(text.data()), text.size()};
}
