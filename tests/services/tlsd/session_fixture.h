#pragma once

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

#include "platform/bus/epoll_runner.h"
#include "platform/byte_order.h"
#include "services/tlsd/context.h"
#include "services/tlsd/sessions.h"
#include "tests/services/tlsd/certificates.h"

namespace tlsd::tests {

struct Ends {
  UniqueFd near;
  UniqueFd far;
};

// Two ends of a TCP connection of this machine.
inline Ends tcpEnds() {
  const UniqueFd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_storage address{};
  socklen_t length = sizeof(sockaddr_in);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  generic->sa_family = AF_INET;
  storeBe32(reinterpret_cast<std::uint8_t*>(generic) + offsetof(sockaddr_in, sin_addr), INADDR_LOOPBACK);
  EXPECT_EQ(bind(listener.get(), generic, length), 0);
  EXPECT_EQ(listen(listener.get(), 1), 0);
  EXPECT_EQ(getsockname(listener.get(), generic, &length), 0);
  Ends ends;
  ends.far.reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(connect(ends.far.get(), generic, length), 0);
  ends.near.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  EXPECT_TRUE(ends.near);
  return ends;
}

inline std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

// Bytes without a pattern that a shifted copy would repeat.
inline std::string sampleBytes(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 12345;
  for (char& c : bytes) {
    state = state * 1664525 + 1013904223;
    c = static_cast<char>(state >> 24);
  }
  return bytes;
}

// What a read brought.
struct Got {
  std::string bytes;
  bool ended = false;   // a clean end
  bool failed = false;  // anything else that will not go on
};

// A stranger who speaks TLS, in one thread with the service: everything returns at once.
class Peer {
 public:
  Peer(SSL_CTX& context, UniqueFd socket) : socket_(std::move(socket)), ssl_(SSL_new(&context)) {
    int on = 1;
    ioctl(socket_.get(), FIONBIO, &on);
    setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    SSL_set_fd(ssl_.get(), socket_.get());
    SSL_set_connect_state(ssl_.get());
  }

  [[nodiscard]] SSL* ssl() const { return ssl_.get(); }
  [[nodiscard]] int fd() const { return socket_.get(); }
  [[nodiscard]] bool established() const { return SSL_is_init_finished(ssl_.get()) == 1; }
  void step() { SSL_do_handshake(ssl_.get()); }

  // How much was taken.
  std::size_t write(std::string_view bytes) {
    std::size_t total = 0;
    std::size_t count = 0;
    while (total < bytes.size() && SSL_write_ex(ssl_.get(), bytes.data() + total, bytes.size() - total, &count) == 1)
      total += count;
    return total;
  }
  // All that has come, or what of it makes up this much.
  Got read(std::size_t enough = SIZE_MAX) {
    Got got;
    std::array<char, 65536> room;
    while (true) {
      if (got.bytes.size() >= enough) return got;
      std::size_t count = 0;
      ERR_clear_error();
      const int returned = SSL_read_ex(ssl_.get(), room.data(), room.size(), &count);
      got.bytes.append(room.data(), returned == 1 ? count : 0);
      if (returned == 1) continue;
      const int error = SSL_get_error(ssl_.get(), returned);
      got.ended = error == SSL_ERROR_ZERO_RETURN;
      got.failed = !got.ended && error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE;
      return got;
    }
  }
  void sayEnd() { SSL_shutdown(ssl_.get()); }
  // Ends the connection without the word that TLS has for it.
  void vanish() { socket_.reset(); }
  void resetConnection() {
    const linger now{1, 0};
    setsockopt(socket_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    socket_.reset();
  }

 private:
  UniqueFd socket_;
  Owned<SSL> ssl_;
};

inline Got readPlain(int fd) {
  Got got;
  std::array<char, 65536> room;
  while (true) {
    const ssize_t count = recv(fd, room.data(), room.size(), MSG_DONTWAIT);
    if (count > 0) {
      got.bytes.append(room.data(), static_cast<std::size_t>(count));
      continue;
    }
    got.ended = count == 0;
    got.failed = count < 0 && errno != EAGAIN;
    return got;
  }
}

inline std::size_t writePlain(int fd, std::string_view bytes) {
  std::size_t total = 0;
  while (total < bytes.size()) {
    const ssize_t count = send(fd, bytes.data() + total, bytes.size() - total, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count < 0) break;
    total += static_cast<std::size_t>(count);
  }
  return total;
}

inline bool hasHungUp(int fd) {
  pollfd one{fd, 0, 0};
  return poll(&one, 1, 0) == 1 && (one.revents & POLLHUP) != 0;
}

// Sessions on a real runner, turned by hand. At the end of a test nothing may be left open.
class SessionTest : public ::testing::Test {
 protected:
  // What became of one hand-over.
  struct HandOver {
    UniqueFd plain;
    std::string error;
    int answers = 0;
  };

  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    identity_.emplace(std::move(*Identity::parse(ownPair())));
    context_ = std::move(*makeContext(*identity_, offload_));
    clientContext_.reset(SSL_CTX_new(TLS_client_method()));
    // What the library and the runner open once is not counted.
    { tcpEnds(); }
    sessions_.emplace(runner_, limits_, offload_);
    descriptors_ = openDescriptors();
  }
  void TearDown() override {
    peers_.clear();
    for (int times = 0; times < 2; ++times) {
      for (HandOver& one : handOvers_)
        one.plain.reset();
      turn();
    }
    advance(lingerMs);
    EXPECT_EQ(sessions_->handshakes() + sessions_->relays() + sessions_->closing(), 0U);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  void turn(int times = 4) {
    for (int i = 0; i < times; ++i)
      (void)runner_.turn(false);
  }
  void advance(std::uint32_t ms) {
    runner_.timers().runExpired(runner_.timers().now() + std::chrono::milliseconds(ms));
    turn();
  }

  HandOver& handOver(UniqueFd socket) {
    HandOver& one = handOvers_.emplace_back();
    sessions_->add(context_.get(), std::move(socket), [&one](Session::Outcome outcome) {
      ++one.answers;
      one.plain = std::move(outcome.plain);
      one.error = std::move(outcome.error);
    });
    return one;
  }
  Peer& peerOf(UniqueFd socket) { return peers_.emplace_back(*clientContext_, std::move(socket)); }

  struct Link {
    Peer& peer;
    HandOver& service;
    [[nodiscard]] int plain() const { return service.plain.get(); }
  };
  Link begin() {
    Ends ends = tcpEnds();
    HandOver& service = handOver(std::move(ends.near));
    return {peerOf(std::move(ends.far)), service};
  }
  void shake(const Link& link) {
    for (int i = 0; i < 20 && link.service.answers == 0; ++i) {
      link.peer.step();
      turn();
    }
    link.peer.step();
    // A kernel that ciphers may send the last word a moment later.
    for (int i = 0; i < 10 && link.service.plain && !link.peer.established(); ++i) {
      pollfd last{link.peer.fd(), POLLIN, 0};
      poll(&last, 1, 1000);
      link.peer.step();
    }
  }
  Link connected() {
    const Link link = begin();
    shake(link);
    EXPECT_TRUE(link.peer.established());
    EXPECT_TRUE(link.service.plain) << link.service.error;
    return link;
  }

  // Writes to the server's end until it takes no more; how much it took.
  std::size_t fillFromServer(const Link& link) {
    std::size_t total = 0;
    for (int idle = 0; idle < 5; ++idle) {
      const std::size_t count = writePlain(link.plain(), filler_);
      if (count != 0) idle = 0;
      total += count;
      turn();
    }
    return total;
  }

  [[nodiscard]] std::uint64_t failures(Failure kind) const { return sessions_->counters().of(kind); }
  [[nodiscard]] std::uint64_t allFailuresTogether() const {
    std::uint64_t sum = 0;
    for (const Failure kind : allFailures)
      sum += failures(kind);
    return sum;
  }

  const std::string filler_ = std::string(65536, 'x');
  Sessions::Limits limits_;
  bool offload_ = false;
  tn::EpollRunner runner_;
  std::optional<Identity> identity_;
  Owned<SSL_CTX> context_;
  Owned<SSL_CTX> clientContext_;
  std::list<HandOver> handOvers_;
  std::list<Peer> peers_;
  std::optional<Sessions> sessions_;
  std::size_t descriptors_ = 0;
};

}  // namespace tlsd::tests
