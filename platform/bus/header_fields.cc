// What replies, errors and policies look like in a message.

#include <string>

#include "platform/bus/looper.h"
#include "platform/log.h"

namespace tn {

message errorMsg(std::uint32_t code, std::string_view text) {
  message msg;
  msg.insert(field::errorCode, code);
  if (!text.empty()) msg.insert(field::errorText, text);
  return msg;
}

bool isError(const message& msg) {
  return msg.has(field::errorCode);
}

std::string getError(const message& msg) {
  const auto code = msg.get(field::errorCode);
  if (!code) return {};
  const std::string_view text = msg.get(field::errorText).value_or(std::string_view());
  if (!text.empty()) return std::string(text);
  return "0x" + std::string(std::string_view(NumberText(*code, 16)));
}

bool isReply(const message& msg) {
  return msg.get(field::isReply).value_or(false);
}

namespace policies {

bool is_allowed(const message& msg) {
  return msg.get(field::policies).value_or(1) != 0;
}

bool isOfSystem(const message& msg) {
  return !msg.has(field::policies) && !msg.has(field::user);
}

bool holds(const message& msg, std::uint32_t right) {
  return isOfSystem(msg) || (msg.get(field::policies).value_or(0) & right) != 0;
}

}  // namespace policies

}  // namespace tn
