#include "platform/crypto/sha1.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "tests/crypto/hex.h"

namespace {

std::vector<std::uint8_t> bytesOf(const std::string& text) {
  return {text.begin(), text.end()};
}

std::string digestOf(const std::string& text) {
  SHA1 hash;
  hash.update(bytesOf(text));
  return toHex(hash.finish());
}

TEST(SHA1, DigestsAsTheRfcShows) {
  EXPECT_EQ(digestOf("abc"), "a9993e364706816aba3e25717850c26c9cd0d89d");
  EXPECT_EQ(digestOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "84983e441c3bd26ebaae4aa1f95129e5e54670f1");
  EXPECT_EQ(digestOf(std::string(1000000, 'a')), "34aa973cd4c4daa4f61eeb2bdbad27316534016f");
  std::string repeated;
  for (int i = 0; i < 80; ++i)
    repeated += "01234567";
  EXPECT_EQ(digestOf(repeated), "dea356a2cddd90c7a7ecedc5ebb563934f460452");
}

TEST(SHA1, DigestsNothing) {
  EXPECT_EQ(digestOf(""), "da39a3ee5e6b4b0d3255bfef95601890afd80709");
}

TEST(SHA1, PiecesOfAnySizeMakeTheSameDigest) {
  const std::vector<std::uint8_t> text = bytesOf(std::string(300, 'x') + std::string(77, 'y'));
  SHA1 whole;
  whole.update(text);
  const auto expected = whole.finish();
  for (std::size_t size = 1; size <= 130; ++size) {
    SHA1 pieces;
    for (std::size_t at = 0; at < text.size(); at += size) {
      pieces.update(std::span(text).subspan(at, std::min(size, text.size() - at)));
    }
    EXPECT_EQ(pieces.finish(), expected) << size;
  }
}

// Around the block's end the length goes into a block of its own.
TEST(SHA1, EveryLengthAroundABlockHasItsOwnDigest) {
  std::vector<std::string> digests;
  for (std::size_t n = 50; n < 140; ++n)
    digests.push_back(digestOf(std::string(n, 'z')));
  std::sort(digests.begin(), digests.end());
  EXPECT_EQ(std::unique(digests.begin(), digests.end()), digests.end());
}

}  // namespace
