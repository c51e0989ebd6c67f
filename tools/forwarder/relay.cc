#include "tools/forwarder/relay.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <netinet/in.h>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "platform/log.h"
#include "tools/forwarder/request_head.h"

namespace forwarder {
namespace {

constexpr std::size_t flowBytes = 65536;
constexpr int originalDestination = 80;  // SO_ORIGINAL_DST, for either family
constexpr std::string_view badGateway = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

bool wouldBlock() {
  return errno == EAGAIN || errno == EINTR;
}

// The server's listener: an abstract name, padded with NULs to the full length of an address.
sockaddr_un listenerOf(std::uint32_t port) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = std::string("www-unix").append(NumberText(port));
  std::memcpy(address.sun_path + 1, name.data(), name.size());
  return address;
}

using AddressCall = int (*)(int, sockaddr*, socklen_t*);

Address askAddress(int fd, AddressCall call) {
  Address address;
  socklen_t length = addressBytes;
  if (call(fd, address.data(), &length) != 0) address = {};
  return address;
}

// Where the client wanted to go: the firewall's word, or the local address when no firewall sent it here.
Address originalOf(int fd, const Address& local) {
  Address address;
  socklen_t length = addressBytes;
  const int level = local.family() == AF_INET6 ? SOL_IPV6 : SOL_IP;
  return getsockopt(fd, level, originalDestination, address.data(), &length) == 0 ? address : local;
}

std::string headerText(int fd, std::uint32_t tag) {
  const Address local = askAddress(fd, getsockname);
  const auto header = forwardingHeader(askAddress(fd, getpeername), local, originalOf(fd, local), tag);
  return {header.begin(), header.end()};
}

}  // namespace

Relay::Relay(UniqueFd client, std::uint32_t serverPort, std::uint32_t tag, tn::ThinRunner& runner)
    : client_(std::move(client)), serverPort_(serverPort), tag_(tag), runner_(runner), timer_([this] { onTimer(); }) {}

Relay::~Relay() {
  runner_.removeSocket(client_.get());
  runner_.removeSocket(server_.get());
}

void Relay::start(std::function<void()> ended) {
  ended_ = std::move(ended);
  timer_.start(runner_.timers(), headMs);
  if (!runner_.addSocket(client_.get(), tn::readable, [this](int, unsigned) { onClient(); })) end();
}

void Relay::onTimer() {
  if (state_ == State::connecting) return connect();
  end();
}

void Relay::onClient() {
  switch (state_) {
    case State::readingHead:
      if (!fill(client_, toServer_, maxHeadBytes) || toServer_.ended) return end();
      return takeHead();
    case State::connecting:
      return;
    case State::relaying:
      return pump();
    case State::leaving: {
      Flow unread;
      if (!fill(client_, unread, flowBytes) || unread.ended) end();
      return;
    }
  }
}

void Relay::onServer() {
  pump();
}

void Relay::takeHead() {
  const std::string_view held = toServer_.held;
  const auto length = headLength(held);
  if (!length) {
    if (held.size() >= maxHeadBytes) end();
    return;
  }
  toServer_.held =
      headerText(client_.get(), tag_).append(closingHead(held.substr(0, *length))) + std::string(held.substr(*length));
  connect();
}

void Relay::connect() {
  state_ = State::connecting;
  runner_.changeSocket(client_.get(), 0);
  server_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_un address = listenerOf(serverPort_);
  const bool connected =
      server_ && ::connect(server_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
  if (!connected && server_ && errno == EAGAIN && retriesLeft_-- > 0) {
    timer_.start(runner_.timers(), retryMs);
    return;
  }
  state_ = State::relaying;
  if (!connected || !runner_.addSocket(server_.get(), tn::readable, [this](int, unsigned) { onServer(); })) {
    return refuse();
  }
  pump();
}

void Relay::refuse() {
  logSystemError("connect");
  runner_.removeSocket(server_.get());
  server_.reset();
  toClient_ = {std::string(badGateway), true, false};
  pump();
}

// Moves what can be moved. What a side does not take waits, and the other one is not read meanwhile.
void Relay::pump() {
  timer_.start(runner_.timers(), idleMs);
  if (server_) {
    if (!fill(client_, toServer_, flowBytes)) return end();
    // A server that does not want the rest of a request has answered it all the same.
    if (!drain(server_, toServer_)) toServer_ = {{}, true, true};
    if (!fill(server_, toClient_, flowBytes)) toClient_.ended = true;
  }
  if (!drain(client_, toClient_)) return end();
  if (toClient_.passed) return leave();
  watch();
}

// The client has it all. Closing at once, with bytes of the client still unread, would take the end of the response
// away from it.
void Relay::leave() {
  state_ = State::leaving;
  runner_.removeSocket(server_.get());
  server_.reset();
  runner_.changeSocket(client_.get(), tn::readable);
  timer_.start(runner_.timers(), leaveMs);
}

void Relay::end() {
  timer_.cancel();
  if (const std::function<void()> ended = std::exchange(ended_, nullptr)) ended();
}

bool Relay::fill(const UniqueFd& from, Flow& flow, std::size_t room) {
  if (flow.ended || flow.held.size() >= room) return true;
  const std::size_t before = flow.held.size();
  flow.held.resize(room);
  const ssize_t count = recv(from.get(), flow.held.data() + before, room - before, MSG_DONTWAIT);
  const int error = errno;
  flow.held.resize(before + (count > 0 ? static_cast<std::size_t>(count) : 0));
  flow.ended = count == 0;
  errno = error;
  return count >= 0 || wouldBlock();
}

bool Relay::drain(const UniqueFd& to, Flow& flow) {
  while (!flow.held.empty()) {
    const ssize_t count = send(to.get(), flow.held.data(), flow.held.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) return wouldBlock();
    flow.held.erase(0, static_cast<std::size_t>(count));
  }
  if (flow.ended && !flow.passed) {
    flow.passed = true;
    shutdown(to.get(), SHUT_WR);
  }
  return true;
}

void Relay::watch() {
  const auto maskOf = [](const Flow& in, const Flow& out) {
    return (!in.ended && in.held.size() < flowBytes ? tn::readable : 0U) | (out.held.empty() ? 0U : tn::writable);
  };
  runner_.changeSocket(client_.get(), server_ ? maskOf(toServer_, toClient_) : tn::writable);
  if (server_) runner_.changeSocket(server_.get(), maskOf(toClient_, toServer_));
}

}  // namespace forwarder
