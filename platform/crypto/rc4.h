#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// The RC4 keystream (test vectors: RFC 6229). One object is one direction of one session; it cannot go back.
class RC4 {
 public:
  // `key` has 1 to 256 bytes.
  explicit RC4(std::span<const std::uint8_t> key);
  RC4(RC4&&) = default;
  RC4& operator=(RC4&&) = default;
  RC4(const RC4&) = delete;
  RC4& operator=(const RC4&) = delete;
  ~RC4();

  // Discards the next `count` bytes of the keystream.
  void skip(std::size_t count);
  // The next byte of the keystream.
  [[nodiscard]] std::uint8_t gen();
  // The next bytes of the keystream, into `out`.
  void gen(std::span<std::uint8_t> out);
  // Enciphers, or deciphers, in place.
  void encrypt(std::span<std::uint8_t> bytes);

 private:
  // Words rather than bytes: loads and stores of whole words are what the inner loop waits for.
  std::array<std::uint32_t, 256> state_;
  std::uint32_t i_ = 0;
  std::uint32_t j_ = 0;
};
