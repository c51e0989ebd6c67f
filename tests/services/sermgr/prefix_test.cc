#include "services/sermgr/prefix.h"

#include <gtest/gtest.h>

namespace {

using sermgr::maskLength;
using sermgr::Prefix;
using sermgr::prefixText;
using sermgr::readPrefixText;

TEST(Masks, OfEveryLengthComeBack) {
  for (unsigned length = 0; length <= 32; ++length) {
    const Prefix prefix = Prefix::ofIpv4(0x7F000001, length);
    EXPECT_EQ(prefix.ipv4Address(), 0x7F000001U);
    EXPECT_EQ(maskLength(prefix.ipv4Mask()), length);
  }
  EXPECT_EQ(Prefix::ofIpv4(0, 0).ipv4Mask(), 0U);
  EXPECT_EQ(Prefix::ofIpv4(0, 8).ipv4Mask(), 0xFF000000U);
  EXPECT_EQ(Prefix::ofIpv4(0, 32).ipv4Mask(), 0xFFFFFFFFU);
}

TEST(Masks, WithHolesHaveNoLength) {
  for (const std::uint32_t mask : {0x00000001U, 0x000000FFU, 0x7FFFFFFFU, 0xFF00FF00U, 0xFFFFFFFDU, 0xFE000001U}) {
    EXPECT_EQ(maskLength(mask), std::nullopt) << mask;
  }
}

TEST(PrefixText, IsAddressAndLength) {
  EXPECT_EQ(prefixText(Prefix::ofIpv4(0x7F000000, 8)), "127.0.0.0/8");
  EXPECT_EQ(prefixText(Prefix::ofIpv4(0xC0A80102, 32)), "192.168.1.2/32");
  Prefix loopback;
  loopback.address[15] = 1;
  loopback.length = 128;
  EXPECT_EQ(prefixText(loopback), "::1/128");
  EXPECT_EQ(prefixText(Prefix()), "::/0");
}

TEST(PrefixText, IsReadBack) {
  for (const std::string_view text : {"0.0.0.0/0", "127.0.0.0/8", "255.255.255.255/32", "::/0", "::1/128", "fe80::/10",
                                      "2001:db8:1:2:3:4:5:6/64", "::ffff:127.0.0.1/96"}) {
    const auto prefix = readPrefixText(text);
    ASSERT_TRUE(prefix.has_value()) << text;
    EXPECT_EQ(prefixText(*prefix), text);
  }
}

TEST(PrefixText, RefusesAnythingElse) {
  using namespace std::string_view_literals;
  for (const std::string_view text :
       {""sv, "/"sv, "127.0.0.1"sv, "127.0.0.1/"sv, "/8"sv, "127.0.0.1/33"sv, "127.0.0.1/-1"sv, "127.0.0.1/8 "sv,
        "127.0.0.1/ 8"sv, " 127.0.0.1/8"sv, "127.0.0/8"sv, "127.0.0.256/8"sv, "::1/129"sv, "::1::/8"sv, "::1/8/9"sv,
        "127.0.0.1\0x/8"sv, "::1/99999999999"sv, "localhost/8"sv, "127.0.0.1/255.0.0.0"sv}) {
    EXPECT_EQ(readPrefixText(text), std::nullopt) << ::testing::PrintToString(text);
  }
}

}  // namespace
