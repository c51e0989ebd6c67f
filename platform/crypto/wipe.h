#pragma once

#include <cstddef>

// Overwrites a secret with zeros in a way the compiler keeps, though nobody reads the bytes again.
inline void wipe(void* bytes, std::size_t length) {
  __builtin_memset(bytes, 0, length);
  __asm__ __volatile__("" : : "r"(bytes) : "memory");
}

// Whether two ranges of the same length hold the same bytes, in a time that tells nothing about where they differ.
[[nodiscard]] inline bool equalInConstantTime(const unsigned char* a, const unsigned char* b, std::size_t length) {
  unsigned difference = 0;
  for (std::size_t i = 0; i < length; ++i)
    difference |= static_cast<unsigned>(a[i] ^ b[i]);
  return difference == 0;
}
