// Between the peer's TLS and the server's plain bytes.
#include <cerrno>
#include <sys/socket.h>

#include "services/tlsd/session.h"
#include "services/tlsd/sessions.h"

namespace tlsd {

void Session::relaySocket(unsigned events) {
  // Both directions have ended under a peer that had only ended its own: it was cut off.
  if ((events & tn::hangUp) != 0 && peerEnded_) return cut(Failure::reset);
  if ((events & tn::readable) != 0 || readWaitsForRoom_) pumpUp();
  if (relaying() && (events & tn::writable) != 0) {
    pace_.room(socket_.get(), owner_.runner_.timers().now());
    pumpDown();
  }
  settleRelay();
}

void Session::onPair(unsigned events) {
  stream_->refresh();
  if ((events & tn::hangUp) != 0) serverGone_ = serverDeaf_ = true;
  if ((events & tn::readable) != 0) pumpDown();
  if (relaying() && (events & tn::writable) != 0) pumpUp();
  settleRelay();
  owner_.freeIfEnded(*this);
}

void Session::pumpUp() {
  for (unsigned block = 0; block < blocksPerCall; ++block) {
    if (!flushUp() || !fillUp()) return;
  }
  (void)flushUp();
}

// True: something came.
bool Session::fillUp() {
  if (peerEnded_) return false;
  tn::ThinRunner& runner = owner_.runner_;
  TlsStream::Transfer transfer{TlsStream::Result::done, 0};
  std::size_t total = 0;
  readWaitsForRoom_ = false;
  while (!up_.room().empty()) {
    transfer = stream_->read(up_.room());
    if (transfer.result != TlsStream::Result::done) break;
    up_.added(transfer.bytes);
    total += transfer.bytes;
  }
  up_.settle();
  if (total != 0) moved();
  owner_.counters_.fromPeers += total;
  switch (transfer.result) {
    case TlsStream::Result::done:
      break;
    case TlsStream::Result::wantRead:
      runner.drained(socket_.get(), tn::readable);
      break;
    case TlsStream::Result::wantWrite:
      readWaitsForRoom_ = true;
      runner.drained(socket_.get(), tn::writable);
      break;
    case TlsStream::Result::ended:
      peerEnded_ = true;
      break;
    case TlsStream::Result::failed:
      cut(diagnoseTransfer(stream_->opensslError(), stream_->systemError()));
      return false;
  }
  return total != 0;
}

// True: nothing is left.
bool Session::flushUp() {
  while (!up_.empty()) {
    if (serverDeaf_) {
      up_.clear();
      return true;
    }
    const auto held = up_.held();
    const ssize_t count = send(pair_.get(), held.data(), held.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count >= 0) {
      up_.taken(static_cast<std::size_t>(count));
      moved();
    } else if (errno == EAGAIN) {
      owner_.runner_.drained(pair_.get(), tn::writable);
      return false;
    } else {
      serverDeaf_ = true;
    }
  }
  return true;
}

void Session::pumpDown() {
  for (unsigned block = 0; block < blocksPerCall; ++block) {
    if (!flushDown() || !fillDown()) return;
  }
  (void)flushDown();
}

// True: something came.
bool Session::fillDown() {
  if (serverEnded_) return false;
  const auto room = down_.room();
  const ssize_t count = recv(pair_.get(), room.data(), room.size(), MSG_DONTWAIT);
  if (count > 0) {
    down_.added(static_cast<std::size_t>(count));
    if (static_cast<std::size_t>(count) < room.size()) {
      owner_.runner_.drained(pair_.get(), tn::readable);
    } else {
      pace_.begin(socket_.get());  // there is more than a block
    }
    moved();
    return true;
  }
  down_.settle();
  if (count < 0 && errno == EAGAIN) {
    owner_.runner_.drained(pair_.get(), tn::readable);
  } else {
    serverEnded_ = true;
    // The server closed what it had not read: it was cut off, or has given up.
    serverFailed_ = count < 0;
  }
  return false;
}

// True: nothing is left.
bool Session::flushDown() {
  while (!down_.empty()) {
    const TlsStream::Transfer transfer = stream_->write(down_.held());
    switch (transfer.result) {
      case TlsStream::Result::done:
        down_.taken(transfer.bytes);
        owner_.counters_.toPeers += transfer.bytes;
        moved();
        break;
      case TlsStream::Result::wantWrite:
        owner_.runner_.drained(socket_.get(), tn::writable);
        pace_.full(owner_.runner_.timers().now());
        return false;
      case TlsStream::Result::wantRead:  // without renegotiation a write never reads
      case TlsStream::Result::ended:
      case TlsStream::Result::failed:
        cut(diagnoseTransfer(stream_->opensslError(), stream_->systemError()));
        return false;
    }
  }
  return true;
}

// Tells the peer that the server's answer is whole, if it is.
void Session::endDown() {
  if (!serverFailed_) {
    switch (stream_->sendEnd()) {
      case TlsStream::Result::wantWrite:
        return owner_.runner_.drained(socket_.get(), tn::writable);
      case TlsStream::Result::failed:
        return cut(diagnoseTransfer(stream_->opensslError(), stream_->systemError()));
      case TlsStream::Result::done:
      case TlsStream::Result::wantRead:
      case TlsStream::Result::ended:
        break;
    }
  }
  ::shutdown(socket_.get(), SHUT_WR);
  endSent_ = true;
}

// What follows from what the pumps did, and what is waited for next.
void Session::settleRelay() {
  if (relaying() && serverEnded_ && down_.empty() && !endSent_) endDown();
  if (!relaying()) return;
  if (peerEnded_ && up_.empty() && !upShut_) {
    ::shutdown(pair_.get(), SHUT_WR);
    upShut_ = true;
  }
  if (endSent_ && upShut_) return finish();
  if (endSent_ && serverDeaf_) return startLinger();
  if (serverGone_ && phase_ == Phase::relay) enter(Phase::draining);

  const bool reads = !peerEnded_ && up_.empty() && !readWaitsForRoom_;
  const bool writes = !down_.empty() || (serverEnded_ && !endSent_) || readWaitsForRoom_;
  owner_.runner_.changeSocket(socket_.get(), (reads ? tn::readable : 0U) | (writes ? tn::writable : 0U));
  const bool takes = !serverEnded_ && down_.empty();
  owner_.runner_.changeSocket(pair_.get(), (takes ? tn::readable : 0U) | (up_.empty() ? 0U : tn::writable));
}

// Something moved: the time within which something has to begins anew.
void Session::moved() {
  const bool waiting = !down_.empty() || serverEnded_;
  timer_.start(owner_.runner_.timers(), waiting ? stallMs : idleMs);
}

void Session::cut(Failure kind) {
  owner_.counters_.count(kind);
  // The peer is told by an alert what it did wrong.
  if (kind == Failure::broken) return startLinger();
  finish();
}

}  // namespace tlsd
