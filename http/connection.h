#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "http/outgoing.h"
#include "http/site.h"
#include "http/workspace.h"
#include "platform/bus/thin_runner.h"
#include "platform/bus/timer.h"
#include "platform/client_pace.h"
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
// Everything runs on the loop's thread. The process ignores SIGPIPE: peers go away while they are written to.
class Connection {
  // Only createConnection can make one of these, and so a connection.
  class Key {
    friend Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener,
                                        tn::ThinRunner& runner);
    Key() = default;
  };

 public:
  static constexpr std::uint32_t headerLimitMs = 3000;  // from the start of a request to the end of its header block
  static constexpr std::uint32_t idleLimitMs = 2000;    // without a socket event

  enum class State : std::uint8_t {
    ReadForward,      // unix listener: 88 bytes of forwarding header are awaited; both timers run
    ReadRequestLine,  // both timers run
    ReadHeaders,      // lines up to the empty one; both timers run
    ReadBody,         // a POST's body goes to its servlet; the idle timer runs
    Dispatched,  // parked until the servlet completes; the socket is not watched, no timer runs (but the header timer
                 // of a request without version)
    Writing,     // head and body leave; the idle timer runs
    Closed,      // given up while parked: the servlet's completion frees it
    Ended,       // everything is released; freed as soon as the caller is left
  };

  Connection(Key key, Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  [[nodiscard]] Request& request() { return request_; }
  [[nodiscard]] int socket() const { return socket_.get(); }
  [[nodiscard]] State state() const { return state_; }

  // Starts the first request: arms the timers. The caller watches the socket for readability with Trigger::cached (or
  // addNonBlocking) and a callback that leads to onSocketEvent. Every following request starts by itself.
  void beginRequest();

  // What the runner calls: `events` are its readable, writable and hang-up bits. May free the connection.
  void onSocketEvent(int fd, unsigned events);

  // Ends the connection and frees it; one that is parked is freed when its servlet completes it.
  void close();

 private:
  friend Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener, tn::ThinRunner& runner);
  friend void endAllConnections();

  // What a look at the bytes read so far has found.
  enum class Scan : std::uint8_t { incomplete, complete, malformed };

  // connection.cc: life and parking
  void handleEvents(unsigned events);
  void timeOut();
  void finish();
  void destroy();
  void closeSocket();
  void freeIfEnded();
  void runRequestEnd() {
    if (request_.onRequestEnd) std::exchange(request_.onRequestEnd, nullptr)();
  }
  void park();
  void complete();
  // What the runner is to tell of; nothing is done when it knows.
  void watch(unsigned mask) {
    if (watched_ != mask) changeWatch(mask);
  }
  void changeWatch(unsigned mask);

  // connection_read.cc: from bytes to a request
  void onReadable();
  [[nodiscard]] bool readMore();
  void takeForwardHeader();
  void readHead(std::size_t scanFrom);
  [[nodiscard]] Scan scanLines(std::size_t scanFrom, std::size_t& lineStart);
  [[nodiscard]] Scan takeLine(std::string_view line);
  [[nodiscard]] Scan keepPartialLine(std::size_t lineStart);
  void dropFront(std::size_t count);
  void refuse();
  void dispatch();

  // connection_body.cc: a POST's body
  void beginBody();
  void pumpBody();
  [[nodiscard]] std::size_t nextPiece(std::size_t held) const;
  void deliver(std::string_view piece, bool last);
  void dropExcess();

  // connection_write.cc: the response
  void writeResponse();
  void onWritable();
  [[nodiscard]] std::string_view wholeResponse() const;
  [[nodiscard]] bool writeHead();
  [[nodiscard]] bool writeFile();
  void onWriteFailed();
  void onWritten();

  void setLength(std::size_t length);
  void takeUpWork();
  void layDownWork();

  Site& server_;
  UniqueFd socket_;
  std::uint32_t fill_ = 0;         // bytes held at the front of the buffer while reading
  std::uint32_t headerBytes_ = 0;  // request line and header lines so far, without line ends
  // From the first bytes of a request to the end of its response. Its buffer holds what is read, its length being the
  // room, and then the head of the response; the headers are those of request and response meanwhile.
  std::unique_ptr<Workspace> work_;
  Request request_;
  Response response_;
  Outgoing out_;  // in Writing
  State state_ = State::ReadRequestLine;
  std::uint32_t bodyReceived_ = 0;
  std::uint32_t bodyLength_ = 0;  // unknownLength for a POST that does not say
  tn::Timer headerTimer_;
  tn::Timer idleTimer_;

  tn::ThinRunner& runner_;
  std::list<Connection>::iterator self_;  // its place among all
  bool announced_ = false;                // the bytes just read begin a request, and were there at the runner's wait
  bool newsHeard_ = false;                // and so had been all news before them
  unsigned watched_ = tn::readable;       // what the runner was told to watch the socket for; 0 while it is parked
  ClientPace pace_;
  std::uint32_t bodyRoom_ = 0;  // in ReadBody: what the buffer may grow to
};

// Makes the connection of an accepted socket; `tls` tells whether the client spoke TLS, `unixListener` whether the
// socket came from the local listener. The caller fills the addresses of request() (not for the unix listener of a
// server without TLS, whose requests bring them), watches the socket and calls beginRequest. Site and runner outlive
// it.
[[nodiscard]] Connection& createConnection(Site& site, UniqueFd socket, bool tls, bool unixListener,
                                           tn::ThinRunner& runner);

// Ends and frees every connection, parked ones included (their onRequestEnd runs, and their servlets must not complete
// them any more), and lets go of all cached files. For the end of the process, while the runner still lives; not to be
// called by a servlet.
void endAllConnections();
