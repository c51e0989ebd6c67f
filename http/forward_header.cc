#include "http/forward_header.h"

#include <cstring>
#include <netinet/in.h>
#include <sys/socket.h>

#include "platform/byte_order.h"

namespace {

constexpr std::size_t addressBytes = 28;
constexpr std::size_t portOffset = 2;
constexpr std::size_t tagOffset = 84;

using AddressBytes = std::span<const std::uint8_t, addressBytes>;

IPAddr6 addressOf(AddressBytes bytes) {
  sockaddr_storage storage{};
  std::memcpy(&storage, bytes.data(), bytes.size());
  IPAddr6 address;
  address = reinterpret_cast<const sockaddr&>(storage);
  return address;
}

std::uint32_t portOf(AddressBytes bytes) {
  return loadBe16(bytes.data() + portOffset);
}

}  // namespace

void applyForwardHeader(std::span<const std::uint8_t, forwardHeaderBytes> header, Request& request) {
  const AddressBytes peer = header.subspan<0, addressBytes>();
  const AddressBytes local = header.subspan<addressBytes, addressBytes>();
  const AddressBytes original = header.subspan<2 * addressBytes, addressBytes>();
  request.peerAddress = addressOf(peer);
  request.peerPort = portOf(peer);
  request.localAddress = addressOf(local);
  request.localPort = portOf(local);
  request.originalAddress = addressOf(original);
  request.originalPort = portOf(original);
  request.hasOriginal = true;
  request.forwardTag = loadBe32(header.data() + tagOffset);
}
