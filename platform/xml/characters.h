#pragma once

#include <string>
#include <string_view>

namespace xml {

// One character at the front of a text in UTF-8.
struct Character {
  char32_t code;
  unsigned length;  // bytes; 0: the text is empty or does not begin with a valid sequence (cut, overlong, a surrogate)
};
[[nodiscard]] Character decodeUtf8(std::string_view text);

// `code` must be a character that isXmlCharacter accepts.
void appendUtf8(std::string& text, char32_t code);

// The classes of XML 1.0 (fifth edition): Char, NameStartChar, NameChar and S.
[[nodiscard]] bool isXmlCharacter(char32_t code);
[[nodiscard]] bool isNameStart(char32_t code);
[[nodiscard]] bool isNameCharacter(char32_t code);
[[nodiscard]] constexpr bool isSpace(char32_t code) {
  return code == U' ' || code == U'\t' || code == U'\n' || code == U'\r';
}

}  // namespace xml
