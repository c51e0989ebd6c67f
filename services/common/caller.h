#pragma once

#include <cstdint>

#include "platform/bus/message.h"

namespace service {

// Whether a message comes from a program of the system itself: no session's mark is on it.
inline bool isFromProgram(const tn::message& msg) {
  return !msg.has(tn::field::user) && !msg.has(tn::field::policies);
}

// Whether a message may do what needs a right (tn::policies), as far as the message itself says: a program may do
// everything, a session what its policies hold, and one that has a user but no policies nothing.
inline bool holds(const tn::message& msg, std::uint32_t right) {
  return isFromProgram(msg) || (msg.get(tn::field::policies).value_or(0) & right) != 0;
}

}  // namespace service
