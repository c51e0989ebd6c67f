#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// Arithmetic modulo p = 2^255 - 19, in constant time, for the ladder of curve25519.cc alone.
//
// Two representations, chosen by what the compiler multiplies well: five limbs of 51 bits where a product may have 128
// bits, ten limbs of 26 and 25 bits in turn where it may have 64. A number has many representations; `toBytes` gives
// the one below p. Results of mul, square and mulSmall may go into add or sub once before they are multiplied again.
class Field25519 {
 public:
  static constexpr std::size_t byteCount = 32;

  Field25519() = default;  // 0
  [[nodiscard]] static Field25519 one();
  // 32 little-endian bytes; bit 255 is ignored.
  [[nodiscard]] static Field25519 fromBytes(std::span<const std::uint8_t, byteCount> bytes);
  void toBytes(std::span<std::uint8_t, byteCount> out) const;

  friend Field25519 operator+(const Field25519& a, const Field25519& b);
  friend Field25519 operator-(const Field25519& a, const Field25519& b);
  friend Field25519 operator*(const Field25519& a, const Field25519& b);
  [[nodiscard]] Field25519 square() const;
  // `factor` below 2^17.
  [[nodiscard]] Field25519 mulSmall(std::uint32_t factor) const;
  // The number's inverse, by Fermat; 0 for 0.
  [[nodiscard]] Field25519 inverse() const;

  // Exchanges a and b when `bit` is 1, and does the same work when it is 0.
  static void swapIf(std::uint32_t bit, Field25519& a, Field25519& b);
  void wipeOut();

 private:
#ifdef __SIZEOF_INT128__
  using Limb = std::uint64_t;
  static constexpr std::size_t limbs = 5;
#else
  using Limb = std::uint32_t;
  static constexpr std::size_t limbs = 10;
#endif
  [[nodiscard]] Field25519 squareTimes(unsigned count) const;

  std::array<Limb, limbs> v_{};
};
