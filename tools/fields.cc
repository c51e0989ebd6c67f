#include "tools/fields.h"

#include <algorithm>
#include <arpa/inet.h>
#include <set>

#include "platform/bus/text_parts.h"
#include "platform/log.h"
#include "tools/arguments.h"
#include "tools/names.h"

namespace tool {

namespace {

constexpr std::size_t maxIdDigits = 6;

std::optional<std::string> inQuotes(std::string_view text) {
  tn::message one;
  if (!one.insert(tn::string_id(1), text)) return std::nullopt;
  const std::string line = tn::writeText(one);  // {s1:'...'}
  return line.substr(4, line.size() - 5);
}

std::optional<std::string> addressBytes(std::string_view text) {
  tn::Addr6 address{};
  std::string whole(text);
  in_addr four{};
  if (::inet_pton(AF_INET, whole.c_str(), &four) == 1) whole.insert(0, "::ffff:");
  if (::inet_pton(AF_INET6, whole.c_str(), address.data()) != 1) return std::nullopt;
  std::string out;
  for (const std::uint8_t byte : address)
    out.append(out.empty() ? "[" : ",").append(NumberText(byte));
  return out + ']';
}

std::optional<std::string> listOf(char letter, std::string_view text, std::string& expected) {
  if (text.starts_with('[')) return std::string(text);
  if (text.empty()) return "[]";
  std::string out = "[";
  for (;;) {
    const std::string_view element = text.substr(0, text.find(','));
    const auto value = lineFormOf(letter, element, expected);
    if (!value) return std::nullopt;
    out += *value;
    if (element.size() == text.size()) return out + ']';
    out += ',';
    text.remove_prefix(element.size() + 1);
  }
}

// A key of the line form: a letter of a type and a number in hexadecimal.
std::optional<std::uint32_t> keyOf(std::string_view text) {
  if (text.size() < 2 || text.size() > maxIdDigits + 1) return std::nullopt;
  const auto type = tn::typeOfLetter(text[0]);
  const auto number = wholeNumber32(std::string("0x").append(text.substr(1)));
  if (!type || !number) return std::nullopt;
  return static_cast<std::uint32_t>(*type) | *number;
}

std::optional<std::uint32_t> fieldNamed(std::string_view name, const tn::FieldNames* names) {
  if (names != nullptr) {
    const auto found = std::ranges::find(names->fields, name, &tn::FieldName::name);
    if (found != names->fields.end()) return found->key;
  }
  return keyOf(name);
}

// Whether the text is a message of one field: a value must not bring another one along.
bool isOneField(const std::string& text) {
  tn::message one;
  if (tn::readText(text, one)) return false;
  std::size_t count = 0;
  one.forEach([&](const tn::message::Field&) { ++count; });
  return count == 1;
}

std::string keyText(std::uint32_t key) {
  return std::string(1, tn::letterOfType(tn::FieldType{key & tn::typeMask})).append(NumberText(key & tn::idMask, 16));
}

}  // namespace

std::optional<bool> readBool(std::string_view text) {
  if (text == "yes" || text == "true" || text == "on" || text == "1") return true;
  if (text == "no" || text == "false" || text == "off" || text == "0") return false;
  return std::nullopt;
}

std::optional<std::string> lineFormOf(char letter, std::string_view text, std::string& expected) {
  switch (letter) {
    case 'b': {
      expected = "yes or no";
      const auto value = readBool(text);
      return value ? std::optional<std::string>(*value ? "1" : "0") : std::nullopt;
    }
    case 'u':
      expected = "a number from 0 to 4294967295";
      return wholeNumber32(text) ? std::optional<std::string>(text) : std::nullopt;
    case 'q':
      expected = "a number from 0 to 18446744073709551615";
      return wholeNumber(text) ? std::optional<std::string>(text) : std::nullopt;
    case 's':
      expected = "a shorter text";
      return inQuotes(text);
    case 'a':
      expected = "an address";
      return addressBytes(text);
    case 'm':
      expected = "a message such as {u1:5}";
      return std::string(text);
    case 'r':
      expected = "bytes such as [1,255]";
      return std::string(text);
    case 'M':
      expected = "messages such as [{u1:5}]";
      return std::string(text);
    case 'R':
      expected = "lists of bytes such as [[1],[255]]";
      return std::string(text);
    case 'B':
      return listOf('b', text, expected);
    case 'U':
      return listOf('u', text, expected);
    case 'Q':
      return listOf('q', text, expected);
    case 'S':
      return listOf('s', text, expected);
    case 'A':
      return listOf('a', text, expected);
    default:
      return std::nullopt;
  }
}

std::optional<std::string> readFields(std::span<const std::string_view> words, const tn::FieldNames* names,
                                      tn::message& out) {
  std::string whole = "{";
  std::set<std::uint32_t> given;
  for (const std::string_view word : words) {
    const std::size_t equals = word.find('=');
    if (equals == std::string_view::npos) return quoted(word) + " is neither a message nor FIELD=VALUE";
    const std::string_view name = word.substr(0, equals);
    const auto key = fieldNamed(name, names);
    if (!key) return "no field is called " + quoted(name);
    if (!given.insert(*key).second) return "field " + std::string(name) + " is given twice";
    std::string expected;
    const auto value =
        lineFormOf(tn::letterOfType(tn::FieldType{*key & tn::typeMask}), word.substr(equals + 1), expected);
    const std::string text = keyText(*key).append(":").append(value.value_or(std::string()));
    if (!value || !isOneField("{" + text + "}")) {
      if (expected.empty()) expected = "a value that a message has room for";
      return "field " + std::string(name) + " needs " + expected + ", not " + quoted(word.substr(equals + 1));
    }
    if (whole.size() > 1) whole += ',';
    whole += text;
  }
  if (tn::readText(whole + '}', out)) return "the message is larger than the bus carries";
  return std::nullopt;
}

}  // namespace tool
