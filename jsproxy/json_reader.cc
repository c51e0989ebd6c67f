#include <algorithm>
#include <limits>

#include "jsproxy/json_form.h"

namespace {

bool isSpace(char c) {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

// Value of a digit in bases up to 16; 16 for what is none.
unsigned digitOf(char c) {
  if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0');
  if (c >= 'a' && c <= 'f') return static_cast<unsigned>(c - 'a') + 10;
  if (c >= 'A' && c <= 'F') return static_cast<unsigned>(c - 'A') + 10;
  return 16;
}

template <typename Number>
struct Parsed {
  Number value;
  const char* end;  // where it began when there was no digit
};

// A number with the semantics of the C library's strtoul for an unsigned long of Number's width, in base 0, 10 or 16.
// The library itself will not do: its unsigned long has 64 bits on some machines.
template <typename Number>
Parsed<Number> parseNumber(const char* text, unsigned base) {
  const char* p = text;
  while (isSpace(*p))
    ++p;
  const bool negative = *p == '-';
  if (*p == '-' || *p == '+') ++p;
  const bool prefixed = p[0] == '0' && (p[1] == 'x' || p[1] == 'X') && digitOf(p[2]) < 16;
  if (prefixed && base != 10) {
    p += 2;
    base = 16;
  } else if (base == 0) {
    base = *p == '0' ? 8 : 10;
  }
  constexpr Number most = std::numeric_limits<Number>::max();
  Number value = 0;
  bool overflow = false;
  const char* const digits = p;
  for (unsigned digit = digitOf(*p); digit < base; digit = digitOf(*++p)) {
    overflow = overflow || value > (most - digit) / base;
    value = static_cast<Number>(value * base + digit);
  }
  if (p == digits) return {0, text};
  if (overflow) return {most, p};
  return {negative ? static_cast<Number>(0 - value) : value, p};
}

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

// The type letters and how the value behind each is read. `p` is where the value begins.
class ValueReader {
 public:
  ValueReader(tn::message& msg, std::uint32_t id, unsigned depth) : msg_(msg), id_(id), depth_(depth) {}

  Outcome read(char letter, const char* p) {
    switch (letter) {
      case 'b':
        return readNumber<std::uint32_t>(p, [this](std::uint32_t v) { msg_.insert(tn::bool_id(id_), v != 0); });
      case 'u':
        return readNumber<std::uint32_t>(p, [this](std::uint32_t v) { msg_.insert(tn::u32_id(id_), v); });
      case 'q':
        return readNumber<std::uint64_t>(p, [this](std::uint64_t v) { msg_.insert(tn::u64_id(id_), v); });
      case 'a':
        return readAddress(p);
      case 's':
        return readString(p);
      case 'r':
        return readRaw(p);
      case 'm':
        return readMessage(p);
      case 'B':
        return readBooleans(p);
      case 'U':
        return readNumbers(p);
      case 'Q':
        return readLongNumbers(p);
      case 'A':
        return readAddresses(p);
      case 'S':
        return readStrings(p);
      case 'R':
        return readRaws(p);
      case 'M':
        return readMessages(p);
      default:
        return goOn(p);  // no type: no value
    }
  }

 private:
  template <typename Number, typename Insert>
  Outcome readNumber(const char* p, Insert insert) {
    const auto number = parseNumber<Number>(p, 0);
    insert(number.value);
    return goOn(number.end);
  }

  Outcome readAddress(const char* p) {
    tn::Addr6 address{};
    const Outcome outcome = takeAddress(p, address);
    if (!outcome.failed) msg_.insert(tn::addr6_id(id_), address);
    return outcome;
  }

  static Outcome takeAddress(const char* p, tn::Addr6& address) {
    if (*p != '[') return fail(p);
    std::vector<std::uint8_t> bytes;
    p = parseByteList(p, bytes);
    if (bytes.size() != address.size()) return fail(p);
    std::copy(bytes.begin(), bytes.end(), address.begin());
    return goOn(p);
  }

  Outcome readString(const char* p) {
    std::string text;
    const Outcome outcome = takeString(p, text);
    if (!outcome.failed) msg_.insert(tn::string_id(id_), text);
    return outcome;
  }

  static Outcome takeString(const char* p, std::string& text) {
    if (*p != '\'') return fail(p);
    p = parseQuoted(p + 1, text);
    if (*p != '\'') return fail(p);
    return goOn(p + 1);
  }

  Outcome readRaw(const char* p) {
    if (*p != '[') return fail(p);
    std::vector<std::uint8_t> bytes;
    p = parseByteList(p, bytes);
    msg_.insert(tn::raw_id(id_), bytes);
    return goOn(p);
  }

  Outcome readMessage(const char* p) {
    if (depth_ == maxJsonDepth || *p != '{') return fail(p);
    tn::message nested;
    p = parseJson(p + 1, nested, depth_ + 1);
    if (*p != '}') return fail(p);
    msg_.insert(tn::message_id(id_), nested);
    return goOn(p + 1);
  }

  // The elements between the brackets; commas and spaces between them are passed in any number. takeElement gets the
  // position of anything else but the closing bracket (the NUL as well), and says where the next one is looked for.
  template <typename TakeElement>
  static Outcome readElements(const char* p, TakeElement takeElement) {
    if (*p != '[') return fail(p);
    ++p;
    while (*p != ']') {
      if (*p == ' ' || *p == ',') {
        ++p;
        continue;
      }
      const Outcome outcome = takeElement(p);
      if (outcome.failed) return outcome;
      p = outcome.at;
    }
    return goOn(p + 1);
  }

  // Elements of B and U: the first that has no digits ends the array, as a zero, without being an error by itself.
  template <typename Append>
  static Outcome readSmallNumbers(const char* p, Append append) {
    const Outcome outcome = readElements(p, [&append](const char* at) {
      if (*at == '\0') return fail(at);
      const auto number = parseNumber<std::uint32_t>(at, 10);
      append(number.value);
      return number.end == at ? fail(at) : goOn(number.end);
    });
    return *p == '[' ? goOn(outcome.at) : outcome;
  }

  Outcome readBooleans(const char* p) {
    std::vector<std::uint8_t> values;
    const Outcome outcome = readSmallNumbers(p, [&values](std::uint32_t v) { values.push_back(v != 0 ? 1 : 0); });
    if (!outcome.failed) msg_.insert_vector(tn::bool_array_id(id_), values);
    return outcome;
  }

  Outcome readNumbers(const char* p) {
    std::vector<std::uint32_t> values;
    const Outcome outcome = readSmallNumbers(p, [&values](std::uint32_t v) { values.push_back(v); });
    if (!outcome.failed) msg_.insert_vector(tn::u32_array_id(id_), values);
    return outcome;
  }

  Outcome readLongNumbers(const char* p) {
    std::vector<std::uint64_t> values;
    const Outcome outcome = readElements(p, [&values](const char* at) {
      if (*at < '0' || *at > '9') return fail(at);
      const auto number = parseNumber<std::uint64_t>(at, 0);
      values.push_back(number.value);
      return goOn(number.end);
    });
    if (!outcome.failed) msg_.insert_vector(tn::u64_array_id(id_), values);
    return outcome;
  }

  Outcome readAddresses(const char* p) {
    std::vector<tn::Addr6> values;
    const Outcome outcome = readElements(p, [&values](const char* at) {
      if (*at == '\0') return fail(at);
      if (*at != '[') return stayForEver(at);
      tn::Addr6 address{};
      const Outcome element = takeAddress(at, address);
      if (!element.failed) values.push_back(address);
      return element;
    });
    if (!outcome.failed) msg_.insert_vector(tn::addr6_array_id(id_), values);
    return outcome;
  }

  // The same character is looked at again and again. The barrier tells the compiler that the loop it makes is meant.
  static Outcome stayForEver(const char* p) {
    __asm__ __volatile__("" : : : "memory");
    return goOn(p);
  }

  Outcome readStrings(const char* p) {
    std::vector<std::string> values;
    const Outcome outcome =
        readElements(p, [&values](const char* at) { return takeString(at, values.emplace_back()); });
    if (!outcome.failed) msg_.insert_vector(tn::string_array_id(id_), values);
    return outcome;
  }

  Outcome readRaws(const char* p) {
    std::vector<std::vector<std::uint8_t>> values;
    const Outcome outcome = readElements(p, [&values](const char* at) {
      if (*at != '[') return fail(at);
      return goOn(parseByteList(at, values.emplace_back()));
    });
    if (!outcome.failed) msg_.insert_vector(tn::raw_array_id(id_), values);
    return outcome;
  }

  Outcome readMessages(const char* p) {
    if (depth_ == maxJsonDepth) return fail(p);
    std::vector<tn::message> values;
    const Outcome outcome = readElements(p, [this, &values](const char* at) {
      if (*at == '\0') return fail(at);
      at = parseJson(at, values.emplace_back(), depth_ + 1);
      return *at == '}' ? goOn(at + 1) : fail(at);
    });
    if (!outcome.failed) msg_.insert_vector(tn::message_array_id(id_), values);
    return outcome;
  }

  tn::message& msg_;
  std::uint32_t id_;
  unsigned depth_;
};

}  // namespace

const char* parseJson(const char* p, tn::message& msg, unsigned depth) {
  p = skipSpaces(p);
  if (*p == '{') ++p;
  for (;;) {
    p = skipSpaces(p);
    if (*p == '\0' || *p == '}') return p;
    const char* const letter = p++;
    if (digitOf(*p) >= 16) return letter;
    const auto id = parseNumber<std::uint32_t>(p, 16);
    p = id.end;
    while (*p == ' ' || *p == ':')
      ++p;
    const Outcome value = ValueReader(msg, id.value, depth).read(*letter, p);
    if (value.failed) return value.at;
    p = skipSpaces(value.at);
    if (*p != ',') return p;
    ++p;
  }
}

const char* parseQuoted(const char* p, std::string& out) {
  for (;;) {
    const char* const plain = p;
    while (*p != '\0' && *p != '\'' && *p != '\\')
      ++p;
    out.append(plain, p);
    if (*p != '\\') return p;
    switch (p[1]) {
      case 'r':
        out += '\r';
        p += 2;
        break;
      case 'n':
        out += '\n';
        p += 2;
        break;
      case '\'':
      case '\\':
        out += p[1];
        p += 2;
        break;
      default:  // a backslash by itself
        out += *p++;
    }
  }
}

const char* parseByteList(const char* p, std::vector<std::uint8_t>& out) {
  ++p;
  for (;;) {
    if (*p == ']') return p + 1;
    if (*p == '\0') return p;
    if (*p == ' ' || *p == ',') {
      ++p;
      continue;
    }
    const auto number = parseNumber<std::uint32_t>(p, 10);
    out.push_back(static_cast<std::uint8_t>(number.value));
    if (number.end == p) return p;
    p = number.end;
  }
}
