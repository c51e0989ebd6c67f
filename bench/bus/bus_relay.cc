// The floor that the broker is measured against: it moves frames between two programs, each to the other, and does
// nothing else. No destinations, no rewritten headers, no queues.
//
//   bus_relay SOCKET each|batch
//
// "each" writes every frame by itself, as it comes out of the read; "batch" writes what a read gave with one call. It
// serves the first two programs that connect and ends with the first that leaves.

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <vector>

#include "bench/bus/bus_socket.h"
#include "platform/bus/frame.h"

namespace {

struct Side {
  UniqueFd socket;
  std::size_t partial = 0;  // bytes of a frame whose end has not come, at the front of the space
  std::vector<std::uint8_t> space = std::vector<std::uint8_t>(2 * readBytes);
};

bool relayBatch(Side& from, const Side& to) {
  const std::size_t n = readSome(from.socket.get(), std::span(from.space).first(readBytes));
  if (n == 0) return false;
  writeAll(to.socket.get(), std::span(from.space).first(n));
  return true;
}

bool relayEach(Side& from, const Side& to) {
  const std::size_t n = readSome(from.socket.get(), std::span(from.space).subspan(from.partial, readBytes));
  if (n == 0) return false;
  std::span<std::uint8_t> left = std::span(from.space).first(from.partial + n);
  while (left.size() >= tn::frameHeaderBytes) {
    const std::size_t length = tn::frameHeaderBytes + tn::loadFrameHeader(left.data()).length;
    if (left.size() < length) break;
    writeAll(to.socket.get(), left.first(length));
    left = left.subspan(length);
  }
  std::memmove(from.space.data(), left.data(), left.size());
  from.partial = left.size();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) fail("usage: bus_relay SOCKET each|batch");
  const auto relay = std::string_view(argv[2]) == "batch" ? relayBatch : relayEach;
  const UniqueFd listener = listenOn(argv[1]);
  const UniqueFd loop(epoll_create1(EPOLL_CLOEXEC));
  std::array<Side, 2> sides;
  for (std::uint32_t i = 0; i < sides.size(); ++i) {
    sides[i].socket.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u32 = i;
    if (!sides[i].socket || epoll_ctl(loop.get(), EPOLL_CTL_ADD, sides[i].socket.get(), &event) != 0) fail("accept");
  }
  for (;;) {
    std::array<epoll_event, 8> events;
    const int count = epoll_wait(loop.get(), events.data(), static_cast<int>(events.size()), -1);
    for (const epoll_event& event : std::span(events).first(static_cast<std::size_t>(std::max(count, 0)))) {
      const std::uint32_t from = event.data.u32;
      if (!relay(sides[from], sides[1 - from])) return 0;
    }
  }
}
