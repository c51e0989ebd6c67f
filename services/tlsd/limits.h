#pragma once

#include <cstddef>
#include <cstdint>

namespace tlsd {

// From the hand-over of a socket to the end of its handshake: less than the six seconds for which a server waits.
inline constexpr std::uint32_t handshakeMs = 5000;
// A connection on which nothing moves. The server's own limits are much shorter; this one is for what they do not see.
inline constexpr std::uint32_t idleMs = 600'000;
// A peer that takes nothing of what waits for it.
inline constexpr std::uint32_t stallMs = 60'000;
// From the end of what is sent to the peer to the closing of the socket, unless the peer ends it before.
inline constexpr std::uint32_t lingerMs = 2000;

// Handshakes that wait for their peers; one more, and the one that has waited longest gives way.
inline constexpr std::size_t maxHandshakes = 1024;
// Connections of all kinds, where the descriptors allow for them.
inline constexpr std::size_t maxSessions = 4096;
// A relayed connection holds its socket and one end of a pair.
inline constexpr std::size_t descriptorsPerSession = 2;
// Descriptors for everything else: those on their way to servers above all.
inline constexpr std::size_t reservedDescriptors = 256;

// What is on its way in one direction of a connection, at the most.
inline constexpr std::size_t blockBytes = 65536;
// Blocks that are kept for the next connection that has something on its way.
inline constexpr std::size_t keptBlocks = 16;
// Blocks that one connection moves before the others have their turn.
inline constexpr unsigned blocksPerCall = 4;
// Plain bytes of one record of TLS.
inline constexpr std::size_t recordBytes = 16384;
}  // namespace tlsd
