#pragma once

#include <string>

#include "platform/bus/text.h"

namespace tool {

// A message as plain JSON, for programs that know nothing of the bus. Fields are called by their names, those without
// one by their keys ("u1f"). Numbers are numbers, 64-bit ones too; addresses are texts, raw bytes texts of hexadecimal
// digits; bytes of strings that are no UTF-8 become U+FFFD.
[[nodiscard]] std::string writeJson(const tn::message& msg, const tn::FieldNames* names);

// A text as JSON has it, in quotes.
void appendJsonText(std::string& out, std::string_view text);

}  // namespace tool
