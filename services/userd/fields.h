#pragma once

#include <cstdint>
#include <expected>
#include <optional>
#include <string>

#include "platform/bus/message.h"
#include "services/common/known_fields.h"
#include "services/userd/account.h"
#include "services/userd/accounts.h"
#include "services/userd/secret.h"

namespace userd {

// Fields of this service's messages; docs/services.md. Numbers in decimal there are the same in every message.
namespace field {
inline constexpr tn::string_id name{1};
inline constexpr tn::u32_id userCount{2};
inline constexpr tn::string_id password{3};
inline constexpr tn::string_id oldPassword{4};
inline constexpr tn::u32_id policies{11};
inline constexpr tn::string_id fullName{17};
inline constexpr tn::string_id groupName{18};
inline constexpr tn::string_id hostName{21};
inline constexpr tn::string_id version{23};
inline constexpr tn::string_id skin{24};
inline constexpr tn::bool_id hidden{0x1c};
inline constexpr tn::addr6_id clientAddress{0xff0013};
inline constexpr tn::message_array_id all{1};
}  // namespace field

using service::checkKnown;
using service::keyOf;

// The password of a message, taken out of it: its bytes there are overwritten. Nothing when there is no such field; a
// text that can be no password becomes the empty one, which matches nothing.
[[nodiscard]] std::optional<Secret> takePassword(tn::message& msg, tn::string_id id);

// Overlays a user or group with the fields of a command; absent ones keep their value. On failure nothing is changed.
// The number is left alone.
[[nodiscard]] Outcome applyUserFields(User& user, const tn::message& command, const Accounts& accounts);
[[nodiscard]] Outcome applyGroupFields(Group& group, const tn::message& command);

// All fields of a user or group, as answers show them.
[[nodiscard]] tn::message describe(const User& user, const Accounts& accounts);
[[nodiscard]] tn::message describe(const Group& group, const Accounts& accounts);

// An error message that tells a refusal.
[[nodiscard]] tn::message refuse(const Refusal& refusal);
// An empty message, or the refusal.
[[nodiscard]] tn::message answerOf(const Outcome& outcome);
// The number in an answer, or the refusal.
[[nodiscard]] tn::message answerOf(const std::expected<std::uint32_t, Refusal>& added);

}  // namespace userd
