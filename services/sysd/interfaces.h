#pragma once

#include <cstddef>
#include <cstdint>
#include <ifaddrs.h>
#include <string>
#include <vector>

#include "platform/bus/field.h"
#include "services/sysd/proc_text.h"

namespace sysd {

inline constexpr std::size_t maxInterfaces = 64;
inline constexpr std::size_t maxAddresses = 16;  // of one interface

struct Interface {
  std::string name;
  std::uint32_t index = 0;
  bool up = false;
  bool running = false;
  bool loopback = false;
  std::string hardware;  // empty: none
  std::uint32_t largestPacket = 0;
  std::vector<tn::Addr6> addresses;
  std::vector<std::uint32_t> prefixLengths;  // of each address
  Traffic received;
  Traffic sent;
};

// The interfaces of a list that getifaddrs made, by index, with their addresses; what is beyond the limits is left out.
// Counters and largest packets are not in it.
[[nodiscard]] std::vector<Interface> listInterfaces(const ifaddrs* list);

// Puts in the counters, by name.
void addCounters(std::vector<Interface>& interfaces, const std::vector<Counters>& counters);

// The leading bits that are set in a mask in network order.
[[nodiscard]] std::uint32_t prefixLength(const std::uint8_t* mask, std::size_t bytes);

}  // namespace sysd
