#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/field.h"

namespace sermgr {

// A range of addresses that may connect to a server.
struct Prefix {
  bool ipv4 = false;
  tn::Addr6 address{};  // an IPv4 address stands in the first four bytes, the others are 0
  unsigned length = 0;  // leading bits that count: 0 to 32, or to 128

  static Prefix ofIpv4(std::uint32_t address, unsigned length);

  // For IPv4 alone: the address and the mask with their first octets in the most significant byte.
  [[nodiscard]] std::uint32_t ipv4Address() const;
  [[nodiscard]] std::uint32_t ipv4Mask() const;

  friend bool operator==(const Prefix&, const Prefix&) = default;
};

// The length that an IPv4 mask stands for; nothing when its bits are not all at the front.
[[nodiscard]] std::optional<unsigned> maskLength(std::uint32_t mask);

// "127.0.0.0/8", "::1/128". Reading takes exactly such texts, with the address in any form that inet_pton(3) takes.
[[nodiscard]] std::string prefixText(const Prefix& prefix);
[[nodiscard]] std::optional<Prefix> readPrefixText(std::string_view text);

}  // namespace sermgr
