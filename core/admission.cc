#include "core/admission.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <utility>

#include "http/connection.h"
#include "platform/bus/looper.h"
#include "platform/byte_order.h"
#include "platform/log.h"

namespace {

constexpr std::array<std::uint32_t, 1> tlsServicePath{12};
constexpr std::uint32_t commandHandOver = 1;

// Fields of the hand-over request.
constexpr tn::bool_id handOverServer{1};  // the service is to be the server of the handshake
constexpr tn::u32_id handOverRef{2};

constexpr tn::bool_id contextUnix{1};

constexpr int originalDestination = 80;  // SO_ORIGINAL_DST, whose header does not go along with netinet/in.h

// Room for the address of an IPv6 or IPv4 socket as the kernel gives it. What is not filled in reads as :: and port 0.
class SocketAddress {
 public:
  [[nodiscard]] sockaddr* data() { return reinterpret_cast<sockaddr*>(bytes_.data()); }
  [[nodiscard]] socklen_t* length() { return &length_; }

  [[nodiscard]] IPAddr6 address() const {
    IPAddr6 address;
    address = *reinterpret_cast<const sockaddr*>(bytes_.data());
    return address;
  }

  // 0 for a family without ports: the TLS service may give back one end of a socket pair.
  [[nodiscard]] std::uint32_t port() const {
    sa_family_t family = AF_UNSPEC;
    std::memcpy(&family, bytes_.data(), sizeof family);
    return family == AF_INET || family == AF_INET6 ? loadBe16(&bytes_[portOffset]) : 0;
  }

 private:
  static constexpr std::size_t portOffset = offsetof(sockaddr_in6, sin6_port);
  static_assert(portOffset == offsetof(sockaddr_in, sin_port) && sizeof(sockaddr_in6) == 28);

  alignas(sockaddr_in6) std::array<std::uint8_t, sizeof(sockaddr_in6)> bytes_{};
  socklen_t length_ = sizeof(sockaddr_in6);
};

bool tooManyConnections() {
  return openConnections > maxOpenConnections;
}

// A failure that lasts while the waiting peer keeps the listener readable: without a pause the loop would spin.
bool outOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Nothing when no connection could be taken. That is mostly a peer that has gone again.
UniqueFd acceptFrom(ServerEntry& entry, const UniqueFd& listener, sockaddr* address, socklen_t* length) {
  UniqueFd socket(accept4(listener.get(), address, length, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!socket && outOfResources(errno)) pauseAccepting(entry);
  return socket;
}

bool isAllowed(const ServerEntry& entry, const IPAddr6& peer) {
  if (entry.allowed.empty()) return true;
  return std::any_of(entry.allowed.begin(), entry.allowed.end(),
                     [&peer](const IPPrefix6& prefix) { return prefix.has(peer); });
}

// False: the kernel has refused it for one of them.
bool watchListener(const UniqueFd& listener, unsigned mask) {
  return !listener || tn::getRunner()->changeSocket(listener.get(), mask);
}

bool watchListeners(ServerEntry& entry, unsigned mask) {
  const bool tcp = watchListener(entry.tcpSocket, mask);
  return watchListener(entry.unixSocket, mask) && tcp;
}

void startPause(ServerEntry& entry) {
  tn::ThinRunner& runner = *tn::getRunner();
  // Both listeners may find the limit passed in one turn: one pause is enough.
  runner.removeTimer(entry.pauseTimer);
  entry.pauseTimer = runner.addTimer(pauseMs, [&entry] { resumeAccepting(entry); });
}

void handOverToTls(ServerEntry& entry, UniqueFd socket, bool unixListener) {
  tn::message request;
  request.insert_vector(tn::field::destination, tlsServicePath);
  request.insert(tn::field::command, commandHandOver);
  request.insert(handOverServer, true);
  request.insert(handOverRef, entry.tlsRef);
  request.insert(tn::field::descriptor, static_cast<std::uint32_t>(socket.release()));
  tn::message context;
  context.insert(contextUnix, unixListener);
  const auto onReply = [&entry, context = std::move(context)](const tn::message& reply) {
    tlsReply(reply, entry, context);
  };
  tn::getLooper()->postMessage(std::move(request), onReply, handOverTimeoutMs);
}

// Makes what the TLS service gave back fit for the loop; nothing when it is no connected stream of bytes.
UniqueFd usableSocket(UniqueFd received) {
  int type = 0;
  socklen_t length = sizeof type;
  if (getsockopt(received.get(), SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_STREAM) return {};
  if (fcntl(received.get(), F_SETFL, O_NONBLOCK) != 0) return {};
  return received;
}

void fillAddresses(Request& request, int socket) {
  SocketAddress local;
  if (getsockname(socket, local.data(), local.length()) != 0) logSystemError("getsockname");
  request.localAddress = local.address();
  request.localPort = local.port();
  SocketAddress peer;
  if (getpeername(socket, peer.data(), peer.length()) != 0) logSystemError("getpeername");
  request.peerAddress = peer.address();
  request.peerPort = peer.port();
  SocketAddress original;
  if (getsockopt(socket, SOL_IP, originalDestination, original.data(), original.length()) != 0) return;
  request.originalAddress = original.address();
  request.originalPort = original.port();
  request.hasOriginal = true;
}

}  // namespace

void acceptConnection(ServerEntry& entry) {
  logLine("acceptConnection");
  if (tooManyConnections()) return pauseAccepting(entry);
  SocketAddress peer;
  UniqueFd socket = acceptFrom(entry, entry.tcpSocket, peer.data(), peer.length());
  if (!socket) return;
  if (!isAllowed(entry, peer.address())) {
    ++entry.counters.refusedByPrefix;
    return;
  }
  ++entry.counters.accepted;
  newConnection(entry, std::move(socket), entry.ssl, false);
}

void acceptUnixConnection(ServerEntry& entry) {
  logLine("acceptUnixConnection");
  if (tooManyConnections()) return pauseAccepting(entry);
  UniqueFd socket = acceptFrom(entry, entry.unixSocket, nullptr, nullptr);
  if (!socket) return;
  ++entry.counters.accepted;
  newConnection(entry, std::move(socket), entry.ssl, true);
}

void pauseAccepting(ServerEntry& entry) {
  if (entry.pauseTimer == 0) ++entry.counters.pauses;
  watchListeners(entry, 0);
  startPause(entry);
}

void resumeAccepting(ServerEntry& entry) {
  entry.pauseTimer = 0;
  // One that is not watched again would be deaf for good.
  if (!watchListeners(entry, tn::readable)) startPause(entry);
}

void newConnection(ServerEntry& entry, UniqueFd socket, bool handOver, bool unixListener) {
  if (handOver) return handOverToTls(entry, std::move(socket), unixListener);
  const int fd = socket.get();
  tn::ThinRunner& runner = *tn::getRunner();
  Connection& connection = createConnection(entry, std::move(socket), entry.ssl, unixListener, runner);
  if (!unixListener) fillAddresses(connection.request(), fd);
  const auto callback = [&connection](int ready, unsigned events) { connection.onSocketEvent(ready, events); };
  if (!runner.addNonBlocking(fd, tn::readable, callback)) return connection.close();
  connection.beginRequest();
}

void tlsReply(const tn::message& reply, ServerEntry& entry, const tn::message& context) {
  if (!entry.enabled) return;
  if (tn::isError(reply)) {
    logLine("ssl error: ", tn::getError(reply));
    return;
  }
  UniqueFd socket = usableSocket(tn::getLooper()->takeDescriptor(reply));
  if (!socket) {
    logLine("ssl error: no socket in the reply");
    return;
  }
  newConnection(entry, std::move(socket), false, context.get(contextUnix).value_or(false));
}
