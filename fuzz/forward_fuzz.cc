#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <sys/socket.h>

#include "fuzz/require.h"
#include "http/forward_header.h"
#include "platform/bus/message.h"
#include "platform/web/forwarding.h"

namespace {

constexpr std::size_t addressBytes = 28;
constexpr std::size_t tagOffset = 3 * addressBytes;

using Header = std::array<std::uint8_t, forwardHeaderBytes>;

std::uint32_t bigEndian(std::span<const std::uint8_t> bytes) {
  std::uint32_t number = 0;
  for (const std::uint8_t byte : bytes)
    number = number << 8 | byte;
  return number;
}

// The sixteen bytes of an address at `at`, by the layout that the header's documentation gives.
std::array<std::uint8_t, 16> addressAt(const Header& header, std::size_t at) {
  sa_family_t family = AF_UNSPEC;
  std::memcpy(&family, header.data() + at, sizeof family);
  std::array<std::uint8_t, 16> bytes{};
  if (family == AF_INET6) {
    std::copy_n(header.begin() + static_cast<std::ptrdiff_t>(at) + 8, 16, bytes.begin());
  } else if (family == AF_INET) {
    bytes[10] = bytes[11] = 0xff;
    std::copy_n(header.begin() + static_cast<std::ptrdiff_t>(at) + 4, 4, bytes.begin() + 12);
  }
  return bytes;
}

void requireAddress(const tn::message& stored, tn::addr6_id address, tn::u32_id port, const Header& header,
                    std::size_t at) {
  const auto found = stored.get(address);
  require(found && std::ranges::equal(*found, addressAt(header, at)));
  require(stored.get(port) == bigEndian(std::span(header).subspan(at + 2, 2)));
}

}  // namespace

// A forwarding header of any bytes: what a service is told of the request says the same as the header.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Header header{};
  std::copy_n(data, std::min(size, header.size()), header.begin());
  Request request(false, true);
  require(request.parseStatusLine("GET / HTTP/1.1"));
  applyForwardHeader(header, request);
  tn::message stored;
  request.store(stored);
  requireAddress(stored, forwarding::peerAddress, forwarding::peerPort, header, 0);
  requireAddress(stored, forwarding::localAddress, forwarding::localPort, header, addressBytes);
  requireAddress(stored, forwarding::originalAddress, forwarding::originalPort, header, 2 * addressBytes);
  require(stored.get(forwarding::tag) == bigEndian(std::span(header).subspan(tagOffset, 4)));
  return 0;
}
