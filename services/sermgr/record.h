#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/message.h"
#include "services/sermgr/prefix.h"

namespace sermgr {

inline constexpr std::size_t maxNameBytes = 64;
inline constexpr std::size_t maxServers = 64;
inline constexpr std::size_t maxPrefixes = 256;  // of one server
inline constexpr std::uint32_t defaultPort = 80;
inline constexpr std::uint32_t maxPort = 65535;
inline constexpr std::uint32_t maxTrialSeconds = 60;
// How a message says that there is no reference for the TLS service.
inline constexpr std::uint32_t noTlsRef = 0xFFFFFFFF;

// Fields of a server record's message; docs/server-record.md.
namespace field {
inline constexpr tn::string_id name{1};
inline constexpr tn::u32_id port{2};
inline constexpr tn::u32_id tlsRef{5};
inline constexpr tn::message_array_id allowed{6};
inline constexpr tn::string_id lastError{0x10};
inline constexpr tn::bool_id applied{0x11};
inline constexpr tn::u32_id trial{0x12};  // seconds until it is taken back
}  // namespace field

// Fields of one element of `allowed`.
namespace prefix_field {
inline constexpr tn::u32_id ipv4{1};
inline constexpr tn::u32_id ipv4Mask{2};
inline constexpr tn::addr6_id ipv6{3};
inline constexpr tn::u32_id ipv6Length{4};
}  // namespace prefix_field

// What is known of one server: whether and where it listens, and for whom.
struct Record {
  std::string name;
  bool enabled = true;
  std::uint32_t port = defaultPort;
  std::optional<std::uint32_t> tlsRef;
  std::vector<Prefix> allowed;  // empty: everyone

  friend bool operator==(const Record&, const Record&) = default;
};

// What is wrong with a command, in words for whoever gave it; nothing when all is well.
using Problem = std::optional<std::string>;

[[nodiscard]] Problem checkName(std::string_view name);
[[nodiscard]] Problem checkPort(std::uint32_t port);
// How long a command's trial is to last; one without the field asks for none.
[[nodiscard]] Problem checkTrial(const tn::message& command);

// Lays the fields of a command over a record; those that are absent keep their value. The name is left alone. Fields
// that a record does not have are a problem: a field of another type than meant would else be overlooked in silence.
// When there is a problem the record is unchanged.
[[nodiscard]] Problem applyFields(Record& record, const tn::message& command);

// Puts the record's fields into a message.
void writeRecord(const Record& record, tn::message& msg);

}  // namespace sermgr
