#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "services/tlsd/failure.h"

namespace tlsd {

// What happened since the start.
struct Counters {
  std::uint64_t handedOver = 0;  // sockets that came
  std::uint64_t offloaded = 0;   // gone back ciphered by the kernel
  std::uint64_t relayed = 0;     // for which one end of a pair has gone back
  std::uint64_t resumed = 0;     // of both: handshakes that a ticket made short
  std::uint64_t fromPeers = 0;   // plain bytes that were relayed to servers
  std::uint64_t toPeers = 0;     // and to peers
  std::array<std::uint64_t, allFailures.size()> failures{};

  void count(Failure failure) { ++failures[static_cast<std::size_t>(failure)]; }
  [[nodiscard]] std::uint64_t of(Failure failure) const { return failures[static_cast<std::size_t>(failure)]; }
};

}  // namespace tlsd
