#pragma once

#include "core/server_entry.h"
#include "platform/bus/message.h"
#include "platform/unique_fd.h"

// How connections come in: from a listener that has become readable to the connection engine, for a TLS server by way
// of the TLS service.
//
//   watched --more than maxOpenConnections--> paused --pauseMs--> watched
//
// While too many connections are open, or descriptors have run out, a listener is looked at once in `pauseMs`; the
// peers wait in its queue.

inline constexpr std::uint32_t maxOpenConnections = 1000;
inline constexpr std::uint32_t pauseMs = 1;
inline constexpr std::uint32_t handOverTimeoutMs = 6000;

// Takes one connection from the TCP listener, unless its peer is not among the allowed ones: then it is closed without
// a word.
void acceptConnection(ServerEntry& entry);

// Takes one connection from the unix listener; its peers are all allowed.
void acceptUnixConnection(ServerEntry& entry);

// Stops watching the listeners for `pauseMs`.
void pauseAccepting(ServerEntry& entry);
void resumeAccepting(ServerEntry& entry);

// Starts the connection of a non-blocking socket, or with `handOver` gives the socket to the TLS service, whose answer
// brings another. The engine may end the connection before this returns.
void newConnection(ServerEntry& entry, UniqueFd socket, bool handOver, bool unixListener);

// The answer of the TLS service; `context` is what was kept at the hand-over (bool 1: from the unix listener).
void tlsReply(const tn::message& reply, ServerEntry& entry, const tn::message& context);
