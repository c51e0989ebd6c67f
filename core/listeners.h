#pragma once

#include "core/server_entry.h"
#include "platform/bus/message.h"

// The listening sockets of a server. Both kinds take at most `listenBacklog` connections that nobody has accepted yet.
//
// Each open function logs what it does, puts the socket under the loop's watch and returns an empty message; or it
// returns the error for whoever sent the record, with the reason in the log and nothing left open. It must find the
// entry's socket of that kind closed.

inline constexpr int listenBacklog = 10;

// The abstract unix socket whose name is a NUL, "www-unix", the port in decimal and NULs up to the full 108 bytes.
[[nodiscard]] tn::message openUnixListener(ServerEntry& entry);

// Any local address, IPv4 peers included; IPv4 alone where the kernel has no IPv6.
[[nodiscard]] tn::message openTcpListener(ServerEntry& entry);

// Closes what is open and ends a pause. Accepted connections live on.
void closeListeners(ServerEntry& entry);
