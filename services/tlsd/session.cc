#include "services/tlsd/session.h"

#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <utility>

#include "services/tlsd/sessions.h"

namespace tlsd {

Session::Session(Sessions& owner, SSL_CTX& context, UniqueFd socket, Done done)
    : owner_(owner),
      socket_(std::move(socket)),
      done_(std::move(done)),
      timer_([this] { onTimer(); }),
      up_(owner.pool_),
      down_(owner.pool_) {
  stream_.emplace(context, socket_.get(), owner.offload_);
}

Session::~Session() {
  finish();
}

void Session::onSocket(unsigned events) {
  if (stream_) stream_->refresh();
  switch (phase_) {
    case Phase::handshake:
      stepHandshake();
      break;
    case Phase::relay:
    case Phase::draining:
      relaySocket(events);
      break;
    case Phase::linger:
      drainLinger();
      break;
  }
  owner_.freeIfEnded(*this);
}

void Session::onTimer() {
  switch (phase_) {
    case Phase::handshake:
      failHandshake(Failure::timedOut, "handshake timeout");
      break;
    case Phase::relay:
    case Phase::draining:
      cut(Failure::stalled);
      break;
    case Phase::linger:
      finish();
      break;
  }
  owner_.freeIfEnded(*this);
}

void Session::end(Failure failure) {
  if (phase_ == Phase::handshake) {
    failHandshake(failure, "too many connections");
  } else if (relaying()) {
    cut(failure);
  }
  finish();
}

// The end that lets the peer read what was sent to it: a socket that is closed with something unread in it takes back
// what its peer has not read yet.
void Session::startLinger() {
  stream_.reset();
  closePair();
  if (!endSent_) ::shutdown(socket_.get(), SHUT_WR);
  owner_.runner_.changeSocket(socket_.get(), tn::readable);
  timer_.start(owner_.runner_.timers(), lingerMs);
  enter(Phase::linger);
}

void Session::drainLinger() {
  std::array<char, 16384> waste;
  for (unsigned reads = 0; reads < blocksPerCall; ++reads) {
    const ssize_t count = recv(socket_.get(), waste.data(), waste.size(), MSG_DONTWAIT);
    if (count < 0 && errno == EAGAIN) return owner_.runner_.drained(socket_.get(), tn::readable);
    if (count <= 0) return finish();
  }
}

void Session::enter(Phase phase) {
  std::list<Session>& to = owner_.listOf(phase);
  to.splice(to.end(), owner_.listOf(phase_), self_);
  phase_ = phase;
}

// Gives everything back. What is freed here once is not there the second time.
void Session::finish() {
  timer_.cancel();
  done_ = nullptr;
  stream_.reset();
  closePair();
  // A copy may live on in the program that handed it over, so that closing it here does not end its watch.
  if (socket_) owner_.runner_.removeSocket(socket_.get());
  socket_.reset();
  ended_ = true;
}

void Session::closePair() {
  up_.clear();
  down_.clear();
  if (pair_) owner_.runner_.forgetSocket(pair_.get());
  pair_.reset();
}

}  // namespace tlsd
