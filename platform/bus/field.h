#pragma once

#include <array>
#include <cstdint>

namespace tn {

// The fourteen types a field of a message can have; each value is the type code of the flattened form.
enum class FieldType : std::uint32_t {
  boolean = 0x00000000,
  u32 = 0x08000000,
  u64 = 0x10000000,
  addr6 = 0x18000000,
  string = 0x20000000,
  message = 0x28000000,
  raw = 0x30000000,
  booleanArray = 0x80000000,
  u32Array = 0x88000000,
  u64Array = 0x90000000,
  addr6Array = 0x98000000,
  stringArray = 0xA0000000,
  messageArray = 0xA8000000,
  rawArray = 0xB0000000,
};

inline constexpr std::uint32_t typeMask = 0xF8000000;
inline constexpr std::uint32_t shortFlag = 0x01000000;
inline constexpr std::uint32_t idMask = 0x00FFFFFF;

// A field's key: its type and its 24-bit number. Two fields of one number and different types are different fields.
// Higher bits of the number are cut off.
template <FieldType T>
struct FieldId {
  constexpr explicit FieldId(std::uint32_t number) : id(number & idMask) {}
  static constexpr FieldType type = T;
  std::uint32_t id;
};

using bool_id = FieldId<FieldType::boolean>;
using u32_id = FieldId<FieldType::u32>;
using u64_id = FieldId<FieldType::u64>;
using addr6_id = FieldId<FieldType::addr6>;
using string_id = FieldId<FieldType::string>;
using message_id = FieldId<FieldType::message>;
using raw_id = FieldId<FieldType::raw>;
using bool_array_id = FieldId<FieldType::booleanArray>;
using u32_array_id = FieldId<FieldType::u32Array>;
using u64_array_id = FieldId<FieldType::u64Array>;
using addr6_array_id = FieldId<FieldType::addr6Array>;
using string_array_id = FieldId<FieldType::stringArray>;
using message_array_id = FieldId<FieldType::messageArray>;
using raw_array_id = FieldId<FieldType::rawArray>;

// The 16 bytes of an IPv6 address in network order; IPv4 addresses stand in it as ::ffff:a.b.c.d.
using Addr6 = std::array<std::uint8_t, 16>;

// Header fields of the bus itself. The library owns those from `requestNumber` down: what a caller left there is
// replaced.
namespace field {
inline constexpr u32_array_id destination{0xff0001};
inline constexpr u32_array_id sender{0xff0002};
inline constexpr u32_id command{0xff0007};
inline constexpr string_id user{0xff000a};
inline constexpr u32_id policies{0xff000b};
inline constexpr u32_id descriptor{0xff0015};
inline constexpr u32_id objectNumber{0xfe0001};
inline constexpr bool_id disabled{0xfe000a};
inline constexpr u32_id requestNumber{0xff0020};
inline constexpr bool_id isReply{0xff0021};
inline constexpr u32_id errorCode{0xff0022};
inline constexpr string_id errorText{0xff0023};
}  // namespace field

// Commands that select the slots of tn::Handler.
namespace command {
inline constexpr std::uint32_t getObj = 0xfe0002;
inline constexpr std::uint32_t disconnected = 0xfe0014;
inline constexpr std::uint32_t getPolicies = 0xfe0101;
inline constexpr std::uint32_t get = 0xfe0102;
inline constexpr std::uint32_t set = 0xfe0103;
inline constexpr std::uint32_t reset = 0xfe0104;
inline constexpr std::uint32_t setObj = 0xfe0106;
inline constexpr std::uint32_t getAll = 0xfe0107;
inline constexpr std::uint32_t stopGetAll = 0xfe0108;
inline constexpr std::uint32_t addObj = 0xfe0109;
inline constexpr std::uint32_t removeObj = 0xfe010a;
inline constexpr std::uint32_t moveObj = 0xfe010b;
inline constexpr std::uint32_t getCount = 0xfe010c;
inline constexpr std::uint32_t shutdown = 0xfe010d;
}  // namespace command

// Error codes of the bus and of its services.
namespace error {
inline constexpr std::uint32_t noSuchService = 0xfe0006;
inline constexpr std::uint32_t unknownCommand = 0xfe0007;
inline constexpr std::uint32_t notAllowed = 0xfe0009;
inline constexpr std::uint32_t cannotBind = 0xfe000c;
inline constexpr std::uint32_t timeout = 0xfe000d;      // "timeout"
inline constexpr std::uint32_t unreachable = 0xfe000e;  // "unreachable"
}  // namespace error

}  // namespace tn
