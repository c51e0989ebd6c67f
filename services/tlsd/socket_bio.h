#pragma once

#include "services/tlsd/openssl_types.h"

namespace tlsd {

// How OpenSSL reads and writes a socket here: never waiting, whatever the socket's own flags say; and once a read or
// write came back short, saying "not now" without asking the kernel again until it is told that the socket is ready.
struct SocketPort {
  int fd = -1;
  bool dry = false;          // nothing more to read
  bool full = false;         // no room to write
  bool ended = false;        // the peer has ended its direction
  bool moreFollows = false;  // what is written is the beginning of more: the kernel need not send it at once
  int error = 0;             // errno of the last failure; 0: none
};

// A BIO for that port, which must outlive it and stay in its place. Null without memory.
[[nodiscard]] Owned<BIO> makeSocketBio(SocketPort& port);

}  // namespace tlsd
