#pragma once

#include <array>
#include <cstdint>
#include <limits>

// Numbers as the reader of the JSON form takes them. Texts end with a NUL.
namespace json {

[[nodiscard]] inline bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

inline constexpr unsigned noDigit = 16;

inline constexpr auto digits = [] {
  std::array<std::uint8_t, 256> table{};
  table.fill(noDigit);
  for (unsigned i = 0; i < 10; ++i)
    table['0' + i] = static_cast<std::uint8_t>(i);
  for (unsigned i = 0; i < 6; ++i) {
    table['a' + i] = static_cast<std::uint8_t>(10 + i);
    table['A' + i] = static_cast<std::uint8_t>(10 + i);
  }
  return table;
}();

// Value of a digit in bases up to 16; 16 for what is none.
[[nodiscard]] inline unsigned digitOf(char c) {
  return digits[static_cast<std::uint8_t>(c)];
}

template <typename Number>
struct Parsed {
  Number value;
  const char* end;  // where it began when there was no digit
};

// A number with the semantics of the C library's strtoul for an unsigned long of Number's width, in base 0, 10 or 16.
// The library itself will not do: its unsigned long has 64 bits on some machines.
template <typename Number>
[[nodiscard]] Parsed<Number> parseNumber(const char* text, unsigned base) {
  const char* p = text;
  while (isSpace(*p))
    ++p;
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  const bool prefixed = p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitOf(p[2]) < noDigit;
  if (prefixed && base != 10) {
    p += 2;
    base = 16;
  } else if (base == 0) {
    base = *p == '0' ? 8 : 10;
  }
  constexpr Number most = std::numeric_limits<Number>::max();
  Number value = 0;
  bool overflow = false;
  const char* const first = p;
  for (unsigned digit = digitOf(*p); digit < base; digit = digitOf(*++p)) {
    overflow = overflow || value > (most - digit) / base;
    value = static_cast<Number>(value * base + digit);
  }
  if (p == first) return {0, text};
  if (overflow) return {most, p};
  return {negative ? static_cast<Number>(0 - value) : value, p};
}

// The same in base 0 or 10, with a short way for what nearly all numbers are: some decimal digits.
template <typename Number>
[[nodiscard]] Parsed<Number> parseDecimal(const char* text, unsigned base) {
  constexpr int safe = std::numeric_limits<Number>::digits10;
  const char* p = text;
  if (*p >= '1' && *p <= '9') {
    Number value = 0;
    for (unsigned digit = digitOf(*p); digit < 10; digit = digitOf(*++p)) {
      if (p - text == safe) return parseNumber<Number>(text, base);
      value = static_cast<Number>(value * 10 + digit);
    }
    return {value, p};
  }
  if (*p == '0' && digitOf(p[1]) == noDigit && p[1] != 'x' && p[1] != 'X') return {0, p + 1};
  return parseNumber<Number>(text, base);
}

// A field's number.
[[nodiscard]] inline Parsed<std::uint32_t> parseId(const char* text) {
  constexpr int safe = 8;
  if (*text == '0') return parseNumber<std::uint32_t>(text, 16);
  std::uint32_t value = 0;
  const char* p = text;
  for (unsigned digit = digitOf(*p); digit < noDigit; digit = digitOf(*++p)) {
    if (p - text == safe) return parseNumber<std::uint32_t>(text, 16);
    value = value << 4 | digit;
  }
  return {value, p};
}

}  // namespace json
