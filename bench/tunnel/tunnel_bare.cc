// The floor that the tunnel's calls are measured against: an HTTP front that takes whatever it reads as a request and
// sends a frame to a back through a relay (bench/bus/bus_relay.cc), which sends it back, and the front one fixed
// response. Nothing is parsed.
//
//   tunnel_bare front PORT SOCKET | tunnel_bare back SOCKET

#include <array>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "bench/bus/bus_socket.h"
#include "platform/bus/frame.h"

namespace {

constexpr std::size_t payloadBytes = 64;
constexpr std::size_t frameBytes = tn::frameHeaderBytes + payloadBytes;
// As long as the answer of the tunnel to the same call.
constexpr std::string_view response =
    "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 200\r\nDate: Sat, 21 Nov 2026 12:00:00 GMT\r\n"
    "Expires: Sun, 21 Nov 2027 12:00:00 GMT\r\nCache-Control: max-age=31536000\r\nConnection: Keep-Alive\r\n\r\n"
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx"
    "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx";

void watch(int loop, int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
}

UniqueFd listenOnPort(std::uint32_t port) {
  UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int one = 1;
  setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) fail("bind");
  if (listen(listener.get(), 64) != 0) fail("listen");
  return listener;
}

void answer(std::span<const std::uint8_t> frames) {
  for (; frames.size() >= frameBytes; frames = frames.subspan(frameBytes)) {
    const auto fd = static_cast<int>(tn::loadFrameHeader(frames.data()).peer);
    writeAll(fd, {reinterpret_cast<const std::uint8_t*>(response.data()), response.size()});
  }
}

[[noreturn]] void runFront(std::uint32_t port, const char* relayPath) {
  const UniqueFd listener = listenOnPort(port);
  const UniqueFd relay = connectTo(relayPath);
  const UniqueFd loop(epoll_create1(EPOLL_CLOEXEC));
  watch(loop.get(), listener.get());
  watch(loop.get(), relay.get());
  std::vector<std::uint8_t> space(readBytes);
  std::array<std::uint8_t, frameBytes> frame{};
  for (;;) {
    std::array<epoll_event, 64> events;
    const int count = epoll_wait(loop.get(), events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[static_cast<std::size_t>(i)].data.fd;
      if (fd == listener.get()) {
        const int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        const int one = 1;
        setsockopt(accepted, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        watch(loop.get(), accepted);
      } else if (fd == relay.get()) {
        answer(std::span(space).first(readSome(fd, space)));
      } else if (readSome(fd, space) == 0) {
        close(fd);
      } else {
        tn::storeFrameHeader(frame.data(), {payloadBytes, static_cast<std::uint32_t>(fd), 0});
        writeAll(relay.get(), frame);
      }
    }
  }
}

void runBack(const char* relayPath) {
  const UniqueFd relay = connectTo(relayPath);
  std::vector<std::uint8_t> space(readBytes);
  while (const std::size_t count = readSome(relay.get(), space))
    writeAll(relay.get(), std::span(space).first(count));
}

}  // namespace

int main(int argc, char** argv) {
  const std::string_view role = argc > 1 ? argv[1] : "";
  if (role == "front" && argc == 4) runFront(numberArgument(argv[2]), argv[3]);
  if (role != "back" || argc != 3) fail("usage: tunnel_bare front PORT SOCKET | tunnel_bare back SOCKET");
  runBack(argv[2]);
  return 0;
}
