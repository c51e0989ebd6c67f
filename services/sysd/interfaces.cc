#include "services/sysd/interfaces.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <span>
#include <string_view>

namespace sysd {
namespace {

template <typename Address>
Address as(const sockaddr& address) {
  Address copy;
  std::memcpy(&copy, &address, sizeof copy);
  return copy;
}

std::string hardwareText(const sockaddr_ll& address) {
  constexpr char digits[] = "0123456789abcdef";
  const bool hasOne = address.sll_hatype != ARPHRD_LOOPBACK && address.sll_halen != 0;
  const std::size_t length = hasOne ? std::min<std::size_t>(address.sll_halen, sizeof address.sll_addr) : 0;
  std::string text;
  for (const unsigned char byte : std::span(address.sll_addr).first(length)) {
    if (!text.empty()) text += ':';
    text += digits[byte >> 4];
    text += digits[byte & 15];
  }
  return text;
}

void addAddress(Interface& interface, const tn::Addr6& address, std::uint32_t length) {
  if (interface.addresses.size() == maxAddresses) return;
  interface.addresses.push_back(address);
  interface.prefixLengths.push_back(length);
}

void addIpv4(Interface& interface, const ifaddrs& entry) {
  constexpr std::size_t bytes = 4;
  constexpr std::size_t before = 12;
  const auto address = as<sockaddr_in>(*entry.ifa_addr);
  tn::Addr6 mapped{};
  mapped[10] = mapped[11] = 0xff;
  std::memcpy(mapped.data() + before, &address.sin_addr, bytes);
  std::array<std::uint8_t, bytes> mask{};
  if (entry.ifa_netmask != nullptr) {
    const auto given = as<sockaddr_in>(*entry.ifa_netmask);
    std::memcpy(mask.data(), &given.sin_addr, bytes);
  }
  addAddress(interface, mapped, prefixLength(mask.data(), bytes));
}

void addIpv6(Interface& interface, const ifaddrs& entry) {
  const auto address = as<sockaddr_in6>(*entry.ifa_addr);
  tn::Addr6 bytes{};
  std::memcpy(bytes.data(), &address.sin6_addr, bytes.size());
  tn::Addr6 mask{};
  if (entry.ifa_netmask != nullptr) {
    const auto given = as<sockaddr_in6>(*entry.ifa_netmask);
    std::memcpy(mask.data(), &given.sin6_addr, mask.size());
  }
  addAddress(interface, bytes, prefixLength(mask.data(), mask.size()));
}

// IPv4 addresses may bear a label of their own, as "eth0:1".
std::string_view nameOf(const ifaddrs& entry) {
  const std::string_view name = entry.ifa_name;
  return name.substr(0, name.find(':'));
}

Interface* find(std::vector<Interface>& interfaces, std::string_view name) {
  const auto found = std::ranges::find(interfaces, name, &Interface::name);
  return found == interfaces.end() ? nullptr : &*found;
}

void takeLink(std::vector<Interface>& interfaces, const ifaddrs& entry) {
  if (interfaces.size() == maxInterfaces) return;
  const auto link = as<sockaddr_ll>(*entry.ifa_addr);
  Interface& interface = interfaces.emplace_back();
  interface.name = entry.ifa_name;
  interface.index = static_cast<std::uint32_t>(link.sll_ifindex);
  interface.up = (entry.ifa_flags & IFF_UP) != 0;
  interface.running = (entry.ifa_flags & IFF_RUNNING) != 0;
  interface.loopback = (entry.ifa_flags & IFF_LOOPBACK) != 0;
  interface.hardware = hardwareText(link);
}

}  // namespace

std::uint32_t prefixLength(const std::uint8_t* mask, std::size_t bytes) {
  std::uint32_t length = 0;
  for (const std::uint8_t byte : std::span(mask, bytes)) {
    const int ones = std::countl_one(byte);
    length += static_cast<std::uint32_t>(ones);
    if (ones != 8) break;
  }
  return length;
}

std::vector<Interface> listInterfaces(const ifaddrs* list) {
  std::vector<Interface> interfaces;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_PACKET) takeLink(interfaces, *entry);
  }
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    Interface* const interface = find(interfaces, nameOf(*entry));
    if (interface == nullptr || entry->ifa_addr == nullptr) continue;
    if (entry->ifa_addr->sa_family == AF_INET) addIpv4(*interface, *entry);
    if (entry->ifa_addr->sa_family == AF_INET6) addIpv6(*interface, *entry);
  }
  std::ranges::sort(interfaces, {}, &Interface::index);
  return interfaces;
}

void addCounters(std::vector<Interface>& interfaces, const std::vector<Counters>& counters) {
  for (const Counters& line : counters) {
    Interface* const interface = find(interfaces, line.interface);
    if (interface == nullptr) continue;
    interface->received = line.received;
    interface->sent = line.sent;
  }
}

}  // namespace sysd
