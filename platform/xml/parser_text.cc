#include <algorithm>
#include <array>

#include "platform/xml/parser.h"

// The XML declaration, attribute values, character data, references, comments and processing instructions.

namespace xml {
namespace {

constexpr char32_t lastCode = 0x10FFFF;

struct Entity {
  std::string_view name;
  char character;
};

constexpr std::array<Entity, 5> entities = {{{"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"apos", '\''}, {"quot", '"'}}};

bool sameIgnoringCase(std::string_view text, std::string_view lower) {
  return std::ranges::equal(text, lower,
                            [](char a, char b) { return (a >= 'A' && a <= 'Z' ? static_cast<char>(a + 32) : a) == b; });
}

bool isDigits(std::string_view text) {
  return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

// A document of a later 1.x is read by the rules of 1.0, as those say.
bool isVersion(std::string_view text) {
  return text.starts_with("1.") && isDigits(text.substr(2));
}

unsigned digitValue(char digit) {
  if (digit >= '0' && digit <= '9') return static_cast<unsigned>(digit - '0');
  if (digit >= 'a' && digit <= 'f') return static_cast<unsigned>(digit - 'a' + 10);
  if (digit >= 'A' && digit <= 'F') return static_cast<unsigned>(digit - 'A' + 10);
  return 16;
}

// The number of a character reference, the text between "&#" and ";". Nothing: it is no number. A number that is too
// large for any character stays just above the last one, however many digits follow.
std::optional<char32_t> readCode(std::string_view text) {
  const unsigned base = text.starts_with('x') ? 16 : 10;
  if (base == 16) text.remove_prefix(1);
  if (text.empty()) return std::nullopt;
  char32_t code = 0;
  for (const char digit : text) {
    const unsigned value = digitValue(digit);
    if (value >= base) return std::nullopt;
    code = std::min(code * base + value, lastCode + 1);
  }
  return code;
}

}  // namespace

bool Parser::declaration() {
  constexpr std::string_view version = R"(version "1.0")";
  constexpr std::string_view standalone = R"(standalone "yes" or "no")";
  input_.skip(5);
  std::string_view value;
  Position at;
  bool spaced = input_.acceptSpace();
  // Takes one of the three attributes, which have a fixed order, and the space after it.
  const auto take = [&](std::string_view attributeName) {
    at = input_.position();
    const bool taken = input_.accept(attributeName) && declarationValue(value);
    if (taken) spaced = input_.acceptSpace();
    return taken;
  };
  if (!spaced || !input_.lookingAt("version")) return fail(std::string(version));
  if (!take("version")) return false;
  if (!isVersion(value)) return failAt(at, std::string(version));
  if (spaced && input_.lookingAt("encoding")) {
    if (!take("encoding") || !setEncoding(at, value)) return false;
  }
  if (spaced && input_.lookingAt("standalone")) {
    if (!take("standalone")) return false;
    if (value != "yes" && value != "no") return failAt(at, std::string(standalone));
  }
  return input_.accept("?>") || fail(R"("?>" at the end of the XML declaration)");
}

bool Parser::declarationValue(std::string_view& value) {
  if (!equalsSign()) return false;
  if (!input_.lookingAt("\"") && !input_.lookingAt("'")) return fail("a value in quotes");
  const std::string_view rest = input_.rest();
  const std::size_t end = rest.find_first_of("\"'<>&\r\n", 1);
  if (end == std::string_view::npos || rest[end] != rest.front()) return fail("a value in quotes");
  value = rest.substr(1, end - 1);
  input_.skip(end + 1);
  return true;
}

bool Parser::setEncoding(const Position& at, std::string_view name) {
  const bool ascii = sameIgnoringCase(name, "us-ascii");
  if (ascii && input_.hadByteOrderMark()) return failAt(at, R"(encoding "utf-8" after a byte order mark)");
  if (!ascii && !sameIgnoringCase(name, "utf-8")) return failAt(at, R"(encoding "utf-8" or "us-ascii")");
  if (ascii) input_.setAsciiOnly();
  return true;
}

bool Parser::equalsSign() {
  input_.acceptSpace();
  if (!input_.accept("=")) return fail(R"("=")");
  input_.acceptSpace();
  return true;
}

bool Parser::attributeValue(std::string& value) {
  const Position start = input_.position();
  if (!input_.lookingAt("\"") && !input_.lookingAt("'")) return fail("a value in quotes");
  const std::string_view quote = input_.rest().substr(0, 1);
  input_.skip(1);
  while (!input_.accept(quote)) {
    if (input_.lookingAt("<")) return fail(R"("&lt;" for "<" in a value)");
    const Character next = input_.peek();
    if (next.code == U'&') {
      if (!reference(value)) return false;
    } else if (isSpace(next.code)) {
      input_.take(next);
      value += ' ';
    } else if (!character(&value, "the closing quote")) {
      return false;
    }
    if (value.size() > limit::valueBytes) return failAt(start, "a value of " + atMost(limit::valueBytes, " bytes"));
  }
  return true;
}

bool Parser::characterData() {
  std::string& text = open_.back().text_;
  if (input_.lookingAt("&")) return reference(text);
  if (input_.lookingAt("]]>")) return fail(R"("]]&gt;" for "]]>" in text)");
  return character(&text, "text");
}

bool Parser::cdataSection() {
  input_.accept("<![CDATA[");
  return upTo("]]>", &open_.back().text_, R"("]]>" at the end of the CDATA section)");
}

bool Parser::comment() {
  constexpr std::string_view what = R"("-->" at the end of the comment)";
  input_.accept("<!--");
  while (!input_.lookingAt("--")) {
    if (!character(nullptr, what)) return false;
  }
  return input_.accept("-->") || fail(std::string(what));
}

bool Parser::processingInstruction() {
  constexpr std::string_view what = R"("?>" at the end of the processing instruction)";
  const Position start = input_.position();
  input_.skip(2);
  std::string target;
  if (!name(target)) return false;
  if (sameIgnoringCase(target, "xml")) return failAt(start, "an XML declaration at the very start alone");
  if (input_.accept("?>")) return true;
  if (!input_.acceptSpace()) return fail(std::string(what));
  return upTo("?>", nullptr, what);
}

bool Parser::reference(std::string& text) {
  constexpr std::string_view nameBytes = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  const Position start = input_.position();
  const std::string_view rest = input_.rest();
  const bool numeric = rest.starts_with("&#");
  const std::size_t begin = numeric ? 2 : 1;
  const std::size_t end = rest.find_first_not_of(nameBytes, begin);
  if (end == begin || end == std::string_view::npos || rest[end] != ';') {
    return failAt(start, R"("&amp;" or another reference)");
  }
  const std::string_view body = rest.substr(begin, end - begin);
  input_.skip(end + 1);
  if (numeric) {
    const std::optional<char32_t> code = readCode(body);
    if (!code || !isXmlCharacter(*code)) return failAt(start, "a reference to a character that XML allows");
    appendUtf8(text, *code);
    return true;
  }
  const auto known = std::ranges::find(entities, body, &Entity::name);
  if (known == entities.end()) return failAt(start, "one of the entities amp, lt, gt, apos, quot");
  text += known->character;
  return true;
}

bool Parser::upTo(std::string_view literal, std::string* text, std::string_view what) {
  while (!input_.accept(literal)) {
    if (!character(text, what)) return false;
  }
  return true;
}

bool Parser::character(std::string* text, std::string_view what) {
  const Character next = input_.peek();
  if (next.length == 0) return fail(std::string(what));
  if (text != nullptr) {
    if (next.code == U'\n') {
      *text += '\n';
    } else {
      *text += input_.rest().substr(0, next.length);
    }
  }
  input_.take(next);
  return true;
}

}  // namespace xml
