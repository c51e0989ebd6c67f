#include "platform/crypto/curve25519.h"

#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <string>
#include <string_view>
#include <vector>

#include "tests/crypto/hex.h"

namespace {

std::vector<std::uint8_t> reversed(std::vector<std::uint8_t> bytes) {
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

// Scalar and coordinate as RFC 7748 prints them: little-endian, the scalar not yet clamped.
std::string x25519(std::string_view scalarHex, std::string_view uHex) {
  std::vector<std::uint8_t> scalar = reversed(fromHex(scalarHex));
  scalar[31] &= 0xF8;
  scalar[0] = static_cast<std::uint8_t>((scalar[0] & 0x7F) | 0x40);
  WCurve point = Curve25519::map(BigNum(reversed(fromHex(uHex))));
  point.mul(BigNum(scalar));
  std::array<std::uint8_t, BigNum::maxBytes> out;
  Curve25519::map(point).bin(out);
  std::reverse(out.begin(), out.end());
  return toHex(out);
}

const std::string nine = "09" + std::string(62, '0');

TEST(Curve25519, MultipliesAsTheRfcShows) {
  EXPECT_EQ(x25519("a546e36bf0527c9d3b16154b82465edd62144c0ac1fc5a18506a2244ba449ac4",
                   "e6db6867583030db3594c1a424b15f7c726624ec26b3353b10a903a6d0ab1c4c"),
            "c3da55379de9c6908e94ea4df28d084f32eccf03491c71f754b4075577a28552");
  EXPECT_EQ(x25519("4b66e9d4d1b4673c5ad22691957d6af5c11b6421e0ea01d42ca4169e7918ba0d",
                   "e5210f12786811d3f4b7959d0538ae2c31dbe7106fc03c3efc4cd549c715a493"),
            "95cbde9476e8907d7aade45cb4b873f88b595a68799fa152e6f8f7647aac7957");
}

TEST(Curve25519, RepeatsAThousandTimesAsTheRfcShows) {
  std::string k = nine;
  std::string u = nine;
  for (int round = 1; round <= 1000; ++round) {
    const std::string next = x25519(k, u);
    u = k;
    k = next;
    if (round == 1) {
      EXPECT_EQ(k, "422c8e7a6227d7bca1350b3e2bb7279f7897b87bb6854b783c60e80311ae3079");
    }
  }
  EXPECT_EQ(k, "684cf59ba83309552800ef566f2f4d3c1c3887c49360e3875f2eb94d99532c51");
}

TEST(Curve25519, BothSidesAgreeAsTheRfcShows) {
  const std::string alice = "77076d0a7318a57d3c16c17251b26645c6b4ab5c7a3e4a8b8e4e5d1a0f0b9c2a";
  const std::string bob = "5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb";
  const std::string alicePublic = x25519(alice, nine);
  const std::string bobPublic = x25519(bob, nine);
  EXPECT_EQ(bobPublic, "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f");
  EXPECT_EQ(x25519(alice, bobPublic), x25519(bob, alicePublic));
}

TEST(Curve25519, PointsOfSmallOrderGiveZero) {
  const std::string zero(64, '0');
  const std::string scalar(64, '7');
  EXPECT_EQ(x25519(scalar, zero), zero);
  EXPECT_EQ(x25519(scalar, "01" + std::string(62, '0')), zero);
  EXPECT_EQ(x25519(scalar, "ecffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"), zero);
}

TEST(Curve25519, TakesCoordinatesModuloThePrimeAndWithoutTheTopBit) {
  const std::string scalar(64, '5');
  // p + 9 is 9.
  EXPECT_EQ(x25519(scalar, "f6ffffffffffffffffffffffffffffffffffffffffffffffffffffffffffff7f"), x25519(scalar, nine));
  EXPECT_EQ(x25519(scalar, "09" + std::string(60, '0') + "80"), x25519(scalar, nine));
}

TEST(BigNum, ComesFromAndGoesToBigEndianBytes) {
  std::array<std::uint8_t, BigNum::maxBytes> out;
  BigNum(fromHex("0102")).bin(out);
  EXPECT_EQ(toHex(out), std::string(60, '0') + "0102");
  BigNum(9U).bin(out);
  EXPECT_EQ(toHex(out), std::string(62, '0') + "09");
  BigNum(0x01020304U).bin(out);
  EXPECT_EQ(toHex(out), std::string(56, '0') + "01020304");
}

}  // namespace
