// The clients of the benchmark of a crowd.
//
//   crowd_load hostile PORT COUNT      COUNT connections that cost a server something and give it nothing, until it is
//   ended;
//                                      says "ready" when each has been opened once
//   crowd_load honest PORT SECONDS     small requests one after the other; prints how many, and the median, the 99th
//                                      percentile and the maximum of their times in microseconds
//
// The time of an honest request runs from its sending to the last byte of its answer, over a new connection each; the
// time that the connection took to come about is left out, since a short queue of the listener makes the kernel try
// again a second later whatever the server does.

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <vector>

#include "bench/bus/bus_socket.h"
#include "platform/unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr auto tick = milliseconds(5);
constexpr int openedPerTick = 8;  // as many as the shortest queue of a listener holds
constexpr std::string_view smallRequest = "GET /1k.bin HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
constexpr std::string_view largeRequest = "GET /1m.bin HTTP/1.1\r\nHost: localhost\r\n\r\n";
constexpr std::string_view halfHead = "GET /1k.bin HTTP/1.1\r\nHost: localhost\r\nX-Half: ";
constexpr std::size_t smallBody = 1024;

UniqueFd connectTo(std::uint16_t port, int flags, int receiveBuffer = 0) {
  UniqueFd made(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (receiveBuffer > 0) setsockopt(made.get(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  sockaddr generic{};
  std::memcpy(&generic, &address, sizeof address);
  if (connect(made.get(), &generic, sizeof address) != 0 && errno != EINPROGRESS) made.reset();
  return made;
}

enum class Way {
  drip,     // a head of which a byte comes now and then
  half,     // half a head, and then nothing
  deaf,     // asks for a large file and reads none of it
  flicker,  // opens and closes
};

class Hostile {
 public:
  Hostile(std::uint16_t port, Way way) : port_(port), way_(way) {}

  [[nodiscard]] int fd() const { return socket_.get(); }
  [[nodiscard]] bool wantsToOpen(Clock::time_point now) const { return !socket_ && now >= due_; }

  void open(Clock::time_point now) {
    constexpr int smallBuffer = 4096;
    socket_ = connectTo(port_, SOCK_NONBLOCK, way_ == Way::deaf ? smallBuffer : 0);
    sent_ = 0;
    due_ = now + pause();
  }

  // `ended`: the server has closed the connection.
  void step(Clock::time_point now, bool ended) {
    if (ended) socket_.reset();
    if (!socket_ || now < due_) return;
    due_ = now + pause();
    switch (way_) {
      case Way::drip:
        sendNext(halfHead, 1);
        break;
      case Way::half:
        sendNext(halfHead, halfHead.size());
        break;
      case Way::deaf:
        sendNext(largeRequest, largeRequest.size());
        break;
      case Way::flicker:
        socket_.reset();
        break;
    }
  }

 private:
  [[nodiscard]] milliseconds pause() const { return milliseconds(way_ == Way::flicker ? 50 : 100); }

  void sendNext(std::string_view text, std::size_t count) {
    text.remove_prefix(std::min(sent_, text.size()));
    text = text.substr(0, count);
    const ssize_t n = send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL);
    if (n > 0) sent_ += static_cast<std::size_t>(n);
  }

  std::uint16_t port_;
  Way way_;
  UniqueFd socket_;
  std::size_t sent_ = 0;
  Clock::time_point due_;
};

// Of nine, three drip, three stop half-way, two do not read, and one opens and closes.
constexpr std::array<Way, 9> mixture = {Way::drip, Way::half, Way::deaf, Way::drip,   Way::half,
                                        Way::deaf, Way::drip, Way::half, Way::flicker};

[[noreturn]] void beHostile(std::uint16_t port, std::uint32_t count) {
  std::vector<Hostile> all;
  for (std::uint32_t i = 0; i < count; ++i)
    all.emplace_back(port, mixture[i % mixture.size()]);
  std::vector<pollfd> polled(count);
  std::uint32_t opened = 0;
  for (auto now = Clock::now();; now = Clock::now()) {
    for (std::uint32_t i = 0; i < count; ++i)
      polled[i] = {all[i].fd(), POLLRDHUP, 0};
    if (poll(polled.data(), polled.size(), 0) < 0) fail("poll");
    int left = openedPerTick;
    for (std::uint32_t i = 0; i < count; ++i) {
      all[i].step(now, (polled[i].revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0);
      if (left == 0 || !all[i].wantsToOpen(now)) continue;
      --left;
      all[i].open(now);
      if (++opened == count) {
        std::puts("ready");
        std::fflush(stdout);
      }
    }
    std::this_thread::sleep_until(now + tick);
  }
}

// The time of one request in microseconds.
double ask(std::uint16_t port) {
  const UniqueFd socket = connectTo(port, 0);
  if (!socket) fail("connect");
  const auto began = Clock::now();
  if (send(socket.get(), smallRequest.data(), smallRequest.size(), MSG_NOSIGNAL) < 0) fail("send");
  std::string answer;
  std::array<char, 4096> space;
  for (std::size_t expected = 0; expected == 0 || answer.size() < expected;) {
    const ssize_t n = recv(socket.get(), space.data(), space.size(), 0);
    if (n <= 0) fail("the answer ended");
    answer.append(space.data(), static_cast<std::size_t>(n));
    const std::size_t end = answer.find("\r\n\r\n");
    if (end != std::string::npos) expected = end + 4 + smallBody;
  }
  if (!answer.starts_with("HTTP/1.1 200")) fail("no file");
  return std::chrono::duration<double, std::micro>(Clock::now() - began).count();
}

void beHonest(std::uint16_t port, std::uint32_t seconds) {
  std::vector<double> times;
  for (const auto end = Clock::now() + std::chrono::seconds(seconds); Clock::now() < end;) {
    times.push_back(ask(port));
    std::this_thread::sleep_for(milliseconds(1));
  }
  std::sort(times.begin(), times.end());
  std::printf("%zu %.1f %.1f %.1f\n", times.size(), times[times.size() / 2], times[times.size() * 99 / 100],
              times.back());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) fail("usage: crowd_load hostile|honest PORT COUNT|SECONDS");
  const auto port = static_cast<std::uint16_t>(numberArgument(argv[2]));
  const std::uint32_t number = numberArgument(argv[3]);
  if (std::string_view(argv[1]) == "hostile") beHostile(port, number);
  beHonest(port, number);
  return 0;
}
