#pragma once

#include <cstdint>
#include <string>

#include "platform/bus/field.h"
#include "platform/bus/message.h"

namespace tool {

// Figures and fields as a person reads them.

[[nodiscard]] std::string decimal(std::uint64_t value);
// "420 ms", "12 s", "5 min", "3 h 12 min", "4 d 3 h".
[[nodiscard]] std::string durationText(std::uint64_t milliseconds);
// "512", "1.2K", "34M": bytes, in powers of 1024.
[[nodiscard]] std::string bytesText(std::uint64_t bytes);
// "2026-11-21 21:53:08.123", in UTC, of milliseconds since 1970.
[[nodiscard]] std::string timeText(std::uint64_t milliseconds);
// "12.045", of milliseconds.
[[nodiscard]] std::string secondsText(std::uint64_t milliseconds);
// IPv4 as a.b.c.d.
[[nodiscard]] std::string addressText(const tn::Addr6& address);

// Values of fields; 0, no or empty when there is none. Texts are made harmless for a terminal.
[[nodiscard]] std::uint64_t numberOf(const tn::message& msg, tn::u32_id id);
[[nodiscard]] std::uint64_t numberOf(const tn::message& msg, tn::u64_id id);
[[nodiscard]] bool flagOf(const tn::message& msg, tn::bool_id id);
[[nodiscard]] std::string textOf(const tn::message& msg, tn::string_id id);
[[nodiscard]] std::vector<tn::message> messagesOf(const tn::message& msg, tn::message_array_id id);

}  // namespace tool
