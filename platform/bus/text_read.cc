// The reading half of the line form.

#include <algorithm>
#include <charconv>
#include <concepts>
#include <limits>
#include <set>

#include "platform/bus/text.h"
#include "platform/bus/text_parts.h"

namespace tn {

namespace {

constexpr std::size_t maxIdDigits = 6;
constexpr std::string_view tooLarge = "a value that a message has room for";

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool isControl(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

std::optional<unsigned> hexDigit(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a' + 10);
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A' + 10);
  return std::nullopt;
}

// A recursive descent over the text. Every function returns false after the first failure, which `fail` has noted.
class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  bool readWhole(message& out) {
    if (!read(out)) return false;
    skipSpace();
    return at_ == text_.size() || fail("the end of the text");
  }

  [[nodiscard]] TextError takeError() { return std::move(error_); }

 private:
  bool failAt(std::size_t position, std::string_view expected) {
    error_ = {position, std::string(expected)};
    return false;
  }
  bool fail(std::string_view expected) { return failAt(at_, expected); }

  // The next character, or a NUL at the end; a NUL in the text is never what is expected.
  [[nodiscard]] char peek() const { return at_ < text_.size() ? text_[at_] : '\0'; }

  void skipSpace() {
    while (isSpace(peek()))
      ++at_;
  }

  bool take(char c) {
    skipSpace();
    if (peek() != c) return false;
    ++at_;
    return true;
  }

  bool expect(char c, std::string_view expected) { return take(c) || fail(expected); }

  bool read(message& out) {
    if (!expect('{', "'{'")) return false;
    if (nesting_ > message::maxNesting) return failAt(at_ - 1, "at most 32 messages within one another");
    ++nesting_;
    const bool good = readFields(out);
    --nesting_;
    return good;
  }

  bool readFields(message& out) {
    if (take('}')) return true;
    std::set<std::uint32_t> keys;
    do {
      if (!readField(out, keys)) return false;
    } while (take(','));
    return expect('}', "',' or '}'");
  }

  bool readField(message& out, std::set<std::uint32_t>& keys) {
    skipSpace();
    const std::size_t start = at_;
    const std::optional<FieldType> type = typeOfLetter(peek());
    if (!type) return fail("a type letter (one of buqasmrBUQASMR)");
    ++at_;
    std::uint32_t id = 0;
    if (!readId(id)) return false;
    if (!keys.insert(static_cast<std::uint32_t>(*type) | id).second)
      return failAt(start, "a key that is not there yet");
    if (!expect(':', "':'")) return false;
    skipSpace();
    return readValue(out, *type, id);
  }

  bool readId(std::uint32_t& id) {
    const std::size_t start = at_;
    while (const auto digit = hexDigit(peek())) {
      if (at_ - start == maxIdDigits) return failAt(start, "a field number of at most 6 digits");
      id = id << 4 | *digit;
      ++at_;
    }
    return at_ > start || fail("a field number in hexadecimal");
  }

  using Bytes = std::vector<std::uint8_t>;

  bool readValue(message& out, FieldType type, std::uint32_t id) {
    switch (type) {
      case FieldType::boolean:
        return insert<bool>(out, bool_id(id));
      case FieldType::u32:
        return insert<std::uint32_t>(out, u32_id(id));
      case FieldType::u64:
        return insert<std::uint64_t>(out, u64_id(id));
      case FieldType::addr6:
        return insert<Addr6>(out, addr6_id(id));
      case FieldType::string:
        return insert<std::string>(out, string_id(id));
      case FieldType::message:
        return insert<message>(out, message_id(id));
      case FieldType::raw:
        return insert<Bytes>(out, raw_id(id));
      case FieldType::booleanArray:
        return insertBools(out, bool_array_id(id));
      case FieldType::u32Array:
        return insertList<std::uint32_t>(out, u32_array_id(id));
      case FieldType::u64Array:
        return insertList<std::uint64_t>(out, u64_array_id(id));
      case FieldType::addr6Array:
        return insertList<Addr6>(out, addr6_array_id(id));
      case FieldType::stringArray:
        return insertList<std::string>(out, string_array_id(id));
      case FieldType::messageArray:
        return insertList<message>(out, message_array_id(id));
      case FieldType::rawArray:
        return insertList<Bytes>(out, raw_array_id(id));
    }
    return false;
  }

  template <typename Value, typename Id>
  bool insert(message& out, Id id) {
    const std::size_t start = at_;
    Value value{};
    return read(value) && (out.insert(id, value) || failAt(start, tooLarge));
  }

  template <typename Element, typename Id>
  bool insertList(message& out, Id id) {
    const std::size_t start = at_;
    std::vector<Element> values;
    return read(values) && (out.insert_vector(id, values) || failAt(start, tooLarge));
  }

  bool insertBools(message& out, bool_array_id id) {
    const std::size_t start = at_;
    std::vector<bool> values;
    return read(values) && (out.insert_vector(id, Bytes(values.begin(), values.end())) || failAt(start, tooLarge));
  }

  template <typename Element>
  bool read(std::vector<Element>& values) {
    if (!expect('[', "'['")) return false;
    if (take(']')) return true;
    do {
      skipSpace();
      if (values.size() == message::maxValueBytes) return fail("at most 65535 values in a list");
      Element value{};
      if (!read(value)) return false;
      values.push_back(std::move(value));
    } while (take(','));
    return expect(']', "',' or ']'");
  }

  bool read(bool& value) {
    if (peek() != '0' && peek() != '1') return fail("0 or 1");
    value = peek() == '1';
    ++at_;
    return true;
  }

  template <std::unsigned_integral Number>
  bool read(Number& value) {
    const std::size_t start = at_;
    const std::string_view rest = text_.substr(at_);
    const bool isHex = rest.starts_with("0x") || rest.starts_with("0X");
    const char* const first = rest.data() + (isHex ? 2 : 0);
    const auto [end, code] = std::from_chars(first, rest.data() + rest.size(), value, isHex ? 16 : 10);
    if (end == first) return failAt(start, "a number");
    if (code != std::errc()) return failAt(start, upTo(std::numeric_limits<Number>::max()));
    at_ += static_cast<std::size_t>(end - rest.data());
    return true;
  }

  static std::string upTo(std::uint64_t largest) { return "a number up to " + std::to_string(largest); }

  bool read(Addr6& address) {
    const std::size_t start = at_;
    Bytes bytes;
    if (!read(bytes)) return false;
    if (bytes.size() != address.size()) return failAt(start, "the 16 bytes of an address");
    std::copy(bytes.begin(), bytes.end(), address.begin());
    return true;
  }

  bool read(std::string& value) {
    if (!expect('\'', "a string in single quotes")) return false;
    for (;; ++at_) {
      if (at_ == text_.size()) return fail("a closing quote");
      const char c = peek();
      if (c == '\'') break;
      if (isControl(c)) return fail("control characters written as \\n, \\r, \\t, \\0 or \\xNN");
      if (c != '\\') {
        value += c;
      } else if (!readEscape(value)) {
        return false;
      }
    }
    ++at_;
    return true;
  }

  // Begins at the backslash and ends at the last character of the escape.
  bool readEscape(std::string& value) {
    constexpr std::string_view names = "\\'nrt0";
    constexpr std::string_view meanings("\\'\n\r\t\0", 6);
    ++at_;
    if (peek() == 'x') return readByte(value);
    const std::size_t index = at_ < text_.size() ? names.find(peek()) : std::string_view::npos;
    if (index == std::string_view::npos) return failAt(at_ - 1, "one of the escapes \\\\ \\' \\n \\r \\t \\0 \\xNN");
    value += meanings[index];
    return true;
  }

  bool readByte(std::string& value) {
    const std::string_view digits = text_.substr(at_ + 1, 2);
    const auto high = digits.empty() ? std::nullopt : hexDigit(digits[0]);
    const auto low = digits.size() < 2 ? std::nullopt : hexDigit(digits[1]);
    if (!high || !low) return fail("two hexadecimal digits behind \\x");
    value += static_cast<char>(*high << 4 | *low);
    at_ += 2;
    return true;
  }

  std::string_view text_;
  std::size_t at_ = 0;
  unsigned nesting_ = 0;
  TextError error_{};
};

}  // namespace

std::optional<TextError> readText(std::string_view text, message& out) {
  Reader reader(text);
  out = message();
  if (reader.readWhole(out)) return std::nullopt;
  out = message();
  return reader.takeError();
}

}  // namespace tn
