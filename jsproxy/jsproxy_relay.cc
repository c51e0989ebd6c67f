// What becomes of a browser's message: login, relay, poll or the end of its session.
#include <algorithm>
#include <array>
#include <utility>

#include "jsproxy/answers.h"
#include "jsproxy/jsproxy_servlet.h"
#include "platform/bus/looper.h"
#include "platform/log.h"

namespace {

constexpr std::array<std::uint32_t, 2> loginService{13, 4};

// What the login service is asked, and what it answers.
namespace login_field {
constexpr std::uint32_t command = 1;
constexpr tn::string_id user{1};
constexpr tn::string_id password{3};
constexpr tn::u32_id seven{7};
constexpr std::uint32_t sevenValue = 5;
constexpr tn::bool_id eight{8};
constexpr tn::u32_id number{0xfe0001};
constexpr tn::u32_id policies{11};
constexpr tn::string_id text{24};
// Go from its answer to the browser as they are.
constexpr std::array<tn::string_id, 4> copied{tn::string_id(17), tn::string_id(18), tn::string_id(21),
                                              tn::string_id(23)};
}  // namespace login_field

// What services are told of the session that a message comes from.
constexpr tn::u32_id loginNumber{0xff0010};
constexpr tn::addr6_id clientAddress{0xff0013};
// What the browser is told of its login.
constexpr tn::string_id loginText{0xfe0009};

void copy(tn::string_id field, const tn::message& from, tn::message& to) {
  if (const auto text = from.get(field)) to.insert(field, *text);
}

std::string textOf(const tn::message& msg, tn::string_id field) {
  return std::string(msg.get(field).value_or(std::string_view()));
}

tn::message loginRequest(std::uint32_t session, const tn::message& browser, const IPAddr6& peer) {
  tn::message request;
  request.insert_vector(tn::field::sender, std::array{session});
  request.insert_vector(tn::field::destination, loginService);
  request.insert(tn::field::command, login_field::command);
  request.insert(login_field::eight, true);
  request.insert(login_field::seven, login_field::sevenValue);
  request.insert(clientAddress, peer.bytes());
  copy(login_field::user, browser, request);
  copy(login_field::password, browser, request);
  return request;
}

tn::message loginAnswer(const JsSession& session, const tn::message& reply) {
  tn::message answer;
  answer.insert_vector(tn::field::destination, std::array{session.id});
  answer.insert(tn::field::user, session.user);
  answer.insert(tn::field::policies, session.policies);
  answer.insert(loginText, session.loginText);
  for (const tn::string_id field : login_field::copied)
    copy(field, reply, answer);
  return answer;
}

}  // namespace

void JsProxyServlet::login(JsSession& session, tn::message msg, Form form, Request& request, Response& response) {
  tn::message question = loginRequest(session.id, msg, request.peerAddress);
  const tn::PostId post = postMessage(
      std::move(question),
      [this, id = session.id, browser = std::move(msg), form, &response](const tn::message& reply) {
        onLoginReply(id, browser, reply, form, response);
      },
      replyTimeoutMs);
  request.onRequestEnd = [this, post] { cancelPost(post); };
}

void JsProxyServlet::onLoginReply(std::uint32_t id, const tn::message& browser, const tn::message& reply, Form form,
                                  Response& response) {
  if (tn::isError(reply)) {
    refuse(response, 403);
    if (JsSession* session = findSession(id)) destroySession(*session);
    return;
  }
  JsSession* const session = findSession(id);
  if (session == nullptr) {
    logLine("session has disappeared");
    return refuse(response, 500);
  }
  session->loggedIn = true;
  session->loginTime = tn::getRunner()->timers().now();
  session->user = textOf(browser, login_field::user);
  session->loginNumber = reply.get(login_field::number).value_or(0);
  session->policies = reply.get(login_field::policies).value_or(0);
  session->loginText = textOf(reply, login_field::text);
  // Of this answer in both forms.
  response.headers.addHeader("Content-Type", "text/plain", false);
  answer(response, putEncrypted(*session, loginAnswer(*session, reply), form));
}

void JsProxyServlet::relay(JsSession& session, tn::message msg, Form form, Request& request, Response& response) {
  session.lastActivity = secondsNow();
  msg.insert(tn::field::user, session.user);
  msg.insert(loginNumber, session.loginNumber);
  msg.insert(tn::field::policies, session.policies);
  msg.remove(tn::field::descriptor);
  const tn::PostId post = postMessage(
      std::move(msg),
      [this, id = session.id, form, &response](const tn::message& reply) {
        JsSession* const found = findSession(id);
        if (found == nullptr) return refuse(response, 500);
        answer(response, putEncrypted(*found, reply, form));
      },
      replyTimeoutMs);
  request.onRequestEnd = [this, post] { cancelPost(post); };
}

void JsProxyServlet::poll(JsSession& session, Form form, Request& request, Response& response) {
  const Poll poll{++lastTicket_, &response, form};
  if (session.queue.empty()) {
    session.waiters.push_back(poll);
    request.onRequestEnd = [this, id = session.id, ticket = poll.ticket] { forgetPoll(id, ticket); };
    return;
  }
  const tn::message msg = std::move(session.queue.front());
  session.queue.pop_front();
  deliver(session, poll, msg);
  session.lastActivity = secondsNow();
}

void JsProxyServlet::forgetPoll(std::uint32_t id, std::uint64_t ticket) {
  if (JsSession* session = findSession(id)) {
    session->waiters.remove_if([ticket](const Poll& poll) { return poll.ticket == ticket; });
  }
}

void JsProxyServlet::endSession(JsSession& session, Form form, Response& response) {
  answer(response, putEncrypted(session, tn::message(), form));
  destroySession(session);
}
