#include "core/listeners.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>

#include "core/admission.h"
#include "platform/bus/looper.h"
#include "platform/byte_order.h"
#include "platform/log.h"

namespace {

// A socket address as bytes, so that fields are stored at their offsets in network order. Its whole length is given to
// bind: the kernel takes what the family needs, and for unix sockets the padding is part of the name.
template <std::size_t Size>
class BindAddress {
 public:
  explicit BindAddress(sa_family_t family) { std::memcpy(bytes_.data(), &family, sizeof family); }

  [[nodiscard]] std::uint8_t* at(std::size_t offset) { return bytes_.data() + offset; }

  [[nodiscard]] bool bind(const UniqueFd& socket) const {
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(bytes_.data()), Size) == 0;
  }

 private:
  alignas(sockaddr_storage) std::array<std::uint8_t, Size> bytes_{};
};

using UnixAddress = BindAddress<sizeof(sockaddr_un)>;
using TcpAddress = BindAddress<sizeof(sockaddr_storage)>;
static_assert(sizeof(sockaddr_un) == 110 && sizeof(sockaddr_storage) == 128);

constexpr std::uint32_t maxPort = 65535;
constexpr std::size_t portOffset = offsetof(sockaddr_in6, sin6_port);
static_assert(portOffset == offsetof(sockaddr_in, sin_port));

tn::message cannotCreate() {
  logLine("couldn't create socket");
  return tn::errorMsg(tn::error::noSuchService, "cannot create service connection");
}

tn::message cannotBind(int reason) {
  logLine("error while binding: ", strerror(reason));
  return tn::errorMsg(tn::error::cannotBind, "cannot bind service connection");
}

tn::message cannotListen() {
  logLine("error while listening");
  return tn::errorMsg(tn::error::noSuchService, "cannot listen service connection");
}

using AcceptCallback = void (*)(ServerEntry&);

// Lets a bound socket listen and be watched, and keeps it as the entry's.
tn::message startListening(ServerEntry& entry, UniqueFd ServerEntry::*slot, UniqueFd socket, AcceptCallback onAccept) {
  if (listen(socket.get(), listenBacklog) != 0) return cannotListen();
  fcntl(socket.get(), F_SETFL, O_NONBLOCK);
  // Level-triggered: one connection is accepted per event, and those that wait bring the next event.
  const auto callback = [&entry, onAccept](int, unsigned) { onAccept(entry); };
  if (!tn::getRunner()->addSocket(socket.get(), tn::readable, callback, tn::Trigger::level)) return cannotListen();
  entry.*slot = std::move(socket);
  return {};
}

UnixAddress unixAddress(std::uint32_t port) {
  UnixAddress address(AF_UNIX);
  const std::string name = std::string("www-unix").append(NumberText(port));
  std::memcpy(address.at(offsetof(sockaddr_un, sun_path) + 1), name.data(), name.size());
  return address;
}

// 0, or what bind failed with. The port field has 16 bits: a larger number fits no address and must not be cut to one.
int bindPort(const UniqueFd& socket, sa_family_t family, std::uint32_t port) {
  if (port > maxPort) return EINVAL;
  TcpAddress address(family);
  storeBe16(address.at(portOffset), static_cast<std::uint16_t>(port));
  return address.bind(socket) ? 0 : errno;
}

struct TcpSocket {
  UniqueFd fd;
  sa_family_t family;
};

TcpSocket createTcpSocket() {
  UniqueFd inet6(socket(AF_INET6, SOCK_STREAM, 0));
  if (inet6) {
    logLine("using inet6");
    return {std::move(inet6), AF_INET6};
  }
  logLine("using inet4");
  return {UniqueFd(socket(AF_INET, SOCK_STREAM, 0)), AF_INET};
}

void closeListener(UniqueFd& socket) {
  if (!socket) return;
  const int fd = socket.get();
  socket.reset();
  tn::getRunner()->removeSocket(fd);
}

}  // namespace

tn::message openUnixListener(ServerEntry& entry) {
  logLine("creating unix socket on port ", NumberText(entry.port));
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM, 0));
  if (!socket) return cannotCreate();
  if (!unixAddress(entry.port).bind(socket)) return cannotBind(errno);
  return startListening(entry, &ServerEntry::unixSocket, std::move(socket), acceptUnixConnection);
}

tn::message openTcpListener(ServerEntry& entry) {
  logLine("creating tcp socket on port ", NumberText(entry.port));
  TcpSocket socket = createTcpSocket();
  if (!socket.fd) return cannotCreate();
  const int on = 1;
  setsockopt(socket.fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (const int reason = bindPort(socket.fd, socket.family, entry.port)) return cannotBind(reason);
  return startListening(entry, &ServerEntry::tcpSocket, std::move(socket.fd), acceptConnection);
}

void closeListeners(ServerEntry& entry) {
  tn::getRunner()->removeTimer(std::exchange(entry.pauseTimer, 0));
  closeListener(entry.tcpSocket);
  closeListener(entry.unixSocket);
}
