// The writing half of the line form.

#include "platform/bus/text.h"

#include <charconv>
#include <concepts>

#include "platform/bus/text_parts.h"

namespace tn {

namespace {

using Bytes = std::span<const std::uint8_t>;
using Field = message::Field;

// Whether the character that `text` begins with is one that some terminal obeys: a control character of either set.
bool isControl(std::string_view text) {
  const auto at = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  return at(0) < 0x20 || at(0) == 0x7f || (at(0) == 0xc2 && text.size() > 1 && at(1) < 0xa0);
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
    const std::size_t length = isControl(text) ? 0 : characterLength(text);
    if (length == 0) {
      appendEscaped(out, text[0]);
    } else {
      if (quoted.find(text[0]) != std::string_view::npos) out += '\\';
      out += text.substr(0, length);
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
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

// A value of the line form.
struct LineValue {
  std::string& out;

  void operator()(std::same_as<bool> auto value) const { out += value ? '1' : '0'; }
  void operator()(std::uint64_t value) const { appendNumber(out, value); }
  void operator()(const Addr6& value) const { appendList(out, value, *this); }
  void operator()(Bytes value) const { appendList(out, value, *this); }
  void operator()(const message& value) const { appendMessage(out, value); }
  void operator()(std::string_view value) const {
    out += '\'';
    appendPrintable(out, value, "'\\");
    out += '\'';
  }
};

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
  appendValueBy(out, field, LineValue{out});
}

std::size_t characterLength(std::string_view text) {
  const auto at = [&](std::size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U; };
  if (text.empty()) return 0;
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
  const bool good = lead >= 0xc2 && lead <= 0xf4 && character >= smallest[length] && character <= 0x10ffff;
  return good && !isSurrogate ? length : 0;
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
