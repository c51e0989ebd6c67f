#include "tools/forwarder/forwarding_header.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace {

using forwarder::Address;
using forwarder::forwardingHeader;
using forwarder::parseAddress;

Address addressOf(std::string_view text) {
  const auto address = parseAddress(text);
  EXPECT_TRUE(address) << text;
  return address.value_or(Address());
}

std::vector<int> bytesOf(const Address& address, std::size_t from, std::size_t count) {
  const auto begin = address.bytes.begin() + static_cast<std::ptrdiff_t>(from);
  return {begin, begin + static_cast<std::ptrdiff_t>(count)};
}

TEST(ForwarderAddressTest, ReadsAddresses) {
  const Address ipv4 = addressOf("10.1.2.3:8091");
  EXPECT_EQ(ipv4.family(), AF_INET);
  EXPECT_EQ(ipv4.length(), sizeof(sockaddr_in));
  EXPECT_EQ(bytesOf(ipv4, 2, 6), (std::vector<int>{0x1f, 0x9b, 10, 1, 2, 3}));
  const Address ipv6 = addressOf("[fe80::1]:80");
  EXPECT_EQ(ipv6.family(), AF_INET6);
  EXPECT_EQ(ipv6.length(), sizeof(sockaddr_in6));
  EXPECT_EQ(bytesOf(ipv6, 2, 2), (std::vector<int>{0, 80}));
  EXPECT_EQ(bytesOf(ipv6, 8, 16), (std::vector<int>{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_TRUE(parseAddress("0.0.0.0:0"));
  EXPECT_TRUE(parseAddress("[::]:65535"));
}

TEST(ForwarderAddressTest, RefusesOthers) {
  for (const char* text :
       {"", ":", "8091", ":8091", "10.1.2.3", "10.1.2.3:", "10.1.2.3:65536", "10.1.2.3:-1", "10.1.2.3:1x", "10.1.2:80",
        "::1:80", "[::1]80", "[::1:80", "[]:80", "localhost:80", "[10.1.2.3]:80", "10.1.2.3 :80"}) {
    EXPECT_FALSE(parseAddress(text)) << text;
  }
}

TEST(ForwarderHeaderTest, HoldsThreeAddressesAndTheTag) {
  const Address peer = addressOf("10.1.2.3:4000");
  const Address local = addressOf("[fe80::1]:80");
  const Address original = addressOf("192.0.2.1:8080");
  const auto header = forwardingHeader(peer, local, original, 0x01020304);
  ASSERT_EQ(header.size(), 88U);
  EXPECT_TRUE(std::equal(peer.bytes.begin(), peer.bytes.end(), header.begin()));
  EXPECT_TRUE(std::equal(local.bytes.begin(), local.bytes.end(), header.begin() + 28));
  EXPECT_TRUE(std::equal(original.bytes.begin(), original.bytes.end(), header.begin() + 56));
  EXPECT_EQ((std::vector<int>{header.begin() + 84, header.end()}), (std::vector<int>{1, 2, 3, 4}));
}

}  // namespace
