#include "services/tlsd/tls_stream.h"

#include <cerrno>
#include <fcntl.h>
#include <openssl/err.h>

#include "services/tlsd/limits.h"

namespace tlsd {

TlsStream::TlsStream(SSL_CTX& context, int socket, bool offload) : ssl_(SSL_new(&context)) {
  port_.fd = socket;
  // The kernel's TLS needs OpenSSL's own way to the socket, which waits unless the socket does not.
  if (offload) fcntl(socket, F_SETFL, O_NONBLOCK);
  Owned<BIO> bio = offload ? Owned<BIO>(BIO_new_socket(socket, BIO_NOCLOSE)) : makeSocketBio(port_);
  if (!ssl_ || !bio) {
    ssl_.reset();
    return;
  }
  // One BIO for both directions, which both own as one.
  SSL_set_bio(ssl_.get(), bio.get(), bio.get());
  (void)bio.release();
  SSL_set_accept_state(ssl_.get());
}

TlsStream::Result TlsStream::handshake() {
  if (!ssl_) {
    systemError_ = ENOMEM;
    return Result::failed;
  }
  // In TLS 1.3, all that is sent now is a ticket, for which no client waits: it goes along with the first answer.
  port_.moreFollows = SSL_get_state(ssl_.get()) == TLS_ST_EARLY_DATA;
  ERR_clear_error();
  errno = 0;
  return resultOf(SSL_do_handshake(ssl_.get()));
}

TlsStream::Transfer TlsStream::read(std::span<std::uint8_t> room) {
  std::size_t count = 0;
  port_.moreFollows = false;
  ERR_clear_error();
  errno = 0;
  const int returned = SSL_read_ex(ssl_.get(), room.data(), room.size(), &count);
  if (returned == 1) return {Result::done, count};
  return {resultOf(returned), 0};
}

TlsStream::Transfer TlsStream::write(std::span<const std::uint8_t> bytes) {
  std::size_t count = 0;
  port_.moreFollows = bytes.size() > recordBytes;
  ERR_clear_error();
  errno = 0;
  const int returned = SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &count);
  if (returned == 1) return {Result::done, count};
  return {resultOf(returned), 0};
}

TlsStream::Result TlsStream::sendEnd() {
  port_.moreFollows = false;
  ERR_clear_error();
  errno = 0;
  const int returned = SSL_shutdown(ssl_.get());
  // 0: it was sent, and that of the peer has not come.
  return returned >= 0 ? Result::done : resultOf(returned);
}

bool TlsStream::isOffloaded() const {
  return BIO_get_ktls_send(SSL_get_wbio(ssl_.get())) && BIO_get_ktls_recv(SSL_get_rbio(ssl_.get())) &&
         SSL_has_pending(ssl_.get()) == 0;
}

// The errno of a failed call is that of now: nothing between touched it.
TlsStream::Result TlsStream::resultOf(int returned) {
  const int systemError = port_.error != 0 ? port_.error : errno;
  switch (SSL_get_error(ssl_.get(), returned)) {
    case SSL_ERROR_NONE:
      return Result::done;
    case SSL_ERROR_WANT_READ:
      return Result::wantRead;
    case SSL_ERROR_WANT_WRITE:
      return Result::wantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return Result::ended;
    default:
      opensslError_ = ERR_peek_error();
      systemError_ = systemError == EAGAIN ? 0 : systemError;
      ERR_clear_error();
      return Result::failed;
  }
}

}  // namespace tlsd
