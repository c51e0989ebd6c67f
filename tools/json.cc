#include "tools/json.h"

#include <algorithm>
#include <arpa/inet.h>
#include <concepts>

#include "platform/bus/files.h"
#include "platform/bus/text_parts.h"

namespace tool {

namespace {

using tn::FieldNames;
using tn::message;
using Field = message::Field;

constexpr std::string_view replacement = "\\ufffd";

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

void appendObject(std::string& out, const message& msg, const FieldNames* names);

// A value of JSON. `below` are the names in messages.
struct JsonValue {
  std::string& out;
  const FieldNames* below;

  void operator()(std::same_as<bool> auto value) const { out += value ? "true" : "false"; }
  void operator()(std::uint64_t value) const { tn::appendNumber(out, value); }
  void operator()(std::string_view value) const { appendJsonText(out, value); }
  void operator()(const message& value) const { appendObject(out, value, below); }
  void operator()(const tn::Addr6& value) const {
    char text[INET6_ADDRSTRLEN];
    appendJsonText(out, ::inet_ntop(AF_INET6, value.data(), text, sizeof text) != nullptr ? text : "");
  }
  void operator()(std::span<const std::uint8_t> value) const {
    std::string digits = tn::hexdump(value);
    std::erase(digits, ' ');
    appendJsonText(out, digits);
  }
};

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
    tn::appendValueBy(out, field, JsonValue{out, entry == nullptr ? nullptr : entry->below});
  });
  out += '}';
}

}  // namespace

void appendJsonText(std::string& out, std::string_view text) {
  out += '"';
  while (!text.empty()) {
    const std::size_t length = tn::characterLength(text);
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
