#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/bus/message.h"

namespace tn {

// The readable forms of a message.
//
// The line form is for typing and for programs: {u1:5,b2:1,s3:'it\'s',Uff0001:[68,1],m5:{},r4:[1,2]}. A key is the
// letter of the type and the number of the field in hexadecimal:
//
//   b bool 0 or 1    u u32    q u64    a addr6 [16 bytes]    s string 'text'    m message {fields}    r raw [bytes]
//
// and the capital letter for a list of them, [value,value]. Numbers are decimal or, behind 0x, hexadecimal, and never
// negative. In a string \\ \' \n \r \t \0 and \xNN stand for one byte each; control characters appear in no other way.
// Spaces, tabs and line ends may stand between the parts.
//
// It is not the form that the browser tunnel speaks: that one is looser and loses bytes.

// Why a text is no message: what should have stood at which byte, counted from 0.
struct TextError {
  std::size_t position;
  std::string expected;
};

// Replaces `out` by the message that the text stands for; when it stands for none, says why, and `out` is empty.
// Strict: nothing is guessed, a key given twice is refused, and so is a value that does not fit its type.
[[nodiscard]] std::optional<TextError> readText(std::string_view text, message& out);

// Read back it gives the same fields with the same values in the same order. Bytes of strings that are no UTF-8 are
// escaped, so the text is one line that any terminal shows.
[[nodiscard]] std::string writeText(const message& msg);

// What the fields of a message are called.
struct FieldNames;
struct FieldName {
  std::uint32_t key;  // type and number, as in the flattened form
  std::string_view name;
  const FieldNames* below = nullptr;  // the names in the messages of this field, when they are known
};
struct FieldNames {
  std::span<const FieldName> fields;
  // For a message that is one of several kinds, told apart by its object number: the names of object 0, 1 ...
  std::span<const FieldNames* const> byObject{};

  // The names that hold for this very message.
  [[nodiscard]] const FieldNames& of(const message& msg) const;
  [[nodiscard]] const FieldName* find(std::uint32_t key) const;  // null: no such field
};

// The name of a field: from `names`, when they are known, else that of a header field of the bus; else empty.
[[nodiscard]] std::string_view fieldName(std::uint32_t key, const FieldNames* names);

// One line per field, nested messages indented below theirs, each line ended; all lines begin with `indent` spaces.
// Fields that have a name bear it behind their key.
[[nodiscard]] std::string writeTree(const message& msg, std::size_t indent = 0, const FieldNames* names = nullptr);

// A text of somebody else's as it can be shown: what a terminal would obey, and what is no UTF-8, is escaped as in a
// string of the line form.
[[nodiscard]] std::string printableText(std::string_view text);

// The commands of the handlers' slots by their names: "get", "addObj".
[[nodiscard]] std::optional<std::uint32_t> commandNumber(std::string_view name);
// Empty for a command without a name.
[[nodiscard]] std::string_view commandName(std::uint32_t number);

}  // namespace tn
