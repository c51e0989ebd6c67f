#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/message.h"
#include "tools/arguments.h"

namespace tool {

// Largest text of a message: as long as the largest message can become in the line form, and some space.
inline constexpr std::size_t maxMessageText = 32U << 20;

// Both return nothing, or what is wrong as one line for a person.

// Reads everything up to the end of the file into `text`.
[[nodiscard]] std::optional<std::string> readWholeInput(int fd, std::string& text);

// Makes the message that `call` and `send` send: the fields of `text`, addressed. Bus header fields in the text that
// address it otherwise are replaced.
[[nodiscard]] std::optional<std::string> buildRequest(const Arguments& arguments, std::string_view text,
                                                      tn::message& request);

}  // namespace tool
