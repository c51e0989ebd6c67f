#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <sys/socket.h>

// An address of 16 bytes in network order. IPv4 addresses stand in it as ::ffff:a.b.c.d (RFC 4291, 2.5.5.2).
class IPAddr6 {
 public:
  using Bytes = std::array<std::uint8_t, 16>;

  IPAddr6() = default;  // ::
  explicit IPAddr6(const Bytes& bytes) : bytes_(bytes) {}

  // Takes the address of a sockaddr_in6 or, as its IPv6 form, a sockaddr_in; any other family gives ::. The object
  // behind the reference has the size that its family needs; it need not be aligned.
  IPAddr6& operator=(const sockaddr& address);

  // `address`: first octet in the most significant byte.
  void setIPv4(std::uint32_t address);
  [[nodiscard]] bool isIPv4() const;

  // Text as in RFC 5952; with `plainIPv4` an IPv4 address is written a.b.c.d, else ::ffff:a.b.c.d.
  [[nodiscard]] std::string str(bool plainIPv4) const;

  [[nodiscard]] const Bytes& bytes() const { return bytes_; }
  friend bool operator==(const IPAddr6&, const IPAddr6&) = default;

 private:
  Bytes bytes_{};
};

// A range of addresses: all that agree with `address` in the bits of a mask. Bits of the address outside the mask do
// not matter.
class IPPrefix6 {
 public:
  IPPrefix6() = default;  // ::/0
  // `length` in bits, 0 to 128; more counts as 128.
  IPPrefix6(const IPAddr6& address, std::uint32_t length);

  [[nodiscard]] IPAddr6& address() { return address_; }
  // For an IPv4 address: the mask's first octet in the most significant byte. It need not be contiguous. IPv6 addresses
  // never lie in such a prefix, also with a mask of 0.
  void setIPv4Mask(std::uint32_t mask);
  [[nodiscard]] bool has(const IPAddr6& address) const;

 private:
  IPAddr6 address_;
  IPAddr6::Bytes mask_{};
};
