#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// A number of 256 bits, as far as the key exchange needs one: it comes from and goes to big-endian bytes. It may be a
// secret, so it is wiped when it ends.
class BigNum {
 public:
  static constexpr std::size_t maxBytes = 32;

  BigNum() = default;
  explicit BigNum(std::uint32_t value);
  // Big-endian, at the most 32 bytes; fewer are the low end of the number.
  explicit BigNum(std::span<const std::uint8_t> bigEndian);
  BigNum(const BigNum&) = default;
  BigNum& operator=(const BigNum&) = default;
  ~BigNum();

  // The number as 32 big-endian bytes, padded with zeros on the left.
  void bin(std::span<std::uint8_t, maxBytes> out) const;

  // The number as 32 little-endian bytes, which is how RFC 7748 writes coordinates and scalars.
  [[nodiscard]] const std::array<std::uint8_t, maxBytes>& littleEndian() const { return bytes_; }
  [[nodiscard]] static BigNum fromLittleEndian(std::span<const std::uint8_t, maxBytes> bytes);

 private:
  std::array<std::uint8_t, maxBytes> bytes_{};  // least significant first
};
