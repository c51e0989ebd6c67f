#include "platform/web/ip_addr6.h"

#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <random>
#include <string>

namespace {

IPAddr6 addressOf(const std::string& text) {
  IPAddr6::Bytes bytes{};
  EXPECT_EQ(inet_pton(AF_INET6, text.c_str(), bytes.data()), 1) << text;
  return IPAddr6(bytes);
}

IPAddr6 ipv4(std::uint32_t address) {
  IPAddr6 result;
  result.setIPv4(address);
  return result;
}

TEST(IPAddr6, StartsUnspecified) {
  EXPECT_EQ(IPAddr6().str(true), "::");
  EXPECT_FALSE(IPAddr6().isIPv4());
}

struct TextCase {
  const char* given;
  const char* expected;
};

class Rfc5952 : public testing::TestWithParam<TextCase> {};

TEST_P(Rfc5952, Text) {
  EXPECT_EQ(addressOf(GetParam().given).str(true), GetParam().expected);
  EXPECT_EQ(addressOf(GetParam().given).str(false), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, Rfc5952,
    testing::Values(TextCase{"::", "::"}, TextCase{"::1", "::1"}, TextCase{"1::", "1::"},
                    TextCase{"fe80::1", "fe80::1"}, TextCase{"2001:0db8::0001", "2001:db8::1"},  // no leading zeros
                    TextCase{"2001:db8:0:0:0:0:2:1", "2001:db8::2:1"},                           // as short as may be
                    TextCase{"2001:db8:0:1:1:1:1:1", "2001:db8:0:1:1:1:1:1"},                    // never one group
                    TextCase{"2001:0:0:1:0:0:0:1", "2001:0:0:1::1"},                             // the longest run
                    TextCase{"2001:db8:0:0:1:0:0:1", "2001:db8::1:0:0:1"},                       // the first of two
                    TextCase{"2001:DB8:AAAA:BBBB:CCCC:DDDD:EEEE:F",
                             "2001:db8:aaaa:bbbb:cccc:dddd:eeee:f"},  // lower case
                    TextCase{"0:0:1::", "0:0:1::"}, TextCase{"1:0:0:2:0:0:0:0", "1:0:0:2::"},
                    TextCase{"0:1:2:3:4:5:6:7", "0:1:2:3:4:5:6:7"}, TextCase{"1:2:3:4:5:6:7:0", "1:2:3:4:5:6:7:0"},
                    TextCase{"0:0:0:0:0:0:0:8", "::8"}, TextCase{"1:2:3:4:5:6:0:0", "1:2:3:4:5:6::"},
                    TextCase{"::fffe:102:304", "::fffe:102:304"}, TextCase{"::102:304", "::102:304"},
                    TextCase{"ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff", "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff"}));

TEST(IPAddr6, Ipv4HasTwoForms) {
  const IPAddr6 address = ipv4(0x0a000001);
  EXPECT_TRUE(address.isIPv4());
  EXPECT_EQ(address.str(true), "10.0.0.1");
  EXPECT_EQ(address.str(false), "::ffff:10.0.0.1");
  EXPECT_EQ(ipv4(0).str(true), "0.0.0.0");
  EXPECT_EQ(ipv4(0xffffffff).str(true), "255.255.255.255");
  EXPECT_EQ(address.bytes(), (IPAddr6::Bytes{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 1}));
}

TEST(IPAddr6, OnlyMappedAddressesAreIpv4) {
  EXPECT_TRUE(addressOf("::ffff:1.2.3.4").isIPv4());
  EXPECT_FALSE(addressOf("::1.2.3.4").isIPv4());
  EXPECT_FALSE(addressOf("::1:ffff:1.2.3.4").isIPv4());
  EXPECT_FALSE(addressOf("1::ffff:1.2.3.4").isIPv4());
  EXPECT_FALSE(addressOf("64:ff9b::1.2.3.4").isIPv4());
}

// The text reads back as the address, and no valid text of the same address is shorter than ours.
TEST(IPAddr6, TextReadsBack) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    IPAddr6::Bytes bytes{};
    const auto zeros = random();  // half of the groups are zero, so that runs of all lengths come
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      if ((zeros >> (i / 2) & 1U) != 0) bytes[i] = static_cast<std::uint8_t>(random());
    }
    const IPAddr6 address(bytes);
    const std::string text = address.str(round % 2 == 0 && !address.isIPv4());
    EXPECT_EQ(addressOf(text), address) << text;
    char buffer[INET6_ADDRSTRLEN];
    ASSERT_NE(inet_ntop(AF_INET6, bytes.data(), buffer, sizeof buffer), nullptr);
    EXPECT_LE(text.size(), std::strlen(buffer) + 1) << text << " " << buffer;
  }
}

// As the forwarding header has it: a socket address at any place of a byte buffer.
template <typename Address>
IPAddr6 assignedFrom(const Address& address, std::size_t offset) {
  std::vector<std::uint8_t> buffer(offset +
                                   sizeof address);  // nothing behind it: a read too far is seen by the sanitizers
  std::memcpy(buffer.data() + offset, &address, sizeof address);
  IPAddr6 result = addressOf("1:2:3:4:5:6:7:8");
  const void* const at = buffer.data() + offset;
  result = *static_cast<const sockaddr*>(at);
  return result;
}

TEST(IPAddr6, TakesSocketAddresses) {
  sockaddr_in6 six{};
  six.sin6_family = AF_INET6;
  six.sin6_port = 0xffff;
  six.sin6_flowinfo = 0xffffffff;
  six.sin6_addr = in6addr_loopback;
  six.sin6_scope_id = 0xffffffff;
  EXPECT_EQ(assignedFrom(six, 0).str(true), "::1");
  EXPECT_EQ(inet_pton(AF_INET6, "fe80::aabb:1", &six.sin6_addr), 1);
  EXPECT_EQ(assignedFrom(six, 0).str(true), "fe80::aabb:1");

  sockaddr_in four{};
  four.sin_family = AF_INET;
  four.sin_port = 0xffff;
  EXPECT_EQ(inet_pton(AF_INET, "192.0.2.33", &four.sin_addr), 1);
  EXPECT_EQ(assignedFrom(four, 0).str(true), "192.0.2.33");
  EXPECT_EQ(assignedFrom(four, 0).str(false), "::ffff:192.0.2.33");
}

TEST(IPAddr6, OtherFamiliesGiveTheUnspecifiedAddress) {
  for (const int family : {AF_UNSPEC, AF_UNIX, AF_NETLINK, 0xffff}) {
    sockaddr address{};
    std::memset(&address, 0x11, sizeof address);
    address.sa_family = static_cast<sa_family_t>(family);
    EXPECT_EQ(assignedFrom(address, 0), IPAddr6()) << family;
  }
}

TEST(IPPrefix6, DefaultHoldsEverything) {
  EXPECT_TRUE(IPPrefix6().has(IPAddr6()));
  EXPECT_TRUE(IPPrefix6().has(ipv4(0x7f000001)));
  EXPECT_TRUE(IPPrefix6().has(addressOf("ffff:ffff::1")));
}

// Every length against an address that differs in one bit: inside when that bit lies behind the prefix.
TEST(IPPrefix6, EveryLengthAndBit) {
  const IPAddr6 base = addressOf("2001:db8:a5a5:5a5a:1234:5678:9abc:def0");
  for (std::uint32_t length = 0; length <= 128; ++length) {
    const IPPrefix6 prefix(base, length);
    EXPECT_TRUE(prefix.has(base));
    for (std::uint32_t bit = 0; bit < 128; ++bit) {
      IPAddr6::Bytes bytes = base.bytes();
      bytes[bit / 8] = static_cast<std::uint8_t>(bytes[bit / 8] ^ (0x80U >> (bit % 8)));
      EXPECT_EQ(prefix.has(IPAddr6(bytes)), bit >= length) << "/" << length << " bit " << bit;
    }
  }
}

TEST(IPPrefix6, LongerThanAnAddressCountsAsTheAddress) {
  const IPAddr6 base = addressOf("fe80::1");
  for (const std::uint32_t length : {129U, 136U, 256U, 0xffffffffU}) {
    EXPECT_TRUE(IPPrefix6(base, length).has(base));
    EXPECT_FALSE(IPPrefix6(base, length).has(addressOf("fe80::")));
    EXPECT_FALSE(IPPrefix6(base, length).has(addressOf("7e80::1")));
  }
}

TEST(IPPrefix6, BitsBehindThePrefixDoNotMatter) {
  EXPECT_TRUE(IPPrefix6(addressOf("2001:db8::ffff"), 32).has(addressOf("2001:db8:1::")));
}

IPPrefix6 ipv4Prefix(std::uint32_t address, std::uint32_t mask) {
  IPPrefix6 prefix;
  prefix.address().setIPv4(address);
  prefix.setIPv4Mask(mask);
  return prefix;
}

TEST(IPPrefix6, Ipv4Networks) {
  const IPPrefix6 network = ipv4Prefix(0xc0a80100, 0xffffff00);
  EXPECT_TRUE(network.has(ipv4(0xc0a80100)));
  EXPECT_TRUE(network.has(ipv4(0xc0a801ff)));
  EXPECT_FALSE(network.has(ipv4(0xc0a80201)));
  EXPECT_FALSE(network.has(addressOf("::c0a8:101")));

  const IPPrefix6 host = ipv4Prefix(0x7f000001, 0xffffffff);
  EXPECT_TRUE(host.has(ipv4(0x7f000001)));
  EXPECT_FALSE(host.has(ipv4(0x7f000000)));

  const IPPrefix6 half = ipv4Prefix(0x80000000, 0x80000000);
  EXPECT_TRUE(half.has(ipv4(0xffffffff)));
  EXPECT_FALSE(half.has(ipv4(0x7fffffff)));
}

TEST(IPPrefix6, MaskOfZeroHoldsEveryIpv4AddressAndNoOther) {
  const IPPrefix6 all = ipv4Prefix(0x0a000001, 0);
  EXPECT_TRUE(all.has(ipv4(0)));
  EXPECT_TRUE(all.has(ipv4(0xffffffff)));
  EXPECT_FALSE(all.has(addressOf("::1")));
  EXPECT_FALSE(all.has(addressOf("2001:db8::1")));
}

TEST(IPPrefix6, MaskNeedNotBeContiguous) {
  const IPPrefix6 prefix = ipv4Prefix(0x0a000a01, 0xff00ff01);
  EXPECT_TRUE(prefix.has(ipv4(0x0a550a03)));
  EXPECT_FALSE(prefix.has(ipv4(0x0a550a02)));
  EXPECT_FALSE(prefix.has(ipv4(0x0a550b01)));
  EXPECT_FALSE(prefix.has(ipv4(0x0b000a01)));
}

}  // namespace
