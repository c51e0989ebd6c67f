#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/socket.h>

namespace forwarder {

inline constexpr std::size_t addressBytes = 28;  // a sockaddr_in6, or a sockaddr_in and padding
inline constexpr std::size_t headerBytes = 88;

// A socket address as the kernel has it.
struct Address {
  alignas(8) std::array<std::uint8_t, addressBytes> bytes{};

  [[nodiscard]] sockaddr* data() { return reinterpret_cast<sockaddr*>(bytes.data()); }
  [[nodiscard]] const sockaddr* data() const { return reinterpret_cast<const sockaddr*>(bytes.data()); }
  [[nodiscard]] sa_family_t family() const;
  // Length of the address of its family.
  [[nodiscard]] socklen_t length() const;

  friend bool operator==(const Address& a, const Address& b) { return a.bytes == b.bytes; }
};

// "127.0.0.1:80", "[::1]:80". Nothing for any other text.
[[nodiscard]] std::optional<Address> parseAddress(std::string_view text);

// What goes before a request on a server's local listener: peer, local and original destination address of 28 bytes
// each as the kernel has them, then the tag, big-endian.
[[nodiscard]] std::array<std::uint8_t, headerBytes> forwardingHeader(const Address& peer, const Address& local,
                                                                     const Address& original, std::uint32_t tag);

}  // namespace forwarder
