#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

// SHA-1 (RFC 3174). Here it only derives session keys as RFC 3079 has it; it is not to sign or to store anything with.
class SHA1 {
 public:
  static constexpr std::size_t digestBytes = 20;
  using Digest = std::array<std::uint8_t, digestBytes>;

  SHA1() = default;
  SHA1(const SHA1&) = delete;
  SHA1& operator=(const SHA1&) = delete;
  ~SHA1();  // wipes what it saw

  // Takes the next bytes; any number of calls.
  void update(std::span<const std::uint8_t> bytes);
  // The digest of all bytes taken. Once; then the object is spent.
  [[nodiscard]] Digest finish();

 private:
  static constexpr std::size_t blockBytes = 64;

  void takeBlock(const std::uint8_t* block);

  std::array<std::uint32_t, 5> state_{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
  std::array<std::uint8_t, blockBytes> block_{};
  std::size_t held_ = 0;  // bytes of block_ that wait for the rest of their block
  std::uint64_t length_ = 0;
};
