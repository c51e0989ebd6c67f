// From a socket with a stranger at its other end to a descriptor that speaks plain bytes.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <utility>

#include "services/tlsd/session.h"
#include "services/tlsd/sessions.h"

namespace tlsd {
namespace {

struct Pair {
  UniqueFd ours;
  UniqueFd theirs;
};

Pair makePair() {
  int ends[2] = {-1, -1};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) != 0) return {};
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// Whether the failure left an alert in the socket, which the peer should get to read.
bool leavesAlert(Failure kind) {
  return kind == Failure::notTls || kind == Failure::nothingInCommon || kind == Failure::violated;
}

}  // namespace

bool Session::start() {
  timer_.start(owner_.runner_.timers(), handshakeMs);
  // What is sent is sent in whole flights, answers or blocks: nothing is gained by waiting for more.
  const int on = 1;
  setsockopt(socket_.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return owner_.runner_.addNonBlocking(socket_.get(), tn::readable, [this](int, unsigned events) { onSocket(events); });
}

void Session::stepHandshake() {
  const int fd = socket_.get();
  switch (stream_->handshake()) {
    case TlsStream::Result::done:
      return established();
    case TlsStream::Result::wantRead:
      owner_.runner_.drained(fd, tn::readable);
      owner_.runner_.changeSocket(fd, tn::readable);
      return;
    case TlsStream::Result::wantWrite:
      owner_.runner_.drained(fd, tn::writable);
      owner_.runner_.changeSocket(fd, tn::writable);
      return;
    case TlsStream::Result::ended:
    case TlsStream::Result::failed:
      const Diagnosis diagnosis = diagnoseHandshake(stream_->opensslError(), stream_->systemError());
      return failHandshake(diagnosis.kind, diagnosis.text);
  }
}

void Session::established() {
  if (stream_->resumed()) ++owner_.counters_.resumed;
  if (stream_->isOffloaded()) return giveSocketBack();
  openPair();
}

// The kernel ciphers from here on. Freeing the stream sends nothing.
void Session::giveSocketBack() {
  ++owner_.counters_.offloaded;
  owner_.runner_.removeSocket(socket_.get());
  stream_.reset();
  std::exchange(done_, nullptr)({std::move(socket_), {}});
  finish();
}

void Session::openPair() {
  Pair pair = makePair();
  if (!pair.ours) return failHandshake(Failure::system, "there is no descriptor left");
  ++owner_.counters_.relayed;
  pair_ = std::move(pair.ours);
  enter(Phase::relay);
  owner_.runner_.addNonBlocking(pair_.get(), tn::readable, [this](int, unsigned events) { onPair(events); });
  // The server has not even got its end.
  owner_.runner_.drained(pair_.get(), tn::readable);
  std::exchange(done_, nullptr)({std::move(pair.theirs), {}});
  // The first request is mostly there already.
  moved();
  pumpUp();
  settleRelay();
}

void Session::failHandshake(Failure kind, std::string_view text) {
  owner_.counters_.count(kind);
  if (const Done done = std::exchange(done_, nullptr)) done({UniqueFd(), std::string(text)});
  if (leavesAlert(kind)) return startLinger();
  finish();
}

}  // namespace tlsd
