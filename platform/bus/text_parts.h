#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "platform/bus/message.h"

namespace tn {

// The letters by which both directions of the line form know the types.
struct TypeLetter {
  FieldType type;
  char letter;
};

inline constexpr TypeLetter typeLetters[] = {
    {FieldType::boolean, 'b'},      {FieldType::u32, 'u'},          {FieldType::u64, 'q'},
    {FieldType::addr6, 'a'},        {FieldType::string, 's'},       {FieldType::message, 'm'},
    {FieldType::raw, 'r'},          {FieldType::booleanArray, 'B'}, {FieldType::u32Array, 'U'},
    {FieldType::u64Array, 'Q'},     {FieldType::addr6Array, 'A'},   {FieldType::stringArray, 'S'},
    {FieldType::messageArray, 'M'}, {FieldType::rawArray, 'R'},
};

[[nodiscard]] constexpr std::optional<FieldType> typeOfLetter(char letter) {
  for (const TypeLetter& entry : typeLetters) {
    if (entry.letter == letter) return entry.type;
  }
  return std::nullopt;
}

[[nodiscard]] constexpr char letterOfType(FieldType type) {
  for (const TypeLetter& entry : typeLetters) {
    if (entry.type == type) return entry.letter;
  }
  return '?';
}

// The pieces that both readable forms are made of, appended to `out`.
void appendNumber(std::string& out, std::uint64_t value, int base = 10);
void appendKey(std::string& out, const message::Field& field);
void appendValue(std::string& out, const message::Field& field);

// Length of the UTF-8 character that a text begins with; 0 when it begins with none.
[[nodiscard]] std::size_t characterLength(std::string_view text);

// Appends values in brackets, with commas between them; appendOne(value) appends each.
template <typename Values, typename AppendOne>
void appendList(std::string& out, const Values& values, const AppendOne& appendOne) {
  out += '[';
  bool isFirst = true;
  for (const auto& value : values) {
    if (!isFirst) out += ',';
    isFirst = false;
    appendOne(value);
  }
  out += ']';
}

// Appends the value of a field in a form that has lists in brackets. appendOne(value) appends a bool, a number of 32 or
// 64 bits, an Addr6, a text, a message or bytes.
template <typename AppendOne>
void appendValueBy(std::string& out, const message::Field& field, const AppendOne& appendOne) {
  switch (field.type) {
    case FieldType::boolean:
      return appendOne(field.asBool());
    case FieldType::u32:
      return appendOne(field.asU32());
    case FieldType::u64:
      return appendOne(field.asU64());
    case FieldType::addr6:
      return appendOne(field.asAddr6());
    case FieldType::string:
      return appendOne(field.asString());
    case FieldType::message:
      return appendOne(field.asMessage());
    case FieldType::raw:
      return appendOne(field.asRaw());
    case FieldType::booleanArray:
      return appendList(out, field.asBools(), appendOne);
    case FieldType::u32Array:
      return appendList(out, field.asU32s(), appendOne);
    case FieldType::u64Array:
      return appendList(out, field.asU64s(), appendOne);
    case FieldType::addr6Array:
      return appendList(out, field.asAddr6s(), appendOne);
    case FieldType::stringArray:
      return appendList(out, field.asStrings(), appendOne);
    case FieldType::messageArray:
      return appendList(out, field.asMessages(), appendOne);
    case FieldType::rawArray:
      return appendList(out, field.asRaws(), appendOne);
  }
}

}  // namespace tn
