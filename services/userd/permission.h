#pragma once

#include <cstdint>

#include "platform/bus/message.h"
#include "services/userd/accounts.h"

namespace userd {

// The user of the session that a message came from, who is there and not disabled; null when there is none.
[[nodiscard]] const User* callerOf(const tn::message& msg, const Accounts& accounts);

// Whether a message may do what needs the right (tn::policies): a program may; a session may when its policies hold the
// right and, since they are those of its login, the user still has it now.
[[nodiscard]] bool may(const tn::message& msg, std::uint32_t right, const Accounts& accounts);

}  // namespace userd
