#include "services/userd/permission.h"

#include "platform/bus/looper.h"

namespace userd {

const User* callerOf(const tn::message& msg, const Accounts& accounts) {
  const auto name = msg.get(tn::field::user);
  const User* const user = name && msg.has(tn::field::policies) ? accounts.userNamed(*name) : nullptr;
  return user == nullptr || user->disabled ? nullptr : user;
}

bool may(const tn::message& msg, std::uint32_t right, const Accounts& accounts) {
  if (!tn::policies::holds(msg, right)) return false;
  if (!msg.has(tn::field::user)) return true;
  const User* const caller = callerOf(msg, accounts);
  return caller != nullptr && (accounts.groupOf(*caller).policies & right) != 0;
}

}  // namespace userd
