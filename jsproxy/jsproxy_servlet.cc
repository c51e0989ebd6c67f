// The table of sessions, and messages that services address to them.
#include "jsproxy/jsproxy_servlet.h"

#include <array>
#include <utility>

#include "jsproxy/answers.h"
#include "platform/bus/looper.h"

namespace {

// The group that is told when a session ends.
constexpr std::uint32_t endOfSessionGroup = 0xff0001;

}  // namespace

JsProxyServlet::JsProxyServlet() : Servlet("GET, HEAD, POST") {
  armTimer();
  tn::getLooper()->addHandler(busHandlerId, *this);
}

JsProxyServlet::~JsProxyServlet() {
  if (tn::ThinRunner* runner = tn::getRunner()) runner->removeTimer(timer_);
}

bool JsProxyServlet::isDirectory() {
  return true;
}

JsSession* JsProxyServlet::findSession(std::uint32_t id) {
  const auto found = sessions_.find(id);
  return found == sessions_.end() ? nullptr : &found->second;
}

// The number is there for as long as fewer than four thousand million sessions are.
JsSession& JsProxyServlet::createSession(const IPAddr6& client, const SessionKeys& keys) {
  const std::uint32_t id = ids_.allocate().value_or(0);
  return sessions_.try_emplace(id, id, client, keys, secondsNow()).first->second;
}

void JsProxyServlet::destroySession(JsSession& session) {
  if (session.loggedIn) {
    tn::message notice;
    notice.insert_vector(tn::field::sender, std::array{session.id});
    notice.insert_vector(tn::field::destination, std::array{endOfSessionGroup});
    notice.insert(tn::field::command, tn::command::disconnected);
    sendMessage(std::move(notice));
  }
  for (const Poll& poll : std::exchange(session.waiters, {}))
    refuse(*poll.response, 410);
  const std::uint32_t id = session.id;
  ids_.release(id);
  sessions_.erase(id);
}

void JsProxyServlet::armTimer() {
  timer_ = tn::getRunner()->addTimer(expireEveryMs, [this] { expireSessions(); });
}

void JsProxyServlet::expireSessions() {
  const std::uint32_t now = secondsNow();
  for (auto next = sessions_.begin(); next != sessions_.end();) {
    JsSession& session = (next++)->second;
    if (session.waiters.empty() && session.lastActivity + idleSeconds <= now) destroySession(session);
  }
  armTimer();
}

void JsProxyServlet::handle(tn::message& msg) {
  if (!tn::policies::is_allowed(msg)) {
    replyError(msg, tn::error::notAllowed, {});
    return;
  }
  if (tn::isReply(msg)) {
    Handler::handle(msg);
    return;
  }
  const auto id = msg.popFront(tn::field::destination);
  JsSession* const session = id ? findSession(*id) : nullptr;
  if (session == nullptr) return;
  if (session->waiters.empty()) {
    session->queue.push_back(msg);
    return;
  }
  const Poll poll = session->waiters.front();
  session->waiters.pop_front();
  session->lastActivity = secondsNow();
  deliver(*session, poll, msg);
}
