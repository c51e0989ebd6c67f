#pragma once

#include <expected>
#include <string>

#include "platform/bus/message.h"
#include "tools/arguments.h"

namespace tool {

// Largest text of a message: as long as the largest message can become in the line form, and some space.
inline constexpr std::size_t maxMessageText = 32U << 20;

// Everything up to the end of the file. The error is one line for a person.
[[nodiscard]] std::expected<std::string, std::string> readWholeInput(int fd);

// The message that `call` and `send` send: the fields of `text`, addressed. Bus header fields in the text that address
// it otherwise are replaced. The error is one line for a person.
[[nodiscard]] std::expected<tn::message, std::string> buildRequest(const Arguments& arguments, std::string_view text);

}  // namespace tool
