// The table of sessions, and messages that services address to them.
#include "jsproxy/jsproxy_servlet.h"

#include <array>
#include <utility>

#include "jsproxy/answers.h"
#include "platform/bus/looper.h"

namespace {

// The group that is told when a session ends.
constexpr std::uint32_t endOfSessionGroup = 0xff0001;

constexpr std::uint32_t firstId = 1;

}  // namespace

JsProxyServlet::JsProxyServlet() : Servlet("GET, HEAD, POST") {
  armTimer(expireEveryMs, firstId);
  tn::getLooper()->addHandler(busHandlerId, *this);
  tn::getLooper()->addHandler(SessionHandler::busHandlerId, sessionHandler_);
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

bool JsProxyServlet::endSession(std::uint32_t id) {
  JsSession* const session = findSession(id);
  if (session == nullptr || !session->loggedIn) return false;
  destroySession(*session);
  return true;
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

void JsProxyServlet::armTimer(std::uint32_t ms, std::uint32_t from) {
  timer_ = tn::getRunner()->addTimer(ms, [this, from] { expireSessions(from); });
}

// In the order of their numbers, from one number on.
void JsProxyServlet::expireSessions(std::uint32_t from) {
  const std::uint32_t now = secondsNow();
  auto next = sessions_.lower_bound(from);
  for (std::size_t left = sessionsPerTurn; left > 0 && next != sessions_.end(); --left) {
    JsSession& session = (next++)->second;
    if (session.waiters.empty() && session.lastActivity + idleSeconds <= now) destroySession(session);
  }
  if (next == sessions_.end()) {
    armTimer(expireEveryMs, firstId);
  } else {
    armTimer(0, next->first);
  }
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
