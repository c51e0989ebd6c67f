#include <algorithm>
#include <array>
#include <cstring>

#include "jsproxy/json_form.h"
#include "jsproxy/json_numbers.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"

// Fields are written in their flattened form as they are read, one behind the other, nested messages in the place where
// they stand; tn::message takes the whole at the end. Inserting each into a message would look for its key among all
// that are there, and a browser decides how many those are.

namespace {

using json::digitOf;
using json::noDigit;
using json::parseDecimal;
using json::parseId;

const char* skipSpaces(const char* p) {
  while (*p == ' ')
    ++p;
  return p;
}

// Where a value ended, and whether the whole text has failed there.
struct Outcome {
  const char* at;
  bool failed;
};

Outcome goOn(const char* p) {
  return {p, false};
}

Outcome fail(const char* p) {
  return {p, true};
}

// Collects single bytes before they are appended: that is a call each time.
class Collector {
 public:
  explicit Collector(std::string& out) : out_(out) {}
  Collector(const Collector&) = delete;
  Collector& operator=(const Collector&) = delete;
  ~Collector() { flush(); }

  void add(char c) {
    if (count_ == bytes_.size()) flush();
    bytes_[count_++] = c;
  }

 private:
  void flush() {
    out_.append(bytes_.data(), count_);
    count_ = 0;
  }

  std::string& out_;
  std::size_t count_ = 0;
  std::array<char, 128> bytes_;
};

// ---- What is read, in its flattened form

constexpr std::string_view magic = "M2";
constexpr std::size_t headerBytes = 4;
constexpr std::size_t lengthBytes = 2;
constexpr std::size_t largestShort = 255;

void appendLe16(std::string& out, std::size_t value) {
  std::array<std::uint8_t, 2> bytes;
  storeLe16(bytes.data(), static_cast<std::uint16_t>(value));
  out.append(bytes.begin(), bytes.end());
}
void appendLe32(std::string& out, std::uint32_t value) {
  std::array<std::uint8_t, 4> bytes;
  storeLe32(bytes.data(), value);
  out.append(bytes.begin(), bytes.end());
}
void appendLe64(std::string& out, std::uint64_t value) {
  std::array<std::uint8_t, 8> bytes;
  storeLe64(bytes.data(), value);
  out.append(bytes.begin(), bytes.end());
}

const char* readFields(const char* p, std::string& out, unsigned depth);
const char* readBytes(const char* p, std::string& out);

// The type letters and how the value behind each is read: its field is appended to `out`, or nothing when a message has
// no room for such a value or the text fails in it.
class ValueReader {
 public:
  ValueReader(std::string& out, std::uint32_t id, unsigned depth)
      : out_(out), start_(out.size()), id_(id & tn::idMask), depth_(depth) {}

  Outcome read(char letter, const char* p) {
    const Outcome outcome = readValue(letter, p);
    if (outcome.failed || !fits_) out_.resize(start_);
    return outcome;
  }

 private:
  using Type = tn::FieldType;

  Outcome readValue(char letter, const char* p) {
    switch (letter) {
      case 'b': {
        const auto number = parseDecimal<std::uint32_t>(p, 0);
        header(Type::boolean, number.value != 0);
        return goOn(number.end);
      }
      case 'u': {
        const auto number = parseDecimal<std::uint32_t>(p, 0);
        appendU32(number.value);
        return goOn(number.end);
      }
      case 'q': {
        const auto number = parseDecimal<std::uint64_t>(p, 0);
        header(Type::u64);
        appendLe64(out_, number.value);
        return goOn(number.end);
      }
      case 'a':
        header(Type::addr6);
        return takeAddress(p);
      case 's':
        return readSized(Type::string, p, &ValueReader::takeString);
      case 'r':
        return readSized(Type::raw, p, &ValueReader::takeBytes);
      case 'm':
        return readSized(Type::message, p, &ValueReader::takeMessage);
      case 'B':
        return readSmallNumbers(Type::booleanArray, p, [this](std::uint32_t v) { out_ += v != 0 ? '\1' : '\0'; });
      case 'U':
        return readSmallNumbers(Type::u32Array, p, [this](std::uint32_t v) { appendLe32(out_, v); });
      case 'Q':
        return readLongNumbers(p);
      case 'A':
        return readAddresses(p);
      case 'S':
        return readElements(Type::stringArray, p,
                            [this](const char* at) { return sized(at, &ValueReader::takeString); });
      case 'R':
        return readElements(Type::rawArray, p, [this](const char* at) { return sized(at, &ValueReader::takeBytes); });
      case 'M':
        return readMessages(p);
      default:
        return goOn(p);  // no type: no value
    }
  }

  void header(Type type, bool isShort = false) {
    appendLe32(out_, static_cast<std::uint32_t>(type) | id_ | (isShort ? tn::shortFlag : 0));
  }
  void appendU32(std::uint32_t value) {
    const bool isShort = value <= largestShort;
    header(Type::u32, isShort);
    if (isShort) {
      out_ += static_cast<char>(value);
    } else {
      appendLe32(out_, value);
    }
  }

  // Takes one value and appends its bytes.
  using Take = Outcome (ValueReader::*)(const char* p);

  // A value behind its length, which is known afterwards. Most are short; the others are moved by a byte.
  Outcome readSized(Type type, const char* p, Take take) {
    header(type, true);
    out_ += '\0';
    const std::size_t begin = out_.size();
    const Outcome outcome = (this->*take)(p);
    const std::size_t length = out_.size() - begin;
    if (length <= largestShort) {
      out_[begin - 1] = static_cast<char>(length);
      return outcome;
    }
    fits_ = fits_ && length <= tn::message::maxValueBytes;
    out_.insert(begin, 1, '\0');
    storeLe32(at(start_), static_cast<std::uint32_t>(type) | id_);
    storeLe16(at(begin - 1), static_cast<std::uint16_t>(length));
    return outcome;
  }

  // An element of an array behind its length.
  Outcome sized(const char* p, Take take) {
    out_.append(lengthBytes, '\0');
    const std::size_t begin = out_.size();
    const Outcome outcome = (this->*take)(p);
    const std::size_t length = out_.size() - begin;
    fits_ = fits_ && length <= tn::message::maxValueBytes;
    storeLe16(at(begin - lengthBytes), static_cast<std::uint16_t>(length));
    return outcome;
  }

  [[nodiscard]] std::uint8_t* at(std::size_t index) { return asWritableBytes(out_).data() + index; }

  Outcome takeAddress(const char* p) {
    if (*p != '[') return fail(p);
    const std::size_t begin = out_.size();
    p = readBytes(p, out_);
    return out_.size() - begin == sizeof(tn::Addr6) ? goOn(p) : fail(p);
  }

  Outcome takeString(const char* p) {
    if (*p != '\'') return fail(p);
    p = parseQuoted(p + 1, out_);
    return *p == '\'' ? goOn(p + 1) : fail(p);
  }

  Outcome takeBytes(const char* p) {
    if (*p != '[') return fail(p);
    return goOn(readBytes(p, out_));
  }

  Outcome takeMessage(const char* p) {
    if (depth_ == maxJsonDepth || *p != '{') return fail(p);
    return takeFields(p + 1);
  }

  Outcome takeFields(const char* p) {
    p = readFields(p, out_, depth_ + 1);
    return *p == '}' ? goOn(p + 1) : fail(p);
  }

  // The elements between the brackets, behind their count; commas and spaces between them are passed in any number.
  // takeElement gets the position of anything else but the closing bracket (the NUL as well), and says where the next
  // one is looked for.
  template <typename TakeElement>
  Outcome readElements(Type type, const char* p, TakeElement takeElement) {
    if (*p != '[') return fail(p);
    header(type);
    appendLe16(out_, 0);
    std::size_t count = 0;
    Outcome outcome = goOn(p + 1);
    while (*outcome.at != ']') {
      if (*outcome.at == ' ' || *outcome.at == ',') {
        ++outcome.at;
        continue;
      }
      outcome = takeElement(outcome.at);
      if (outcome.failed) return outcome;
      ++count;
    }
    endElements(count);
    return goOn(outcome.at + 1);
  }

  void endElements(std::size_t count) {
    fits_ = fits_ && count <= tn::message::maxValueBytes;
    storeLe16(at(start_ + headerBytes), static_cast<std::uint16_t>(count));
  }

  // Elements of B and U: the first that has no digits ends the array, as a zero, without being an error by itself, and
  // the end of the text ends it as it stands.
  template <typename Append>
  Outcome readSmallNumbers(Type type, const char* p, Append append) {
    std::size_t count = 0;
    const Outcome outcome = readElements(type, p, [&append, &count](const char* element) {
      if (*element == '\0') return fail(element);
      const auto number = parseDecimal<std::uint32_t>(element, 10);
      append(number.value);
      ++count;
      return number.end == element ? fail(element) : goOn(number.end);
    });
    if (*p != '[' || !outcome.failed) return outcome;
    endElements(count);
    return goOn(outcome.at);
  }

  Outcome readLongNumbers(const char* p) {
    return readElements(Type::u64Array, p, [this](const char* element) {
      if (*element < '0' || *element > '9') return fail(element);
      const auto number = parseDecimal<std::uint64_t>(element, 0);
      appendLe64(out_, number.value);
      return goOn(number.end);
    });
  }

  Outcome readAddresses(const char* p) {
    return readElements(Type::addr6Array, p, [this](const char* element) {
      if (*element == '\0') return fail(element);
      if (*element != '[') stayForEver();
      return takeAddress(element);
    });
  }

  // The same character is looked at again and again. The barrier tells the compiler that the loop it makes is meant.
  [[noreturn]] static void stayForEver() {
    for (;;)
      __asm__ __volatile__("" : : : "memory");
  }

  Outcome readMessages(const char* p) {
    if (depth_ == maxJsonDepth) return fail(p);
    return readElements(Type::messageArray, p, [this](const char* element) {
      return *element == '\0' ? fail(element) : sized(element, &ValueReader::takeFields);
    });
  }

  std::string& out_;
  const std::size_t start_;
  const std::uint32_t id_;
  const unsigned depth_;
  bool fits_ = true;  // the value has room in a field
};

// The keys of one message so far, as long as they are few.
class Keys {
 public:
  // Whether the key was there before, or may have been.
  bool mayRepeat(std::uint32_t key) {
    const auto end = seen_.begin() + static_cast<std::ptrdiff_t>(count_);
    if (count_ == seen_.size() || std::find(seen_.begin(), end, key) != end) return true;
    seen_[count_++] = key;
    return false;
  }

 private:
  std::array<std::uint32_t, 24> seen_;
  std::size_t count_ = 0;
};

// The fields of the message whose bytes begin at `begin` each once, as a message keeps them.
void dropRepeated(std::string& out, std::size_t begin) {
  tn::message msg;
  if (!msg.unflatten(asBytes(out).subspan(begin))) return;
  const auto bytes = msg.flattened();
  out.resize(begin);
  out.append(bytes.begin(), bytes.end());
}

// The fields up to the closing brace, appended; onField is told where each one begins.
template <typename OnField>
const char* appendFields(const char* p, std::string& out, unsigned depth, OnField onField) {
  p = skipSpaces(p);
  if (*p == '{') ++p;
  for (;;) {
    p = skipSpaces(p);
    if (*p == '\0' || *p == '}') return p;
    const char* const letter = p++;
    if (digitOf(*p) == noDigit) return letter;
    const auto id = parseId(p);
    p = id.end;
    while (*p == ' ' || *p == ':')
      ++p;
    const std::size_t start = out.size();
    const Outcome value = ValueReader(out, id.value, depth).read(*letter, p);
    if (out.size() > tn::message::maxFlattenedBytes) out.resize(start);
    if (out.size() > start) onField(start);
    if (value.failed) return value.at;
    p = skipSpaces(value.at);
    if (*p != ',') return p;
    ++p;
  }
}

// A nested message, whole.
const char* readFields(const char* p, std::string& out, unsigned depth) {
  const std::size_t begin = out.size();
  Keys keys;
  bool mayRepeat = false;
  out += magic;
  p = appendFields(p, out, depth, [&](std::size_t start) {
    mayRepeat = mayRepeat || keys.mayRepeat(loadLe32(asBytes(out).data() + start) & ~tn::shortFlag);
  });
  if (mayRepeat) dropRepeated(out, begin);
  return p;
}

const char* readBytes(const char* p, std::string& out) {
  Collector bytes(out);
  ++p;
  for (;;) {
    if (*p == ']') return p + 1;
    if (*p == '\0') return p;
    if (*p == ' ' || *p == ',') {
      ++p;
      continue;
    }
    const auto number = parseDecimal<std::uint32_t>(p, 10);
    bytes.add(static_cast<char>(number.value));
    if (number.end == p) return p;
    p = number.end;
  }
}

}  // namespace

const char* parseJson(const char* p, tn::message& msg, unsigned depth) {
  const auto before = msg.flattened();
  std::string bytes;
  bytes.reserve(before.size() + std::strlen(p));
  bytes.append(before.begin(), before.end());
  p = appendFields(p, bytes, depth, [](std::size_t) {});
  // What was written is well formed; a key that came twice is dealt with there.
  (void)msg.unflatten(asBytes(bytes));
  return p;
}

const char* parseQuoted(const char* p, std::string& out) {
  Collector text(out);
  for (;; ++p) {
    char c = *p;
    if (c == '\0' || c == '\'') return p;
    if (c == '\\') {
      const char next = p[1];
      const bool isPair = next == 'r' || next == 'n' || next == '\'' || next == '\\';
      // A backslash before anything else is one by itself.
      if (isPair) {
        c = next == 'r' ? '\r' : next == 'n' ? '\n' : next;
        ++p;
      }
    }
    text.add(c);
  }
}

const char* parseByteList(const char* p, std::vector<std::uint8_t>& out) {
  std::string bytes;
  p = readBytes(p, bytes);
  out.insert(out.end(), bytes.begin(), bytes.end());
  return p;
}
