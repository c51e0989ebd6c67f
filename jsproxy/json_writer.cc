#include <array>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "jsproxy/json_form.h"
#include "platform/byte_order.h"

namespace {

using Bytes = std::span<const std::uint8_t>;

constexpr std::uint16_t magic = 0x324D;

void writeNumber(std::string& out, auto value, int base = 10) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
  out.append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

void writeKey(std::string& out, char letter, std::uint32_t header) {
  out += letter;
  writeNumber(out, header & tn::idMask, 16);
  out += ':';
}

// What stands for a byte of a string; nothing for one that is written as it is.
std::optional<std::string_view> escapeOf(char c) {
  switch (c) {
    case '\\':
      return "\\\\";
    case '\'':
      return "\\'";
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\0':
      return "";
    default:
      return std::nullopt;
  }
}

void writeQuoted(std::string& out, Bytes bytes) {
  out += '\'';
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  std::size_t plain = 0;  // begin of the run that is copied as it is
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto escape = escapeOf(text[i]);
    if (!escape) continue;
    out.append(text, plain, i - plain);
    out += *escape;
    plain = i + 1;
  }
  out.append(text, plain);
  out += '\'';
}

// Bytes as a bracketed list of decimal numbers.
void writeByteList(std::string& out, Bytes bytes) {
  out += '[';
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i != 0) out += ',';
    writeNumber(out, static_cast<unsigned>(bytes[i]));
  }
  out += ']';
}

// The walk over the fields of one message.
class Walk {
 public:
  Walk(std::string& out, Bytes rest) : out_(out), rest_(rest) {}

  bool run() {
    for (bool first = true; rest_.size() >= headerBytes; first = false) {
      // The comma comes before it is known whether the field will be written.
      if (!first) out_ += ',';
      header_ = loadLe32(rest_.data());
      rest_ = rest_.subspan(headerBytes);
      if (!writeField()) return false;
    }
    out_ += '}';
    return true;
  }

 private:
  static constexpr std::size_t headerBytes = 4;

  [[nodiscard]] bool isShort() const { return (header_ & tn::shortFlag) != 0; }
  void key(char letter) { writeKey(out_, letter, header_); }

  // The next `count` bytes, taken; nothing, and none taken, when there are not as many.
  std::optional<Bytes> take(std::size_t count) {
    if (rest_.size() < count) return std::nullopt;
    const Bytes taken = rest_.first(count);
    rest_ = rest_.subspan(count);
    return taken;
  }
  std::optional<std::size_t> takeLength16() {
    const auto bytes = take(2);
    if (!bytes) return std::nullopt;
    return loadLe16(bytes->data());
  }
  // The payload of a string, message or raw value. A length that cannot be kept stays consumed all the same.
  std::optional<Bytes> takeSized() {
    const auto length = isShort() ? takeLength8() : takeLength16();
    if (!length) return std::nullopt;
    return take(*length);
  }
  std::optional<std::size_t> takeLength8() {
    const auto bytes = take(1);
    if (!bytes) return std::nullopt;
    return bytes->front();
  }
  std::optional<Bytes> takeElement() {
    const auto length = takeLength16();
    if (!length) return std::nullopt;
    return take(*length);
  }

  // False: an array ran past the end.
  bool writeField() {
    switch (static_cast<tn::FieldType>(header_ & tn::typeMask)) {
      case tn::FieldType::boolean:
        key('b');
        out_ += isShort() ? '1' : '0';
        return true;
      case tn::FieldType::u32:
        writeU32();
        return true;
      case tn::FieldType::u64:
        if (const auto bytes = take(8)) {
          key('q');
          writeU64(bytes->data());
        }
        return true;
      case tn::FieldType::addr6:
        if (const auto bytes = take(16)) {
          key('a');
          writeByteList(out_, *bytes);
        }
        return true;
      case tn::FieldType::string:
        if (const auto bytes = takeSized()) {
          key('s');
          writeQuoted(out_, *bytes);
        }
        return true;
      case tn::FieldType::message: {
        const Bytes nested = takeSized().value_or(Bytes());
        key('m');
        writeJson(out_, nested);
        return true;
      }
      case tn::FieldType::raw: {
        const Bytes bytes = takeSized().value_or(Bytes());
        key('r');
        writeByteList(out_, bytes);
        return true;
      }
      case tn::FieldType::booleanArray:
        return writeFixedArray('B', 1, [this](const std::uint8_t* p) { out_ += *p != 0 ? '1' : '0'; });
      case tn::FieldType::u32Array:
        return writeFixedArray('U', 4, [this](const std::uint8_t* p) { writeNumber(out_, loadLe32(p)); });
      case tn::FieldType::u64Array:
        return writeFixedArray('Q', 8, [this](const std::uint8_t* p) { writeU64(p); });
      case tn::FieldType::addr6Array:
        return writeFixedArray('A', 16, [this](const std::uint8_t* p) { writeByteList(out_, Bytes(p, 16)); });
      case tn::FieldType::stringArray:
        return writeStringArray();
      case tn::FieldType::messageArray:
        return writeMessageArray();
      case tn::FieldType::rawArray:
        return writeRawArray();
    }
    return true;  // an unknown type: what follows is taken for the next header
  }

  void writeU32() {
    const auto bytes = take(isShort() ? 1 : 4);
    if (!bytes) return;
    key('u');
    writeNumber(out_, isShort() ? std::uint32_t{bytes->front()} : loadLe32(bytes->data()));
  }

  // Signed: browsers expect it so.
  void writeU64(const std::uint8_t* p) { writeNumber(out_, static_cast<std::int64_t>(loadLe64(p))); }

  template <typename WriteElement>
  bool writeFixedArray(char letter, std::size_t size, WriteElement writeElement) {
    key(letter);
    out_ += '[';
    const auto count = takeLength16();
    if (!count) return false;
    const auto bytes = take(*count * size);
    if (!bytes) return false;
    for (std::size_t i = 0; i < *count; ++i) {
      if (i != 0) out_ += ',';
      writeElement(bytes->data() + i * size);
    }
    out_ += ']';
    return true;
  }

  bool writeStringArray() {
    key('S');
    out_ += '[';
    const auto count = takeLength16();
    if (!count) return false;
    for (std::size_t i = 0; i < *count; ++i) {
      const auto bytes = takeElement();
      if (!bytes) return false;
      writeQuoted(out_, *bytes);
      if (i + 1 < *count) out_ += ',';
    }
    out_ += ']';
    return true;
  }

  bool writeRawArray() {
    key('R');
    out_ += '[';
    const auto count = takeLength16();
    if (!count) return false;
    for (std::size_t i = 0; i < *count; ++i) {
      const auto bytes = takeElement();
      if (!bytes) {
        out_ += '[';
        return false;
      }
      writeByteList(out_, *bytes);
      if (i + 1 < *count) out_ += ',';
    }
    out_ += ']';
    return true;
  }

  // All elements are looked at before anything is written.
  bool writeMessageArray() {
    const auto count = takeLength16();
    if (!count) return false;
    const Bytes elements = rest_;
    for (std::size_t i = 0; i < *count; ++i) {
      if (!takeElement()) return false;
    }
    const Bytes behind = std::exchange(rest_, elements);
    key('M');
    out_ += '[';
    for (std::size_t i = 0; i < *count; ++i) {
      if (i != 0) out_ += ',';
      writeJson(out_, takeElement().value_or(Bytes()));
    }
    out_ += ']';
    rest_ = behind;
    return true;
  }

  std::string& out_;
  Bytes rest_;
  std::uint32_t header_ = 0;
};

}  // namespace

bool writeJson(std::string& out, std::span<const std::uint8_t> flattened) {
  out += '{';
  if (flattened.size() < 2) {
    out += '}';
    return false;
  }
  if (loadLe16(flattened.data()) != magic) return false;
  return Walk(out, flattened.subspan(2)).run();
}
