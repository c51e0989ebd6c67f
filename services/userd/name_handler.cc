#include "services/userd/name_handler.h"

#include "platform/bus/looper.h"
#include "services/userd/fields.h"

namespace userd {

tn::message NameHandler::cmdGetObj(tn::message& /*msg*/, std::uint32_t object) {
  const User* const user = accounts_.user(object);
  if (user == nullptr) return tn::errorMsg(tn::error::noSuchService, "no such user");
  tn::message answer;
  if (user->hidden) answer.insert(field::hidden, true);
  if (user->disabled) answer.insert(tn::field::disabled, true);
  if (answer.empty()) answer.insert(field::name, user->name);
  return answer;
}

}  // namespace userd
