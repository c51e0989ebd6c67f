// One measurement of the bus benchmark: two bare clients exchange frames through whatever listens on a socket, the
// broker or the relay, and the cost is printed as one line.
//
//   bus_round SOCKET broker|relay PAYLOAD OUTSTANDING ROUNDTRIPS
//
// One client keeps OUTSTANDING requests of PAYLOAD bytes under way, the other sends everything back as it comes; the
// bytes that they send are the same for the broker and for the relay. Printed: round trips per second, and microseconds
// of processor time for each round trip, of the process that listens and of all three.

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdlib>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bench/bus/bus_clock.h"
#include "bench/bus/bus_socket.h"
#include "platform/bus/frame.h"

namespace {

struct Load {
  std::uint32_t payload;
  std::uint32_t outstanding;
  std::uint32_t roundTrips;
};

constexpr std::uint32_t warmUpTrips = 2000;

// The join of a program without a name, whose id the broker chooses: the field u32 1 = 1, and what stands before it.
constexpr std::array<std::uint8_t, 19> joinFrame = {7, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 'M', '2', 1, 0, 0, 0x09, 1};

// Joins and returns the id, u32 field 2 of the answer: the second field, four bytes long for ids above 255.
std::uint32_t join(int socket) {
  writeAll(socket, joinFrame);
  std::array<std::uint8_t, tn::frameHeaderBytes> head;
  readAll(socket, head);
  std::vector<std::uint8_t> answer(tn::loadFrameHeader(head.data()).length);
  readAll(socket, answer);
  constexpr std::size_t idAt = 2 + 5 + 4;
  if (answer.size() != idAt + 4) fail("the broker's answer");
  return loadLe32(answer.data() + idAt);
}

pid_t peerOf(int socket) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) fail("SO_PEERCRED");
  return peer.pid;
}

[[noreturn]] void echo(const UniqueFd& socket) {
  std::vector<std::uint8_t> space(readBytes);
  for (;;) {
    const std::size_t n = readSome(socket.get(), space);
    if (n == 0) std::_Exit(0);
    writeAll(socket.get(), std::span(space).first(n));
  }
}

class Requester {
 public:
  Requester(int socket, const Load& load, std::uint32_t peer)
      : socket_(socket), frameBytes_(tn::frameHeaderBytes + load.payload), outstanding_(load.outstanding) {
    requests_.resize(frameBytes_ * outstanding_, 'x');
    for (std::size_t i = 0; i < outstanding_; ++i)
      tn::storeFrameHeader(requests_.data() + i * frameBytes_, {load.payload, peer, 0});
  }

  void run(std::uint32_t roundTrips) {
    std::size_t unsent = roundTrips - send(std::min<std::size_t>(outstanding_, roundTrips));
    std::size_t bytes = 0;
    while (bytes < std::size_t{roundTrips} * frameBytes_) {
      const std::size_t before = bytes / frameBytes_;
      const std::size_t n = readSome(socket_, space_);
      if (n == 0) fail("the broker ended");
      bytes += n;
      const std::size_t answered = bytes / frameBytes_ - before;
      unsent -= send(std::min(answered, unsent));
    }
  }

 private:
  std::size_t send(std::size_t count) {
    writeAll(socket_, std::span(requests_).first(count * frameBytes_));
    return count;
  }

  int socket_;
  std::size_t frameBytes_;
  std::size_t outstanding_;
  std::vector<std::uint8_t> requests_;
  std::vector<std::uint8_t> space_ = std::vector<std::uint8_t>(readBytes);
};

void measure(const UniqueFd& socket, const Load& load, std::uint32_t peer, pid_t echoer) {
  Requester requester(socket.get(), load, peer);
  requester.run(warmUpTrips);
  const Spending spending(peerOf(socket.get()), echoer);
  requester.run(load.roundTrips);
  spending.print(load.roundTrips);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 6) fail("usage: bus_round SOCKET broker|relay PAYLOAD OUTSTANDING ROUNDTRIPS");
  const bool broker = std::string_view(argv[2]) == "broker";
  const Load load{numberArgument(argv[3]), numberArgument(argv[4]), numberArgument(argv[5])};
  UniqueFd requesting = connectTo(argv[1]);
  UniqueFd echoing = connectTo(argv[1]);
  if (broker) (void)join(requesting.get());
  const std::uint32_t peer = broker ? join(echoing.get()) : 1;
  const pid_t echoer = fork();
  if (echoer < 0) fail("fork");
  if (echoer == 0) {
    requesting.reset();
    echo(echoing);
  }
  echoing.reset();
  measure(requesting, load, peer, echoer);
  kill(echoer, SIGTERM);
  waitpid(echoer, nullptr, 0);
  return 0;
}
