#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "services/tlsd/failure.h"
#include "services/tlsd/openssl_types.h"
#include "services/tlsd/socket_bio.h"

namespace tlsd {

// The server's side of TLS on one socket, which it does not own. Nothing here waits.
class TlsStream {
 public:
  enum class Result : std::uint8_t {
    done,
    wantRead,   // again when the socket can be read
    wantWrite,  // again when it can be written
    ended,      // the peer has said that it sends no more (reads only)
    failed,     // for good; an alert for the peer may have been written
  };
  struct Transfer {
    Result result;
    std::size_t bytes;  // with `done`
  };

  // `offload` lets the kernel do the ciphering where it can.
  TlsStream(SSL_CTX& context, int socket, bool offload);
  TlsStream(const TlsStream&) = delete;
  TlsStream& operator=(const TlsStream&) = delete;
  ~TlsStream() = default;

  // A new call of the loop: the next read and write ask the socket whether it is ready.
  void refresh() {
    port_.dry = false;
    port_.full = false;
  }

  // One step of the handshake. `ended` does not come.
  [[nodiscard]] Result handshake();
  // Reads what fits; less than there is may come.
  [[nodiscard]] Transfer read(std::span<std::uint8_t> room);
  // Writes one record at the most. After `wantWrite` the next call has to begin with the same bytes.
  [[nodiscard]] Transfer write(std::span<const std::uint8_t> bytes);
  // Tells the peer that no more comes.
  [[nodiscard]] Result sendEnd();

  // Whether the kernel ciphers both directions and nothing is left here: the socket itself speaks plain bytes.
  [[nodiscard]] bool isOffloaded() const;
  [[nodiscard]] bool resumed() const { return SSL_session_reused(ssl_.get()) == 1; }

  // What the step that failed last left behind: an error of OpenSSL, or 0 and one of the system (0: the peer's end).
  [[nodiscard]] unsigned long opensslError() const { return opensslError_; }
  [[nodiscard]] int systemError() const { return systemError_; }

 private:
  [[nodiscard]] Result resultOf(int returned);

  SocketPort port_;
  Owned<SSL> ssl_;
  unsigned long opensslError_ = 0;
  int systemError_ = 0;
};

}  // namespace tlsd
