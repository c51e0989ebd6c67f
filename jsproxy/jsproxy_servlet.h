#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>

#include "jsproxy/session.h"
#include "jsproxy/session_handler.h"
#include "platform/bus/allocator.h"
#include "platform/bus/handler.h"
#include "platform/bus/thin_runner.h"
#include "platform/web/servlet.h"

// The enciphered tunnel between browsers and the bus: requests come in as a Servlet, messages of the system's services
// as bus handler 100, and the sessions between them are kept here. One for the whole process, listed by each server
// that wants it. docs/tunnel.md describes what travels.
//
// Who owns what, and what ends it
// - A session is owned by the table here. It ends by its browser's word or that of somebody who may say so
//   (SessionHandler), by a refused login, or by time (expireSessions); nothing else holds a pointer to it over a turn
//   of the loop. Whoever waits for something keeps the session's number instead and looks it up again: a session that
//   ended under a relay or a login is simply not found, and its request is answered 500.
// - A request that waits is owned by its connection, which keeps request and response valid until the answer is
//   complete or `request.onRequestEnd` has run. That callable cancels the post, or takes the poll out of its session's
//   list; it finds nothing to do when the answer came first. So exactly one of the two happens, however late, often or
//   wrongly a service replies: a post runs its callback once, with the reply or with an error of the bus itself.
// - A session that ends answers its waiting polls first (410). They are taken off its list before any of them runs, so
//   a connection that goes away in the middle finds its poll gone.
// - Neither the sender path nor a header field that a browser wrote reaches a service as the bus's own: the session's
//   number stands in front of that path, the fields that name the user are replaced, a descriptor's number is removed,
//   and what belongs to the bus library (0xff0020 to 0xff0023) the library removes.
class JsProxyServlet : public Servlet, public tn::Handler {
 public:
  // Its id on the process's loop.
  static constexpr std::uint32_t busHandlerId = 100;
  // Largest body of a request that carries a message: it is read whole.
  static constexpr std::uint32_t maxBodyBytes = 0x20000;
  static constexpr std::uint32_t expireEveryMs = 3000;
  static constexpr std::uint32_t idleSeconds = 60;
  static constexpr std::uint32_t replyTimeoutMs = 6000;
  // Sessions that the timer looks at in one turn of the loop; with more it goes on in the next.
  static constexpr std::size_t sessionsPerTurn = 512;

  // Registers itself and its handler of sessions with the process's looper, which must be there and outlive it, and
  // arms the session timer.
  JsProxyServlet();
  JsProxyServlet(const JsProxyServlet&) = delete;
  JsProxyServlet& operator=(const JsProxyServlet&) = delete;
  // Forgets all sessions without telling anybody.
  ~JsProxyServlet() override;

  // Serves what lies below its path as well: uploads and files have paths of their own there.
  bool isDirectory() override;
  // A file of the user's store, whose name is a frame in the query.
  void doGet(Request& request, Response& response) override;
  // A message; below "upload" and "put" a file for the user's store.
  void doPost(Request& request, Response& response) override;

  // A message of a service for one of the sessions; the reply to a post.
  void handle(tn::message& msg) override;

  [[nodiscard]] std::size_t sessionCount() const { return sessions_.size(); }
  // By number, those that have not logged in among them.
  [[nodiscard]] const std::map<std::uint32_t, JsSession>& sessions() const { return sessions_; }
  // Null: there is none. The pointer dies with the session, at the latest when control returns to the loop.
  [[nodiscard]] JsSession* findSession(std::uint32_t id);
  // Ends a session as its browser would. False: nobody is logged in with that number.
  bool endSession(std::uint32_t id);

 private:
  // jsproxy_servlet.cc: the table
  JsSession& createSession(const IPAddr6& client, const SessionKeys& keys);
  void destroySession(JsSession& session);
  void expireSessions(std::uint32_t from);
  void armTimer(std::uint32_t ms, std::uint32_t from);

  // jsproxy_request.cc: from a request to a message
  void acceptMessage(Request& request, Response& response);
  void onBody(std::string_view body, Form form, Request& request, Response& response);
  void takeBody(std::string_view body, Form form, Request& request, Response& response);
  void exchangeKeysWith(std::span<const std::uint8_t> bytes, const Request& request, Response& response);
  void dispatch(JsSession& session, tn::message msg, Form form, Request& request, Response& response);

  // jsproxy_files.cc: files of the user's store
  [[nodiscard]] JsSession* openQuery(const Request& request, int tooShortStatus, std::string& payload,
                                     Response& response);
  [[nodiscard]] JsSession* writingSession(const Request& request, std::string& payload, Response& response);
  void beginUpload(Request& request, Response& response);
  void beginPut(Request& request, Response& response);

  // jsproxy_relay.cc: from a message to its answer
  void login(JsSession& session, tn::message msg, Form form, Request& request, Response& response);
  void onLoginReply(std::uint32_t id, const tn::message& browser, const tn::message& reply, Form form,
                    Response& response);
  void relay(JsSession& session, tn::message msg, Form form, Request& request, Response& response);
  void poll(JsSession& session, Form form, Request& request, Response& response);
  void forgetPoll(std::uint32_t id, std::uint64_t ticket);
  void endSession(JsSession& session, Form form, Response& response);

  SessionHandler sessionHandler_{*this};
  std::map<std::uint32_t, JsSession> sessions_;
  tn::Allocator ids_{1, 0xFFFFFFFE};  // 0 marks a key exchange
  tn::ThinRunner::TimerHandle timer_ = 0;
  std::uint64_t lastTicket_ = 0;
  // Of the request in hand; they keep a little memory from one to the next.
  std::string frame_;
  std::string payload_;
};
