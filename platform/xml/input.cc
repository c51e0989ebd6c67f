#include "platform/xml/input.h"

namespace xml {
namespace {

constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";

}  // namespace

Input::Input(std::string_view bytes) : rest_(bytes) {
  if (!rest_.starts_with(byteOrderMark)) return;
  rest_.remove_prefix(byteOrderMark.size());
  hadByteOrderMark_ = true;
}

Fault Input::fault() const {
  if (rest_.empty()) return Fault::end;
  if (asciiOnly_ && static_cast<unsigned char>(rest_.front()) >= 0x80) return Fault::notAscii;
  const Character character = decodeUtf8(rest_);
  if (character.length == 0) return Fault::notUtf8;
  return isXmlCharacter(character.code) ? Fault::none : Fault::notXml;
}

Character Input::peek() const {
  if (fault() != Fault::none) return {0, 0};
  if (lookingAt("\r\n")) return {U'\n', 2};
  if (lookingAt("\r")) return {U'\n', 1};
  return decodeUtf8(rest_);
}

void Input::take(const Character& character) {
  rest_.remove_prefix(character.length);
  if (character.code == U'\n') {
    ++position_.line;
    position_.column = 1;
  } else {
    position_.column += character.length;
  }
}

void Input::skip(std::size_t count) {
  rest_.remove_prefix(count);
  position_.column += static_cast<unsigned>(count);
}

bool Input::accept(std::string_view literal) {
  if (!lookingAt(literal)) return false;
  skip(literal.size());
  return true;
}

bool Input::acceptSpace() {
  bool any = false;
  for (Character next = peek(); next.length != 0 && isSpace(next.code); next = peek()) {
    take(next);
    any = true;
  }
  return any;
}

}  // namespace xml
