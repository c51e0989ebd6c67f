#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/thin_runner.h"
#include "platform/bus/timer.h"
#include "platform/client_pace.h"
#include "platform/unique_fd.h"
#include "services/tlsd/block.h"
#include "services/tlsd/counters.h"
#include "services/tlsd/failure.h"
#include "services/tlsd/tls_stream.h"

namespace tlsd {

class Sessions;

// One peer's connection, from the socket that was handed over to its end. Owned by Sessions, in one of whose lists it
// stands; it is freed as the last step of the callback in which it ended.
//
// In the phase `relay` the peer's socket speaks TLS and one end of a socket pair speaks plain bytes; the other end has
// the server. Each direction has one block: it is filled from one side only when it is empty, so a side that takes
// nothing holds up the other.
//
//   end                          what the other side sees
//   peer: close_notify           the end of what it reads; it may still write
//   peer: anything else          the pair closed: nothing of an answer is taken any more
//   server: end of writing       close_notify and the end of the stream; the peer may still write
//   server: closed with unread   the end of the stream without close_notify
//   data (it was cut off)
class Session {
 public:
  // What becomes of the handshake: the descriptor for the server, or why there is none. Called once, and not any more
  // after abandon().
  struct Outcome {
    UniqueFd plain;
    std::string error;
  };
  using Done = std::function<void(Outcome)>;
  enum class Phase : std::uint8_t {
    handshake,  // until `handshakeMs`
    relay,      // until nothing has moved for `idleMs`, or `stallMs` while something waits
    draining,   // as relay, but the server is gone and only what it wrote is on its way
    linger,     // all is sent: until the peer closes too, or `lingerMs`
  };

  Session(Sessions& owner, SSL_CTX& context, UniqueFd socket, Done done);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session();

  [[nodiscard]] Phase phase() const { return phase_; }

 private:
  friend class Sessions;

  // Begins. False: the socket is none that can be watched.
  [[nodiscard]] bool start();
  // Ends it from outside; a handshake is answered.
  void end(Failure failure);

  void onSocket(unsigned events);
  void onPair(unsigned events);
  void onTimer();
  [[nodiscard]] bool relaying() const { return !ended_ && (phase_ == Phase::relay || phase_ == Phase::draining); }

  void stepHandshake();
  void established();
  void giveSocketBack();
  void openPair();
  void failHandshake(Failure kind, std::string_view text);

  void relaySocket(unsigned events);
  void pumpUp();
  bool fillUp();
  bool flushUp();
  void pumpDown();
  bool fillDown();
  bool flushDown();
  void endDown();
  void settleRelay();
  void moved();
  void cut(Failure kind);

  void startLinger();
  void drainLinger();
  void enter(Phase phase);
  void finish();
  void closePair();

  Sessions& owner_;
  std::list<Session>::iterator self_;
  UniqueFd socket_;
  Done done_;                        // in the phase handshake
  std::optional<TlsStream> stream_;  // until the phase linger
  tn::Timer timer_;
  Phase phase_ = Phase::handshake;
  bool ended_ = false;  // everything was given back; it is to be freed

  // In the phases relay and draining:
  UniqueFd pair_;
  Block up_;                       // from the peer to the server
  Block down_;                     // from the server to the peer
  bool peerEnded_ = false;         // close_notify has come
  bool serverEnded_ = false;       // it writes no more
  bool serverDeaf_ = false;        // it reads no more
  bool serverGone_ = false;        // neither: what it wrote is all there will be
  bool serverFailed_ = false;      // it was cut off
  bool upShut_ = false;            // the server was told of the peer's end
  bool endSent_ = false;           // and the peer of the server's
  bool readWaitsForRoom_ = false;  // a read has to write first
  ClientPace pace_;                // of the peer
};

}  // namespace tlsd
