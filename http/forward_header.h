#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/web/request.h"

// What a process on this machine that passes connections on puts before each request on the unix listener, so that the
// request keeps its real addresses:
//
//   offset  size
//        0    28  peer: a sockaddr_in6, or a sockaddr_in in the first 16 bytes; the port is bytes 2 and 3, big-endian
//       28    28  local address, likewise
//       56    28  destination before address translation, likewise
//       84     4  forward tag, big-endian
inline constexpr std::size_t forwardHeaderBytes = 88;

// Sets the addresses, ports and tag of a request.
void applyForwardHeader(std::span<const std::uint8_t, forwardHeaderBytes> header, Request& request);
