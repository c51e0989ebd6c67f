#include "services/sermgr/prefix.h"

#include <arpa/inet.h>
#include <bit>
#include <charconv>

#include "platform/byte_order.h"

namespace sermgr {
namespace {

constexpr unsigned ipv4Bits = 32;
constexpr unsigned ipv6Bits = 128;

}  // namespace

Prefix Prefix::ofIpv4(std::uint32_t address, unsigned length) {
  Prefix prefix;
  prefix.ipv4 = true;
  storeBe32(prefix.address.data(), address);
  prefix.length = length;
  return prefix;
}

std::uint32_t Prefix::ipv4Address() const {
  return loadBe32(address.data());
}

std::uint32_t Prefix::ipv4Mask() const {
  // A shift by all 32 bits would be undefined.
  return length == 0 ? 0 : ~std::uint32_t{0} << (ipv4Bits - length);
}

std::optional<unsigned> maskLength(std::uint32_t mask) {
  const auto ones = static_cast<unsigned>(std::countl_one(mask));
  const auto zeros = static_cast<unsigned>(std::countr_zero(mask));
  if (ones + zeros < ipv4Bits) return std::nullopt;
  return ones;
}

std::string prefixText(const Prefix& prefix) {
  char text[INET6_ADDRSTRLEN] = {};
  ::inet_ntop(prefix.ipv4 ? AF_INET : AF_INET6, prefix.address.data(), text, sizeof text);
  std::string whole = text;
  whole += '/';
  whole += std::to_string(prefix.length);
  return whole;
}

std::optional<Prefix> readPrefixText(std::string_view text) {
  const std::size_t slash = text.find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  const std::string address(text.substr(0, slash));
  if (address.find('\0') != std::string::npos) return std::nullopt;  // what inet_pton would not see
  Prefix prefix;
  prefix.ipv4 = address.find(':') == std::string::npos;
  if (::inet_pton(prefix.ipv4 ? AF_INET : AF_INET6, address.c_str(), prefix.address.data()) != 1) return std::nullopt;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, prefix.length);
  const unsigned most = prefix.ipv4 ? ipv4Bits : ipv6Bits;
  if (error != std::errc() || stop != end || prefix.length > most) return std::nullopt;
  return prefix;
}

}  // namespace sermgr
