#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/message.h"

namespace hotspot {

inline constexpr std::size_t maxNameBytes = 64;
inline constexpr std::size_t maxServers = 16;
inline constexpr std::size_t maxPrefixes = 64;  // of one server
inline constexpr std::uint32_t maxPort = 65535;

// Fields of a server record; docs/server-record.md.
namespace field {
inline constexpr tn::string_id name{1};
inline constexpr tn::u32_id port{2};
inline constexpr tn::u32_id tlsRef{5};  // its presence makes the server a TLS server
inline constexpr tn::message_array_id allowed{6};
inline constexpr tn::string_id lastError{0x10};
inline constexpr tn::bool_id applied{0x11};
}  // namespace field

// Fields of one element of `allowed`.
namespace prefix_field {
inline constexpr tn::u32_id ipv4{1};
inline constexpr tn::u32_id ipv4Mask{2};
inline constexpr tn::addr6_id ipv6{3};
inline constexpr tn::u32_id ipv6Length{4};
}  // namespace prefix_field

// What is wrong with something, in words for whoever gave it; nothing when all is well.
using Problem = std::optional<std::string>;

// Server records are kept as the messages that the server is given. A record of this service names its port and who may
// connect: what a server makes of their absence (port 80, everybody) is not to happen by oversight.
[[nodiscard]] Problem checkRecord(const tn::message& record);

// The fields of a record that stand in a message, in their order, laid over those of `base`. What belongs to the bus,
// and the state of a record as it is told in answers, is left out.
[[nodiscard]] tn::message recordFrom(const tn::message& base, const tn::message& given);

// What else stands in a message that holds a record: a field that no record has, or one of another type, which would be
// overlooked in silence.
[[nodiscard]] Problem checkFields(const tn::message& given);

[[nodiscard]] std::string_view nameOf(const tn::message& record);

// What a machine that was never configured has: one server without TLS, for the machine itself alone.
[[nodiscard]] tn::message defaultRecord();

}  // namespace hotspot
