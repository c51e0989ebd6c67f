#include "services/userd/account.h"

#include <algorithm>

#include "platform/bus/text.h"

namespace userd {
namespace {

bool isLetterOrDigit(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isNameCharacter(char c) {
  return isLetterOrDigit(c) || c == '.' || c == '_' || c == '-' || c == '@';
}

bool isSkinCharacter(char c) {
  return isLetterOrDigit(c) || c == '_' || c == '-';
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

}  // namespace

Problem checkName(std::string_view name) {
  const bool good = !name.empty() && name.size() <= maxNameBytes && isLetterOrDigit(name.front()) &&
                    std::ranges::all_of(name, isNameCharacter);
  if (good) return std::nullopt;
  return "a name (string 1) has 1 to 64 letters, digits, \".\", \"_\", \"-\", \"@\", and begins with a letter or digit";
}

Problem checkFullName(std::string_view name) {
  // Whatever is no UTF-8, or would be obeyed rather than shown, is not shown as it is.
  if (name.size() <= maxFullNameBytes && tn::printableText(name) == name) return std::nullopt;
  return "a full name (string 17) has at most 128 bytes of UTF-8 and no control characters";
}

Problem checkSkin(std::string_view skin) {
  if (!skin.empty() && skin.size() <= maxNameBytes && std::ranges::all_of(skin, isSkinCharacter)) return std::nullopt;
  return "a skin (string 24) has 1 to 64 letters, digits, \"_\", \"-\"";
}

bool isSameName(std::string_view one, std::string_view other) {
  return std::ranges::equal(one, other, {}, lower, lower);
}

}  // namespace userd
