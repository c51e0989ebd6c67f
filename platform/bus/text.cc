// The writing half of the line form.

#include "platform/bus/text.h"

#include <charconv>

#include "platform/bus/text_parts.h"

namespace tn {

namespace {

using Bytes = std::span<const std::uint8_t>;
using Field = message::Field;

// Length of the UTF-8 character that `text` begins with when it can be shown as it is; 0 for a byte to be escaped: a
// control character (also of the second set, which some terminals obey) or no UTF-8.
std::size_t shownLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned lead = at(0);
  if (lead < 0x80) return lead >= 0x20 && lead != 0x7f ? 1 : 0;
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  std::uint32_t character = lead & (0xffU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
    character = character << 6 | (at(i) & 0x3f);
  }
  constexpr std::uint32_t smallest[] = {0, 0, 0xa0, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
  const bool good = lead >= 0xc2 && lead <= 0xf4 && character >= smallest[length] && character <= 0x10ffff;
  return good && !isSurrogate ? length : 0;
}

void appendEscaped(std::string& out, char c) {
  constexpr std::string_view meanings("\n\r\t\0", 4);
  constexpr std::string_view names = "nrt0";
  out += '\\';
  const std::size_t index = meanings.find(c);
  if (index != std::string_view::npos) {
    out += names[index];
    return;
  }
  constexpr char digits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(c);
  out += 'x';
  out += digits[byte >> 4];
  out += digits[byte & 15];
}

// Appends the text, with a backslash before each of the characters `quoted`.
void appendPrintable(std::string& out, std::string_view text, std::string_view quoted) {
  while (!text.empty()) {
    const std::size_t length = shownLength(text);
    if (length == 0) {
      appendEscaped(out, text[0]);
    } else {
      if (quoted.find(text[0]) != std::string_view::npos) out += '\\';
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
}

void appendQuoted(std::string& out, std::string_view text) {
  out += '\'';
  appendPrintable(out, text, "'\\");
  out += '\'';
}

template <typename Elements, typename AppendOne>
void appendList(std::string& out, const Elements& elements, AppendOne appendOne) {
  out += '[';
  bool isFirst = true;
  for (const auto& element : elements) {
    if (!isFirst) out += ',';
    isFirst = false;
    appendOne(element);
  }
  out += ']';
}

void appendMessage(std::string& out, const message& msg) {
  out += '{';
  msg.forEach([&](const Field& field) {
    if (out.back() != '{') out += ',';
    appendKey(out, field);
    out += ':';
    appendValue(out, field);
  });
  out += '}';
}

}  // namespace

void appendNumber(std::string& out, std::uint64_t value, int base) {
  char digits[20];
  const auto result = std::to_chars(std::begin(digits), std::end(digits), value, base);
  out.append(digits, result.ptr);
}

void appendKey(std::string& out, const Field& field) {
  out += letterOfType(field.type);
  appendNumber(out, field.id, 16);
}

void appendValue(std::string& out, const Field& field) {
  const auto number = [&](std::uint64_t value) { appendNumber(out, value); };
  const auto bytes = [&](Bytes value) { appendList(out, value, number); };
  const auto quoted = [&](std::string_view value) { appendQuoted(out, value); };
  const auto nested = [&](const message& value) { appendMessage(out, value); };
  switch (field.type) {
    case FieldType::boolean:
      return number(field.asBool() ? 1 : 0);
    case FieldType::u32:
      return number(field.asU32());
    case FieldType::u64:
      return number(field.asU64());
    case FieldType::addr6:
      return bytes(field.asAddr6());
    case FieldType::string:
      return quoted(field.asString());
    case FieldType::message:
      return nested(field.asMessage());
    case FieldType::raw:
      return bytes(field.asRaw());
    case FieldType::booleanArray:
      return appendList(out, field.asBools(), number);
    case FieldType::u32Array:
      return appendList(out, field.asU32s(), number);
    case FieldType::u64Array:
      return appendList(out, field.asU64s(), number);
    case FieldType::addr6Array:
      return appendList(out, field.asAddr6s(), bytes);
    case FieldType::stringArray:
      return appendList(out, field.asStrings(), quoted);
    case FieldType::messageArray:
      return appendList(out, field.asMessages(), nested);
    case FieldType::rawArray:
      return appendList(out, field.asRaws(), bytes);
  }
}

std::string writeText(const message& msg) {
  std::string out;
  appendMessage(out, msg);
  return out;
}

std::string printableText(std::string_view text) {
  std::string out;
  appendPrintable(out, text, {});
  return out;
}

}  // namespace tn
