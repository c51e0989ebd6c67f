#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

#include "platform/bus/frame.h"

namespace busd {

// What one program, and all of them together, can cost the broker. Tests shrink them.
struct Limits {
  std::size_t clients = 4096;
  // Of them, those that programs of other users cannot take: the system's own always find a place.
  std::size_t trustedClients = 64;
  std::size_t groupsPerClient = 64;
  // Programs of other users are let into a group up to this many members: one frame to a group costs a copy for each.
  std::size_t membersPerGroup = 256;

  // Bytes, headers included, that wait for one program.
  std::size_t queueBytes = tn::maxQueueBytes;
  // Bytes that wait for all programs. One queue never takes more than what is left of it, so however many programs stop
  // reading, there is room for the next one.
  std::size_t allQueuesBytes = 64U << 20;
  // Descriptors that wait for one program.
  std::size_t queuedDescriptors = 64;
  // A descriptor with this number or a higher one is a sign that the next receive may find too few of them free.
  int scarceFrom = std::numeric_limits<int>::max();
  // Bytes held for frames whose end has not come, announced lengths counted; beyond, the oldest such frame is given up.
  std::size_t unfinishedBytes = 64U << 20;

  std::uint32_t joinMs = 2000;        // from connecting to joining
  std::uint32_t frameMs = 10000;      // from the first byte of a frame to its last
  std::uint32_t acceptPauseMs = 200;  // without accepting, when no descriptor was left for it
};

inline constexpr std::size_t maxNameBytes = 64;
// A control message is some numbers and a name.
inline constexpr std::uint32_t maxControlBytes = 4096;
// Group numbers are elements of paths that have 24 bits.
inline constexpr std::uint32_t lastGroup = 0xffffff;

}  // namespace busd
