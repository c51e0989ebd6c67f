#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/bus/text.h"

namespace tool {

// Largest text of a message: as long as the largest message can become in the line form, and some space.
inline constexpr std::size_t maxMessageText = 32U << 20;

// Each returns nothing, or what is wrong as one line for a person.

// Reads everything up to the end of the file into `text`.
[[nodiscard]] std::optional<std::string> readWholeInput(int fd, std::string& text);

// Reads the fields of a message as they stand on the command line: nothing, a message in the line form, "-" for one on
// standard input, or words of the kind FIELD=VALUE with the names of `names`.
[[nodiscard]] std::optional<std::string> readMessage(std::span<const std::string_view> words,
                                                     const tn::FieldNames* names, tn::message& out);

// Addresses a message. Bus header fields in it that address it otherwise are replaced.
[[nodiscard]] std::optional<std::string> address(tn::message& request, std::span<const std::uint32_t> path,
                                                 std::uint32_t command);

}  // namespace tool
