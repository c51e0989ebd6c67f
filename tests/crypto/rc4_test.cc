#include "platform/crypto/rc4.h"

#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <vector>

#include "tests/crypto/hex.h"

namespace {

std::string keystream(const char* keyHex, std::size_t offset, std::size_t count) {
  RC4 cipher(fromHex(keyHex));
  cipher.skip(offset);
  std::vector<std::uint8_t> out(count);
  cipher.gen(out);
  return toHex(out);
}

TEST(RC4, GeneratesTheKeystreamOfTheRfc) {
  EXPECT_EQ(keystream("0102030405", 0, 32), "b2396305f03dc027ccc3524a0a1118a86982944f18fc82d589c403a47a0d0919");
  EXPECT_EQ(keystream("0102030405060708090a0b0c0d0e0f10", 0, 16), "9ac7cc9a609d1ef7b2932899cde41b97");
}

TEST(RC4, SkippingIsGeneratingAndThrowingAway) {
  const auto key = fromHex("0102030405060708090a0b0c0d0e0f10");
  RC4 skipped(key);
  skipped.skip(768);
  RC4 generated(key);
  for (int i = 0; i < 768; ++i)
    static_cast<void>(generated.gen());
  for (int i = 0; i < 300; ++i)
    ASSERT_EQ(skipped.gen(), generated.gen()) << i;
}

TEST(RC4, EncipheringTwiceRestoresTheText) {
  const auto key = fromHex("00ff10");
  std::vector<std::uint8_t> text(1000);
  for (std::size_t i = 0; i < text.size(); ++i)
    text[i] = static_cast<std::uint8_t>(i * 7);
  std::vector<std::uint8_t> bytes = text;
  RC4(key).encrypt(bytes);
  EXPECT_NE(bytes, text);
  RC4(key).encrypt(bytes);
  EXPECT_EQ(bytes, text);
}

TEST(RC4, EncipheringInPiecesIsEncipheringAtOnce) {
  const auto key = fromHex("a1b2c3d4e5f60718293a4b5c6d7e8f90");
  std::array<std::uint8_t, 100> whole{};
  std::array<std::uint8_t, 100> pieces{};
  RC4(key).encrypt(whole);
  RC4 cipher(key);
  for (std::size_t at = 0, size = 1; at < pieces.size(); at += size, size = std::min(size * 2, pieces.size() - at)) {
    cipher.encrypt(std::span(pieces).subspan(at, std::min(size, pieces.size() - at)));
  }
  EXPECT_EQ(pieces, whole);
}

TEST(RC4, TakesKeysOfTheLargestSize) {
  std::vector<std::uint8_t> key(256);
  for (std::size_t i = 0; i < key.size(); ++i)
    key[i] = static_cast<std::uint8_t>(255 - i);
  RC4 cipher(key);
  std::array<std::uint8_t, 64> zeros{};
  cipher.encrypt(zeros);
  EXPECT_NE(toHex(zeros), std::string(128, '0'));
}

}  // namespace
