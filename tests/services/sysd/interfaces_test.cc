#include "services/sysd/interfaces.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <deque>
#include <gmock/gmock.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netpacket/packet.h>

namespace sysd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// A list as getifaddrs makes it.
class List {
 public:
  void link(const char* name, int index, unsigned flags, unsigned short kind, std::vector<unsigned char> hardware) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_ifindex = index;
    address.sll_hatype = kind;
    address.sll_halen = static_cast<unsigned char>(hardware.size());
    std::copy_n(hardware.begin(), std::min(hardware.size(), sizeof address.sll_addr), address.sll_addr);
    add(name, flags, keep(address), nullptr);
  }
  void ipv4(const char* name, const char* text, const char* mask) {
    add(name, IFF_UP, keep(ipv4Of(text)), keep(ipv4Of(mask)));
  }
  void ipv6(const char* name, const char* text, const char* mask) {
    add(name, IFF_UP, keep(ipv6Of(text)), mask == nullptr ? nullptr : keep(ipv6Of(mask)));
  }
  void bare(const char* name) { add(name, 0, nullptr, nullptr); }

  [[nodiscard]] std::vector<Interface> read() const {
    return listInterfaces(entries_.empty() ? nullptr : &entries_[0]);
  }

 private:
  static sockaddr_in ipv4Of(const char* text) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    EXPECT_EQ(inet_pton(AF_INET, text, &address.sin_addr), 1) << text;
    return address;
  }
  static sockaddr_in6 ipv6Of(const char* text) {
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1) << text;
    return address;
  }
  template <typename Address>
  sockaddr* keep(const Address& address) {
    sockaddr_storage& place = addresses_.emplace_back();
    std::memcpy(&place, &address, sizeof address);
    return reinterpret_cast<sockaddr*>(&place);
  }
  void add(const char* name, unsigned flags, sockaddr* address, sockaddr* mask) {
    ifaddrs entry{};
    names_.emplace_back(name);
    entry.ifa_name = names_.back().data();
    entry.ifa_flags = flags;
    entry.ifa_addr = address;
    entry.ifa_netmask = mask;
    entries_.push_back(entry);
    if (entries_.size() > 1) entries_[entries_.size() - 2].ifa_next = &entries_.back();
  }

  std::deque<std::string> names_;
  std::deque<sockaddr_storage> addresses_;
  std::deque<ifaddrs> entries_;
};

tn::Addr6 mapped(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
  return {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, a, b, c, d};
}

TEST(Interfaces, HaveTheirAddresses) {
  List list;
  list.link("eth0", 4, IFF_UP | IFF_RUNNING, ARPHRD_ETHER, {0x52, 0x54, 0, 0x12, 0x34, 0x56});
  list.link("lo", 1, IFF_UP | IFF_LOOPBACK, ARPHRD_LOOPBACK, {0, 0, 0, 0, 0, 0});
  list.ipv4("lo", "127.0.0.1", "255.0.0.0");
  list.ipv4("eth0", "192.0.2.2", "255.255.255.0");
  list.ipv4("eth0:1", "192.0.2.3", "255.255.255.255");
  list.ipv6("eth0", "fe80::1", "ffff:ffff:ffff:ffff::");
  list.ipv6("gone", "fe80::2", "ffff::");
  const auto interfaces = list.read();
  ASSERT_THAT(interfaces, SizeIs(2));
  EXPECT_EQ(interfaces[0].name, "lo");
  EXPECT_TRUE(interfaces[0].loopback);
  EXPECT_TRUE(interfaces[0].up);
  EXPECT_FALSE(interfaces[0].running);
  EXPECT_EQ(interfaces[0].hardware, "");
  EXPECT_THAT(interfaces[0].addresses, ElementsAre(mapped(127, 0, 0, 1)));
  EXPECT_THAT(interfaces[0].prefixLengths, ElementsAre(8U));
  EXPECT_EQ(interfaces[1].index, 4U);
  EXPECT_EQ(interfaces[1].hardware, "52:54:00:12:34:56");
  EXPECT_TRUE(interfaces[1].running);
  EXPECT_THAT(interfaces[1].addresses, ElementsAre(mapped(192, 0, 2, 2), mapped(192, 0, 2, 3),
                                                   tn::Addr6{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}));
  EXPECT_THAT(interfaces[1].prefixLengths, ElementsAre(24U, 32U, 64U));
}

TEST(Interfaces, MayHaveNothing) {
  List list;
  EXPECT_THAT(list.read(), IsEmpty());
  list.bare("wg0");
  EXPECT_THAT(list.read(), IsEmpty());
  list.link("wg0", 3, 0, ARPHRD_NONE, {});
  list.ipv6("wg0", "fd00::1", nullptr);
  const auto interfaces = list.read();
  ASSERT_THAT(interfaces, SizeIs(1));
  EXPECT_EQ(interfaces[0].hardware, "");
  EXPECT_THAT(interfaces[0].prefixLengths, ElementsAre(0U));
}

TEST(Interfaces, KeepToTheirLimits) {
  List list;
  for (int i = 1; i <= 100; ++i)
    list.link(("if" + std::to_string(i)).c_str(), i, 0, ARPHRD_ETHER, {1, 2, 3, 4, 5, 6});
  for (int i = 0; i < 50; ++i)
    list.ipv4("if1", ("10.0.0." + std::to_string(i)).c_str(), "255.0.0.0");
  const auto interfaces = list.read();
  ASSERT_THAT(interfaces, SizeIs(maxInterfaces));
  EXPECT_THAT(interfaces[0].addresses, SizeIs(maxAddresses));
  EXPECT_THAT(interfaces[0].prefixLengths, SizeIs(maxAddresses));
}

TEST(Interfaces, GetTheirCountersByName) {
  List list;
  list.link("eth0", 4, 0, ARPHRD_ETHER, {});
  auto interfaces = list.read();
  addCounters(interfaces, {{"eth1", {9, 9, 9, 9}, {9, 9, 9, 9}}, {"eth0", {1, 2, 3, 4}, {5, 6, 7, 8}}});
  EXPECT_EQ(interfaces[0].received, (Traffic{1, 2, 3, 4}));
  EXPECT_EQ(interfaces[0].sent, (Traffic{5, 6, 7, 8}));
}

TEST(PrefixLength, EndsAtTheFirstBitThatIsNotSet) {
  const std::uint8_t masks[][4] = {
      {0, 0, 0, 0}, {255, 255, 255, 255}, {255, 240, 0, 0}, {255, 0, 255, 0}, {128, 0, 0, 0}};
  const std::uint32_t lengths[] = {0, 32, 12, 8, 1};
  for (std::size_t i = 0; i < std::size(lengths); ++i)
    EXPECT_EQ(prefixLength(masks[i], 4), lengths[i]);
}

}  // namespace
}  // namespace sysd
