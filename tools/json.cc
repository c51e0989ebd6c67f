#include "tools/json.h"

#include <algorithm>
#include <arpa/inet.h>

#include "platform/bus/files.h"
#include "platform/bus/text_parts.h"

namespace tool {

namespace {

using tn::FieldNames;
using tn::FieldType;
using tn::message;
using Field = message::Field;

constexpr std::string_view replacement = "\\ufffd";

// Length of the valid UTF-8 character at the front; 0 when there is none.
std::size_t characterLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  const unsigned lead = at(0);
  if (lead < 0x80) return 1;
  const std::size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
  std::uint32_t character = lead & (0xffU >> (length + 1));
  for (std::size_t i = 1; i < length; ++i) {
    if ((at(i) & 0xc0) != 0x80) return 0;
    character = character << 6 | (at(i) & 0x3f);
  }
  constexpr std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool isSurrogate = character >= 0xd800 && character <= 0xdfff;
  return lead >= 0xc2 && character >= smallest[length] && character <= 0x10ffff && !isSurrogate ? length : 0;
}

void appendControl(std::string& out, char c) {
  constexpr std::string_view meanings("\n\r\t");
  constexpr std::string_view letters = "nrt";
  constexpr char digits[] = "0123456789abcdef";
  out += '\\';
  const std::size_t index = meanings.find(c);
  if (index != std::string_view::npos) {
    out += letters[index];
    return;
  }
  const auto byte = static_cast<unsigned char>(c);
  out.append("u00").append(1, digits[byte >> 4]).append(1, digits[byte & 15]);
}

void appendAddress(std::string& out, const tn::Addr6& address) {
  char text[INET6_ADDRSTRLEN];
  appendJsonText(out, ::inet_ntop(AF_INET6, address.data(), text, sizeof text) != nullptr ? text : "");
}

template <typename Elements, typename AppendOne>
void appendArray(std::string& out, const Elements& elements, AppendOne appendOne) {
  out += '[';
  bool isFirst = true;
  for (const auto& element : elements) {
    if (!isFirst) out += ',';
    isFirst = false;
    appendOne(element);
  }
  out += ']';
}

void appendObject(std::string& out, const message& msg, const FieldNames* names);

void appendFieldValue(std::string& out, const Field& field, const FieldNames* below) {
  const auto number = [&](std::uint64_t value) { tn::appendNumber(out, value); };
  const auto boolean = [&](bool value) { out += value ? "true" : "false"; };
  const auto text = [&](std::string_view value) { appendJsonText(out, value); };
  const auto address = [&](const tn::Addr6& value) { appendAddress(out, value); };
  const auto bytes = [&](std::span<const std::uint8_t> value) {
    std::string digits = tn::hexdump(value);
    std::erase(digits, ' ');
    appendJsonText(out, digits);
  };
  const auto object = [&](const message& value) { appendObject(out, value, below); };
  switch (field.type) {
    case FieldType::boolean:
      return boolean(field.asBool());
    case FieldType::u32:
      return number(field.asU32());
    case FieldType::u64:
      return number(field.asU64());
    case FieldType::addr6:
      return address(field.asAddr6());
    case FieldType::string:
      return text(field.asString());
    case FieldType::message:
      return object(field.asMessage());
    case FieldType::raw:
      return bytes(field.asRaw());
    case FieldType::booleanArray:
      return appendArray(out, field.asBools(), boolean);
    case FieldType::u32Array:
      return appendArray(out, field.asU32s(), number);
    case FieldType::u64Array:
      return appendArray(out, field.asU64s(), number);
    case FieldType::addr6Array:
      return appendArray(out, field.asAddr6s(), address);
    case FieldType::stringArray:
      return appendArray(out, field.asStrings(), text);
    case FieldType::messageArray:
      return appendArray(out, field.asMessages(), object);
    case FieldType::rawArray:
      return appendArray(out, field.asRaws(), bytes);
  }
}

void appendObject(std::string& out, const message& msg, const FieldNames* names) {
  if (names != nullptr) names = &names->of(msg);
  out += '{';
  msg.forEach([&](const Field& field) {
    if (out.back() != '{') out += ',';
    const std::uint32_t key = static_cast<std::uint32_t>(field.type) | field.id;
    std::string name(tn::fieldName(key, names));
    std::ranges::replace(name, ' ', '-');
    if (name.empty()) tn::appendKey(name, field);
    appendJsonText(out, name);
    out += ':';
    const tn::FieldName* const entry = names == nullptr ? nullptr : names->find(key);
    appendFieldValue(out, field, entry == nullptr ? nullptr : entry->below);
  });
  out += '}';
}

}  // namespace

void appendJsonText(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const std::size_t length = characterLength(text);
    const auto byte = static_cast<unsigned char>(text[0]);
    if (length == 0) {
      out += replacement;
    } else if (byte < 0x20 || byte == 0x7f) {
      appendControl(out, text[0]);
    } else {
      if (text[0] == '"' || text[0] == '\\') out += '\\';
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  out += '"';
}

std::string writeJson(const message& msg, const FieldNames* names) {
  std::string out;
  appendObject(out, msg, names);
  return out;
}

}  // namespace tool
