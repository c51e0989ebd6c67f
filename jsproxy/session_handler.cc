#include "jsproxy/session_handler.h"

#include <chrono>
#include <utility>
#include <vector>

#include "jsproxy/jsproxy_servlet.h"
#include "platform/bus/looper.h"
#include "platform/policies.h"

namespace {

constexpr tn::message_array_id sessionsField{1};
constexpr tn::u32_id countField{2};

// Of each session:
constexpr tn::u32_id idField{1};
constexpr tn::string_id userField{2};
constexpr tn::addr6_id clientField{3};
constexpr tn::u64_id loggedInField{4};
constexpr tn::u64_id idleField{5};
constexpr tn::u32_id policiesField{6};
constexpr tn::bool_id ownField{7};

constexpr std::uint32_t noSession = 0;

// The session of this tunnel that a message comes from. Its path cannot be forged: the broker writes the program, its
// library the handler, and the tunnel the session.
std::uint32_t askingSession(const tn::message& msg) {
  constexpr std::size_t ids = 3;
  const auto path = msg.get(tn::field::sender);
  if (!path || path->size() < ids || (*path)[0] != tn::getLooper()->busId()) return noSession;
  return (*path)[1] == JsProxyServlet::busHandlerId ? (*path)[2] : noSession;
}

bool seesAll(const tn::message& msg) {
  return tn::policies::holds(msg, tn::policies::manageUsers);
}

// The clock of the sessions may have been set back meanwhile.
std::uint64_t idleMs(const JsSession& session) {
  constexpr std::uint64_t perSecond = 1000;
  const std::uint32_t now = secondsNow();
  return now < session.lastActivity ? 0 : (now - session.lastActivity) * perSecond;
}

tn::message describe(const JsSession& session, bool own) {
  const auto loggedIn =
      std::chrono::duration_cast<std::chrono::milliseconds>(tn::getRunner()->timers().now() - session.loginTime);
  tn::message entry;
  entry.insert(idField, session.id);
  entry.insert(userField, session.user);
  entry.insert(clientField, session.clientAddress.bytes());
  entry.insert(loggedInField, static_cast<std::uint64_t>(loggedIn.count()));
  entry.insert(idleField, idleMs(session));
  entry.insert(policiesField, session.policies);
  entry.insert(ownField, own);
  return entry;
}

}  // namespace

tn::message SessionHandler::cmdGetAll(tn::message& msg) {
  const bool all = seesAll(msg);
  const std::uint32_t asking = askingSession(msg);
  std::vector<tn::message> entries;
  std::size_t bytes = 0;
  std::uint32_t count = 0;
  for (const auto& [id, session] : tunnel_.sessions()) {
    if (!session.loggedIn || (!all && id != asking)) continue;
    ++count;
    if (bytes > maxListBytes) continue;
    tn::message entry = describe(session, id == asking);
    bytes += entry.max_length();
    if (bytes <= maxListBytes) entries.push_back(std::move(entry));
  }
  tn::message answer;
  answer.insert_vector(sessionsField, entries);
  answer.insert(countField, count);
  return answer;
}

tn::message SessionHandler::cmdRemoveObj(tn::message& msg, std::uint32_t object) {
  if (!seesAll(msg) && (object == noSession || object != askingSession(msg))) {
    return tn::errorMsg(tn::error::notAllowed, "not allowed");
  }
  if (!tunnel_.endSession(object)) return tn::errorMsg(tn::error::noSuchService, "no such session");
  return {};
}
