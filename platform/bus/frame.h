#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/byte_order.h"

namespace tn {

// What stands before every message between a program and the broker (docs/bus-protocol.md):
//
//   offset 0  u32  payload length in bytes
//   offset 4  u32  peer: the destination towards the broker, the sender from it
//   offset 8  u32  kind
//
// all little-endian.
enum class FrameKind : std::uint32_t {
  message = 0,
  bounced = 1,   // came back: the destination is not there, or its queue is full
  control = 2,   // between a program and the broker itself
  observed = 3,  // a copy for a monitor: u32 from, u32 to, u32 kind, then the payload
};

struct FrameHeader {
  std::uint32_t length;
  std::uint32_t peer;
  std::uint32_t kind;
};

inline constexpr std::size_t frameHeaderBytes = 12;
inline constexpr std::uint32_t maxPayloadBytes = 4U << 20;
inline constexpr std::size_t maxQueueBytes = 8U << 20;
inline constexpr char busSocketPath[] = "/run/tn/bus";
inline constexpr std::uint32_t brokerId = 0;
inline constexpr std::uint32_t firstFreeId = 1000;
inline constexpr std::uint32_t firstGroup = 0xff0000;
inline constexpr std::uint32_t sessionEndGroup = 0xff0001;

// Control operations: u32 field 1 of a control message. Fields of each in docs/bus-protocol.md.
namespace control {
inline constexpr std::uint32_t join = 1;
inline constexpr std::uint32_t joinGroup = 2;
inline constexpr std::uint32_t leaveGroup = 3;
inline constexpr std::uint32_t list = 4;
inline constexpr std::uint32_t statistics = 5;
inline constexpr std::uint32_t monitor = 6;
}  // namespace control

[[nodiscard]] constexpr FrameHeader loadFrameHeader(const std::uint8_t* p) {
  return {loadLe32(p), loadLe32(p + 4), loadLe32(p + 8)};
}

constexpr void storeFrameHeader(std::uint8_t* p, const FrameHeader& header) {
  storeLe32(p, header.length);
  storeLe32(p + 4, header.peer);
  storeLe32(p + 8, header.kind);
}

}  // namespace tn
