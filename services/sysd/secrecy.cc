#include "services/sysd/secrecy.h"

#include <algorithm>
#include <array>

#include "platform/bus/looper.h"

namespace sysd {
namespace {

constexpr std::uint32_t userService = 13;
constexpr tn::string_id password{3};
constexpr tn::string_id oldPassword{4};

constexpr std::uint32_t tlsService = 12;
constexpr tn::string_id privateKey{2};

// Commands that only ask.
constexpr std::array asking{tn::command::getPolicies, tn::command::get,      tn::command::getObj,
                            tn::command::getAll,      tn::command::getCount, tn::command::disconnected};

bool isHarmlessRequest(const tn::message& msg) {
  const auto command = msg.get(tn::field::command);
  if (!command || std::ranges::find(asking, *command) == asking.end()) return false;
  return !msg.has(password) && !msg.has(oldPassword);
}

}  // namespace

bool Secrecy::mayBeShown(std::uint32_t from, std::uint32_t to, tn::FrameKind kind, const tn::message& msg,
                         bool isMessage) {
  switch (kind) {
    case tn::FrameKind::control:
    case tn::FrameKind::observed:
      return true;
    case tn::FrameKind::bounced:
      // It goes back to its sender from the program that it was for.
      if (from == userService) return isMessage && isHarmlessRequest(msg);
      return from != tlsService || (isMessage && !msg.has(privateKey));
    case tn::FrameKind::message:
      break;
  }
  if (to == tlsService) return isMessage && !msg.has(privateKey);
  if (from == userService) return isMessage && isHarmlessAnswer(to, msg);
  if (to != userService) return true;
  const bool harmless = isMessage && isHarmlessRequest(msg);
  note(from, msg, harmless);
  return harmless;
}

bool Secrecy::isHarmlessAnswer(std::uint32_t asker, const tn::message& msg) {
  const auto number = msg.get(tn::field::requestNumber);
  if (!number || !tn::isReply(msg)) return isHarmlessRequest(msg);
  const auto found = std::ranges::find(shown_, std::pair(asker, *number));
  if (found == shown_.end()) return false;
  shown_.erase(found);
  return true;
}

// Of two requests with one number the later one counts: a program that was started again begins with the numbers anew.
void Secrecy::note(std::uint32_t asker, const tn::message& msg, bool harmless) {
  const auto number = msg.get(tn::field::requestNumber);
  if (!number) return;
  const std::pair request(asker, *number);
  std::erase(shown_, request);
  if (harmless) shown_.push_back(request);
  if (shown_.size() > maxRequests) shown_.pop_front();
}

}  // namespace sysd
