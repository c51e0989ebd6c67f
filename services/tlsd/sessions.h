#pragma once

#include <cstddef>
#include <cstdint>
#include <list>

#include "platform/bus/thin_runner.h"
#include "services/tlsd/block.h"
#include "services/tlsd/counters.h"
#include "services/tlsd/limits.h"
#include "services/tlsd/session.h"

namespace tlsd {

// All connections, and how many there may be.
//
// When a new one finds no place, one gives way that costs its peer least: one that only waits for its peer to close,
// then the handshake that has waited longest (a peer that means it needs a fraction of its time), then one whose server
// has ended and whose peer takes the rest at its leisure. Connections with a living server never do.
class Sessions {
 public:
  struct Limits {
    std::size_t sessions = maxSessions;
    std::size_t handshakes = maxHandshakes;
  };

  // `offload`: whether the kernel's TLS is asked for. The runner must outlive this.
  Sessions(tn::ThinRunner& runner, const Limits& limits, bool offload);
  Sessions(const Sessions&) = delete;
  Sessions& operator=(const Sessions&) = delete;
  ~Sessions();

  // Takes a socket over; `done` may run before this returns. Null context: there is no certificate.
  void add(SSL_CTX* context, UniqueFd socket, Session::Done done);
  // Ends all handshakes without a word: nobody waits for them any more.
  void abandonHandshakes();

  [[nodiscard]] const Counters& counters() const { return counters_; }
  [[nodiscard]] std::size_t handshakes() const { return handshakes_.size(); }
  [[nodiscard]] std::size_t relays() const { return relays_.size(); }
  [[nodiscard]] std::size_t closing() const { return draining_.size() + lingering_.size(); }

 private:
  friend class Session;

  [[nodiscard]] bool makeRoom();
  bool evictFrom(std::list<Session>& list);
  void refuse(const Session::Done& done, Failure kind, const char* text);
  // The list of the sessions of a phase.
  [[nodiscard]] std::list<Session>& listOf(Session::Phase phase);
  void freeIfEnded(Session& session);

  tn::ThinRunner& runner_;
  const Limits limits_;
  const bool offload_;
  Counters counters_;
  BlockPool pool_;
  // In the order in which they entered them.
  std::list<Session> handshakes_;
  std::list<Session> relays_;
  std::list<Session> draining_;
  std::list<Session> lingering_;
};

// How many connections the descriptors of this process allow for.
[[nodiscard]] std::size_t sessionsFor(std::size_t descriptors);

}  // namespace tlsd
