#include "services/tlsd/socket_bio.h"

#include <cerrno>
#include <sys/socket.h>

namespace tlsd {
namespace {

SocketPort& portOf(BIO* bio) {
  return *static_cast<SocketPort*>(BIO_get_data(bio));
}

int readSocket(BIO* bio, char* data, std::size_t length, std::size_t* count) {
  SocketPort& port = portOf(bio);
  BIO_clear_retry_flags(bio);
  *count = 0;
  if (!port.dry) {
    const ssize_t got = recv(port.fd, data, length, MSG_DONTWAIT);
    if (got > 0) {
      *count = static_cast<std::size_t>(got);
      port.dry = *count < length;
      return 1;
    }
    port.ended = got == 0;
    port.error = got == 0 ? 0 : errno;
    if (got == 0 || port.error != EAGAIN) return 0;
    port.dry = true;
  }
  BIO_set_retry_read(bio);
  return 0;
}

int writeSocket(BIO* bio, const char* data, std::size_t length, std::size_t* count) {
  SocketPort& port = portOf(bio);
  BIO_clear_retry_flags(bio);
  *count = 0;
  if (!port.full) {
    const int more = port.moreFollows ? MSG_MORE : 0;
    const ssize_t sent = send(port.fd, data, length, MSG_DONTWAIT | MSG_NOSIGNAL | more);
    if (sent >= 0) {
      *count = static_cast<std::size_t>(sent);
      port.full = *count < length;
      return 1;
    }
    port.error = errno;
    if (port.error != EAGAIN) return 0;
    port.full = true;
  }
  BIO_set_retry_write(bio);
  return 0;
}

long control(BIO* bio, int command, long /*number*/, void* /*argument*/) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_CTRL_EOF:
      return portOf(bio).ended ? 1 : 0;
    default:
      return 0;
  }
}

BIO_METHOD* makeMethod() {
  BIO_METHOD* method = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "socket that never waits");
  if (method == nullptr) return nullptr;
  BIO_meth_set_read_ex(method, readSocket);
  BIO_meth_set_write_ex(method, writeSocket);
  BIO_meth_set_ctrl(method, control);
  return method;
}

}  // namespace

Owned<BIO> makeSocketBio(SocketPort& port) {
  // For the whole life of the process, as OpenSSL's own methods.
  static const BIO_METHOD* const method = makeMethod();
  Owned<BIO> bio(method != nullptr ? BIO_new(method) : nullptr);
  if (bio) {
    BIO_set_data(bio.get(), &port);
    BIO_set_init(bio.get(), 1);
  }
  return bio;
}

}  // namespace tlsd
