#include "tools/forwarder/forwarder.h"

#include <cerrno>
#include <sys/socket.h>
#include <utility>

namespace forwarder {
namespace {

// A failure that lasts while the waiting client keeps the listener readable.
bool outOfResources(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

Forwarder::~Forwarder() {
  runner_.removeSocket(listener_.get());
}

bool Forwarder::listen(const Address& address) {
  listener_.reset(socket(address.family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  return listener_ && setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
         bind(listener_.get(), address.data(), address.length()) == 0 && ::listen(listener_.get(), backlog) == 0 &&
         runner_.addSocket(listener_.get(), tn::readable, [this](int, unsigned) { accept(); });
}

void Forwarder::accept() {
  if (relays_.size() >= maxRelays) return pause();
  UniqueFd client(accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!client) {
    if (outOfResources(errno)) pause();
    return;
  }
  const auto place = relays_.emplace(relays_.end(), std::move(client), serverPort_, tag_, runner_);
  place->start([this, place] { relays_.erase(place); });
}

void Forwarder::pause() {
  runner_.changeSocket(listener_.get(), 0);
  pause_.start(runner_.timers(), pauseMs);
}

void Forwarder::resume() {
  runner_.changeSocket(listener_.get(), tn::readable);
}

}  // namespace forwarder
