#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// What has happened on one server since the process began. Only grows, but for `open`. Each is counted where the thing
// happens, by whoever does it: admission the first three, the connections the rest.
struct SiteCounters {
  std::uint64_t accepted = 0;         // connections let in; one that speaks TLS counts before its handshake
  std::uint64_t refusedByPrefix = 0;  // closed at once for their peer's address
  std::uint64_t pauses = 0;           // for too many connections, or for want of descriptors

  std::array<std::uint64_t, 4> responses{};  // begun to be written, by class of their status: 2xx to 5xx
  std::uint64_t bytesRead = 0;               // of the sockets of connections: without TLS, with forwarding headers
  std::uint64_t bytesWritten = 0;            // to them, as far as the kernel took them

  // Connections ended by a timer, by what was awaited.
  std::uint64_t headTimeouts = 0;  // a request or the rest of its head
  std::uint64_t bodyTimeouts = 0;
  std::uint64_t writeTimeouts = 0;

  std::uint32_t open = 0;  // connections now

  // Counts a response by its status; there is no counter for one outside of 200 to 599.
  void countResponse(int status) {
    constexpr int first = 200;
    constexpr int perClass = 100;
    if (status < first) return;
    const auto index = static_cast<std::size_t>((status - first) / perClass);
    if (index < responses.size()) ++responses[index];
  }
};
