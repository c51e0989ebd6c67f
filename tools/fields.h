#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/bus/text.h"

namespace tool {

// Reads words of the kind FIELD=VALUE into a message. FIELD is one of `names` or a key of the line form ("u2"). VALUE
// is a text as it stands, a number, yes or no, an address, or for a list such values with commas between them, none for
// a list of none; lists and messages may be given in the line form, too ("[{u1:5}]"). Returns what is wrong, one line
// for a person, or nothing.
[[nodiscard]] std::optional<std::string> readFields(std::span<const std::string_view> words,
                                                    const tn::FieldNames* names, tn::message& out);

// A value of the type `letter` in the line form; nothing, and `expected` set, when the text is none.
[[nodiscard]] std::optional<std::string> lineFormOf(char letter, std::string_view text, std::string& expected);

// yes, no, true, false, on, off, 1, 0.
[[nodiscard]] std::optional<bool> readBool(std::string_view text);

}  // namespace tool
