#pragma once

#include <chrono>
#include <cstdint>

// Keeps a slow client of a large download within hearing; one for each connection, which owns the socket.
//
// Left to itself the kernel takes megabytes of a download and tells of room only when a third of them has left, which a
// slow client needs longer for than a connection may be silent. So, once much is on its way, it takes little beyond
// what it has sent; and when the client does not soon have half of that, this is how it stays. Of a client that has,
// several times, the kernel takes as much as it likes, which saves calls.
class ClientPace {
 public:
  using Time = std::chrono::steady_clock::time_point;

  // Much has been, or is about to be, sent through the socket. Only the first time of a connection counts.
  void begin(int socket) {
    if (state_ == State::unknown) ask(socket);
  }
  // The socket took no more.
  void full(Time now) {
    if (state_ != State::asked) return;
    state_ = State::full;
    fullSince_ = now;
  }
  // It takes more again.
  void room(int socket, Time now) {
    if (state_ == State::full) judge(socket, now);
  }

 private:
  enum class State : std::uint8_t { unknown, asked, full, known };

  void ask(int socket);
  void judge(int socket, Time now);

  State state_ = State::unknown;
  std::uint8_t soonSoFar_ = 0;
  Time fullSince_;
};
