#pragma once

#include <optional>
#include <string>

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

}  // namespace tn
