#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "http/outgoing.h"
#include "http/site.h"
#include "platform/bus/thin_runner.h"
#include "platform/bus/timer.h"
#include "platform/unique_fd.h"
#include "platform/web/request.h"
#include "platform/web/response.h"

// Live connections of the process. Incremented by createConnection, decremented when a connection ends.
inline std::uint32_t openConnections = 0;

// One accepted HTTP connection: reads requests, calls servlets, writes their responses, one request at a time.
//
// A connection owns itself. It is made by createConnection, and freed when it ends: by a timer, an error, the end of
// the last response, or the completion of a parked request that was given up meanwhile. It is freed only as the last
// step of what the loop or a servlet called (onSocketEvent, a timer, close, response.onComplete), never under a
// callback of its own that still runs: a servlet may answer inside doMethod or inside its body consumer, and its
// request and response stay valid until that call has returned.
//
// A servlet that answers later holds the request and the response of a parked connection. They live until it calls
// response.onComplete, which may free them before it returns. `request.onRequestEnd` runs when the request has ended,
// also when that is the end of the connection; it must not call response.onComplete.
//
// Everything runs on the loop's thread.
class Connection {
 public:
  enum class State : std::uint8_t {
    readForward,      // unix listener: 88 bytes of forwarding header are awaited; both timers run
    readRequestLine,  // both timers run
    readHeaders,      // lines up to the empty one; both timers run
    readBody,         // a POST's body goes to its servlet; the idle timer runs
    dispatched,  // parked until the servlet completes; the socket is not watched, no timer runs (but the header timer
                 // of a request without version)
    writing,     // head and body leave; the idle timer runs
    closed,      // given up while parked: the servlet's completion frees it
    ended,       // everything is released; freed as soon as the caller is left
  };

  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  [[nodiscard]] Request& request() { return request_; }
  [[nodiscard]] int socket() const { return socket_.get(); }
  [[nodiscard]] State state() const { return state_; }

  // Starts the first request: arms the timers. The caller has watched the socket for readability with
  // Trigger::cached and a callback that leads to onSocketEvent. Every following request starts by itself.
  void beginRequest();

  // What the runner calls: `events` are its readable, writable and hang-up bits. May free the connection.
  void onSocketEvent(int fd, unsigned events);

  // Ends the connection and frees it; one that is parked is freed when its servlet completes it.
  void close();

 private:
  friend Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner);
  friend void endAllConnections();

  Connection(Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner);
  ~Connection();

  Site& site_;
  tn::ThinRunner& runner_;
  UniqueFd socket_;
  Request request_;
  Response response_;
};

// Makes the connection of an accepted socket; `tls` tells whether the client spoke TLS, `unixListener` whether the
// socket came from the local listener. The caller fills the addresses of request() (not for the unix listener of a
// server without TLS, whose requests bring them), watches the socket and calls beginRequest. Site and runner outlive
// it.
[[nodiscard]] Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener,
                                           tn::ThinRunner& runner);

// Ends and frees every connection, parked ones included (their onRequestEnd runs, and their servlets must not complete
// them any more), and lets go of all cached files. For the end of the process, while the runner still lives.
void endAllConnections();
