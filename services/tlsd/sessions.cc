#include "services/tlsd/sessions.h"

#include <algorithm>
#include <sys/socket.h>
#include <utility>

namespace tlsd {
namespace {

// What can be no connection is refused before anything is built on it.
bool isStream(const UniqueFd& socket) {
  int type = 0;
  socklen_t length = sizeof type;
  return getsockopt(socket.get(), SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
}

}  // namespace

Sessions::Sessions(tn::ThinRunner& runner, const Limits& limits, bool offload)
    : runner_(runner), limits_(limits), offload_(offload) {}

// The sessions use the other members to their end.
Sessions::~Sessions() {
  for (std::list<Session>* list : {&handshakes_, &relays_, &draining_, &lingering_})
    list->clear();
}

void Sessions::add(SSL_CTX* context, UniqueFd socket, Session::Done done) {
  ++counters_.handedOver;
  if (!isStream(socket)) return refuse(done, Failure::system, "no connection came with the request");
  if (context == nullptr) return refuse(done, Failure::system, "there is no certificate");
  if (!makeRoom()) return refuse(done, Failure::overload, "too many connections");
  Session& session = handshakes_.emplace_back(*this, *context, std::move(socket), std::move(done));
  session.self_ = std::prev(handshakes_.end());
  if (!session.start()) session.failHandshake(Failure::system, "the connection cannot be watched");
  freeIfEnded(session);
}

void Sessions::abandonHandshakes() {
  for (Session& session : handshakes_) {
    counters_.count(Failure::abandoned);
    session.finish();
  }
  handshakes_.clear();
}

// False: all that are there have a living server.
bool Sessions::makeRoom() {
  if (handshakes_.size() >= limits_.handshakes) evictFrom(handshakes_);
  if (handshakes_.size() + relays_.size() + closing() < limits_.sessions) return true;
  return evictFrom(lingering_) || evictFrom(handshakes_) || evictFrom(draining_);
}

bool Sessions::evictFrom(std::list<Session>& list) {
  if (list.empty()) return false;
  Session& oldest = list.front();
  oldest.end(Failure::overload);
  freeIfEnded(oldest);
  return true;
}

void Sessions::refuse(const Session::Done& done, Failure kind, const char* text) {
  counters_.count(kind);
  done({UniqueFd(), text});
}

std::list<Session>& Sessions::listOf(Session::Phase phase) {
  switch (phase) {
    case Session::Phase::handshake:
      return handshakes_;
    case Session::Phase::relay:
      return relays_;
    case Session::Phase::draining:
      return draining_;
    case Session::Phase::linger:
      break;
  }
  return lingering_;
}

void Sessions::freeIfEnded(Session& session) {
  if (session.ended_) listOf(session.phase_).erase(session.self_);
}

std::size_t sessionsFor(std::size_t descriptors) {
  const std::size_t free = descriptors > 2 * reservedDescriptors ? descriptors - reservedDescriptors : descriptors / 2;
  return std::clamp<std::size_t>(free / descriptorsPerSession, 1, maxSessions);
}

}  // namespace tlsd
