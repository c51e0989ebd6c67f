#pragma once

// Loads and stores of numbers in a fixed byte order. This is the only place of the system that knows byte order: no
// other code casts bytes to numbers, so neither the host's order nor alignment matters anywhere.
//
// Every function needs as many bytes at `p` as its name says; the caller has checked that.

#include <cstdint>

[[nodiscard]] constexpr std::uint16_t loadLe16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>(p[0] | (p[1] << 8));
}

[[nodiscard]] constexpr std::uint32_t loadLe32(const std::uint8_t* p) {
  return static_cast<std::uint32_t>(p[0]) | (static_cast<std::uint32_t>(p[1]) << 8) |
         (static_cast<std::uint32_t>(p[2]) << 16) | (static_cast<std::uint32_t>(p[3]) << 24);
}

[[nodiscard]] constexpr std::uint64_t loadLe64(const std::uint8_t* p) {
  return static_cast<std::uint64_t>(loadLe32(p)) | (static_cast<std::uint64_t>(loadLe32(p + 4)) << 32);
}

[[nodiscard]] constexpr std::uint16_t loadBe16(const std::uint8_t* p) {
  return static_cast<std::uint16_t>((p[0] << 8) | p[1]);
}

[[nodiscard]] constexpr std::uint32_t loadBe32(const std::uint8_t* p) {
  return (static_cast<std::uint32_t>(p[0]) << 24) | (static_cast<std::uint32_t>(p[1]) << 16) |
         (static_cast<std::uint32_t>(p[2]) << 8) | static_cast<std::uint32_t>(p[3]);
}

[[nodiscard]] constexpr std::uint64_t loadBe64(const std::uint8_t* p) {
  return (static_cast<std::uint64_t>(loadBe32(p)) << 32) | static_cast<std::uint64_t>(loadBe32(p + 4));
}

constexpr void storeLe16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v);
  p[1] = static_cast<std::uint8_t>(v >> 8);
}

constexpr void storeLe32(std::uint8_t* p, std::uint32_t v) {
  storeLe16(p, static_cast<std::uint16_t>(v));
  storeLe16(p + 2, static_cast<std::uint16_t>(v >> 16));
}

constexpr void storeLe64(std::uint8_t* p, std::uint64_t v) {
  storeLe32(p, static_cast<std::uint32_t>(v));
  storeLe32(p + 4, static_cast<std::uint32_t>(v >> 32));
}

constexpr void storeBe16(std::uint8_t* p, std::uint16_t v) {
  p[0] = static_cast<std::uint8_t>(v >> 8);
  p[1] = static_cast<std::uint8_t>(v);
}

constexpr void storeBe32(std::uint8_t* p, std::uint32_t v) {
  storeBe16(p, static_cast<std::uint16_t>(v >> 16));
  storeBe16(p + 2, static_cast<std::uint16_t>(v));
}

constexpr void storeBe64(std::uint8_t* p, std::uint64_t v) {
  storeBe32(p, static_cast<std::uint32_t>(v >> 32));
  storeBe32(p + 4, static_cast<std::uint32_t>(v));
}
