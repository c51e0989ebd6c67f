#include "platform/web/ip_addr6.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <span>

#include "platform/byte_order.h"

namespace {

constexpr std::size_t ipv4Offset = 12;
constexpr std::size_t groupCount = 8;
constexpr IPAddr6::Bytes mappedPrefix{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// The addresses come from buffers of any alignment (a forwarding header within a read buffer), so fields are copied out
// at their offsets instead of read through the structure.
void copyOut(std::span<std::uint8_t> to, const sockaddr& address, std::size_t offset) {
  std::memcpy(to.data(), reinterpret_cast<const std::uint8_t*>(&address) + offset, to.size());
}

sa_family_t familyOf(const sockaddr& address) {
  sa_family_t family = 0;
  std::memcpy(&family, reinterpret_cast<const std::uint8_t*>(&address) + offsetof(sockaddr, sa_family), sizeof family);
  return family;
}

void appendNumber(std::string& out, unsigned value, int base) {
  char digits[4];
  const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, value, base);
  out.append(digits, result.ptr);
}

void appendIPv4(std::string& out, const IPAddr6::Bytes& bytes) {
  for (std::size_t i = ipv4Offset; i < bytes.size(); ++i) {
    if (i != ipv4Offset) out.push_back('.');
    appendNumber(out, bytes[i], 10);
  }
}

struct Run {
  std::size_t begin = groupCount;
  std::size_t length = 1;  // a single zero group is not shortened
};

unsigned groupAt(const IPAddr6::Bytes& bytes, std::size_t i) {
  return loadBe16(&bytes[2 * i]);
}

// The zero groups that "::" stands for: the longest run, the first of equal ones (RFC 5952, 4.2).
Run longestZeroRun(const IPAddr6::Bytes& bytes) {
  Run best;
  std::size_t begin = 0;
  for (std::size_t i = 0; i < groupCount; ++i) {
    if (groupAt(bytes, i) != 0) {
      begin = i + 1;
    } else if (i + 1 - begin > best.length) {
      best = {begin, i + 1 - begin};
    }
  }
  return best;
}

}  // namespace

IPAddr6& IPAddr6::operator=(const sockaddr& address) {
  bytes_ = {};
  const sa_family_t family = familyOf(address);
  if (family == AF_INET6) {
    copyOut(bytes_, address, offsetof(sockaddr_in6, sin6_addr));
  } else if (family == AF_INET) {
    bytes_ = mappedPrefix;
    copyOut(std::span(bytes_).subspan(ipv4Offset), address, offsetof(sockaddr_in, sin_addr));
  }
  return *this;
}

void IPAddr6::setIPv4(std::uint32_t address) {
  bytes_ = mappedPrefix;
  storeBe32(&bytes_[ipv4Offset], address);
}

bool IPAddr6::isIPv4() const {
  return std::equal(mappedPrefix.begin(), mappedPrefix.begin() + ipv4Offset, bytes_.begin());
}

std::string IPAddr6::str(bool plainIPv4) const {
  std::string out;
  if (isIPv4()) {
    if (!plainIPv4) out = "::ffff:";
    appendIPv4(out, bytes_);
    return out;
  }
  const Run zeros = longestZeroRun(bytes_);
  for (std::size_t i = 0; i < groupCount; ++i) {
    if (i == zeros.begin) {
      out.append("::");
      i += zeros.length - 1;
      continue;
    }
    if (i != 0 && i != zeros.begin + zeros.length) out.push_back(':');
    appendNumber(out, groupAt(bytes_, i), 16);
  }
  return out;
}

IPPrefix6::IPPrefix6(const IPAddr6& address, std::uint32_t length) : address_(address) {
  for (std::size_t i = 0; i < mask_.size(); ++i) {
    const std::size_t before = 8 * i;
    const std::size_t bits = length > before ? std::min<std::size_t>(length - before, 8) : 0;
    mask_[i] = static_cast<std::uint8_t>(0xff00U >> bits);
  }
}

void IPPrefix6::setIPv4Mask(std::uint32_t mask) {
  mask_.fill(0xff);
  storeBe32(&mask_[ipv4Offset], mask);
}

bool IPPrefix6::has(const IPAddr6& address) const {
  for (std::size_t i = 0; i < mask_.size(); ++i) {
    if (((address.bytes()[i] ^ address_.bytes()[i]) & mask_[i]) != 0) return false;
  }
  return true;
}
