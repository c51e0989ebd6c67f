#pragma once

#include <cstddef>
#include <string>

#include "platform/bus/message.h"

namespace tool {

// The readable forms of the broker's answers; each text ends its last line. `width` is that of the terminal, 0 none.

// What a service answered, without the fields that only carried it here.
[[nodiscard]] tn::message withoutCarriage(const tn::message& answer);

// The answers to `list` and `statistics`.
[[nodiscard]] std::string renderList(const tn::message& answer, std::size_t width);
[[nodiscard]] std::string renderStatistics(const tn::message& answer, std::size_t width, bool colours);

}  // namespace tool
