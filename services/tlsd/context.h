#pragma once

#include <expected>
#include <string>

#include "services/tlsd/identity.h"
#include "services/tlsd/openssl_types.h"

namespace tlsd {

// What all connections that begin now have in common: the certificate and the rules of the protocol. TLS 1.2 and 1.3
// with forward secrecy and authenticated ciphers alone, http/1.1 by ALPN, tickets for resumption, no renegotiation, no
// compression. `offload` asks for the kernel's TLS where a connection's cipher permits it. The error says why the
// identity cannot be used.
[[nodiscard]] std::expected<Owned<SSL_CTX>, std::string> makeContext(const Identity& identity, bool offload);

// Gives a context new keys for its tickets: those that were given out before mean a full handshake.
void renewTicketKeys(SSL_CTX& context);

// Whether this kernel has TLS of its own for sockets.
[[nodiscard]] bool kernelOffersTls();

}  // namespace tlsd
