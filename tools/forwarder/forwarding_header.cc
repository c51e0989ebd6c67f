#include "tools/forwarder/forwarding_header.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <string>

#include "platform/byte_order.h"

namespace forwarder {
namespace {

static_assert(sizeof(sockaddr_in6) == addressBytes);

constexpr std::size_t portOffset = offsetof(sockaddr_in6, sin6_port);
static_assert(portOffset == offsetof(sockaddr_in, sin_port));
constexpr std::size_t tagOffset = 3 * addressBytes;

std::optional<std::uint16_t> parsePort(std::string_view text) {
  std::uint16_t port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return port;
}

}  // namespace

sa_family_t Address::family() const {
  sa_family_t family = AF_UNSPEC;
  std::memcpy(&family, bytes.data(), sizeof family);
  return family;
}

socklen_t Address::length() const {
  return family() == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

std::optional<Address> parseAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view host = text.substr(0, colon);
  const auto port = parsePort(text.substr(colon + 1));
  const bool inet6 = host.starts_with('[') && host.ends_with(']') && host.size() > 2;
  if (inet6) host = host.substr(1, host.size() - 2);
  Address address;
  const sa_family_t family = inet6 ? AF_INET6 : AF_INET;
  const std::size_t offset = inet6 ? offsetof(sockaddr_in6, sin6_addr) : offsetof(sockaddr_in, sin_addr);
  if (!port || inet_pton(family, std::string(host).c_str(), &address.bytes[offset]) != 1) return std::nullopt;
  std::memcpy(address.bytes.data(), &family, sizeof family);
  storeBe16(&address.bytes[portOffset], *port);
  return address;
}

std::array<std::uint8_t, headerBytes> forwardingHeader(const Address& peer, const Address& local,
                                                       const Address& original, std::uint32_t tag) {
  std::array<std::uint8_t, headerBytes> header{};
  auto* at = header.begin();
  for (const Address* address : {&peer, &local, &original})
    at = std::ranges::copy(address->bytes, at).out;
  storeBe32(&header[tagOffset], tag);
  return header;
}

}  // namespace forwarder
