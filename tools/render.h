#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "platform/bus/frame.h"
#include "platform/bus/message.h"

namespace tool {

// Everything that is shown of messages; each text ends its last line. With `lineForm` set it is for programs: messages
// in the line form, one a line.

// What a service answered, without the fields that only carried it here.
[[nodiscard]] std::string renderAnswer(const tn::message& answer, bool lineForm);

// "error 0xfe0006: no such service".
[[nodiscard]] std::string renderError(const tn::message& answer);

// The broker's answers to `list` and `statistics`.
[[nodiscard]] std::string renderList(const tn::message& answer, bool lineForm);
[[nodiscard]] std::string renderStatistics(const tn::message& answer, bool lineForm);

// One frame that the broker has shown. Its payload is what its sender made of it, a message or not.
struct Observed {
  std::uint32_t from;
  std::uint32_t to;
  std::uint32_t kind;
  std::uint64_t milliseconds;  // since the monitor began
  std::span<const std::uint8_t> payload;
};
[[nodiscard]] std::string renderObserved(const Observed& frame, bool lineForm);

}  // namespace tool
