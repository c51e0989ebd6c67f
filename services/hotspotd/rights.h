#pragma once

#include <cstdint>

#include "platform/bus/message.h"
#include "platform/policies.h"

namespace hotspot {

// Error codes of this service, as those of the others (docs/services.md).
namespace error {
inline constexpr std::uint32_t badRequest = 0xfe0010;
inline constexpr std::uint32_t notStored = 0xfe0011;
}  // namespace error

// Whether a message comes from a program of the system itself, not on behalf of a user.
[[nodiscard]] inline bool isOfSystem(const tn::message& msg) {
  return !msg.has(tn::field::policies) && !msg.has(tn::field::user);
}

[[nodiscard]] inline bool permits(const tn::message& msg, std::uint32_t right) {
  return isOfSystem(msg) || (msg.get(tn::field::policies).value_or(0) & right) != 0;
}

}  // namespace hotspot
