#include "platform/web/authority.h"

#include "platform/web/ascii.h"

namespace {

constexpr ascii::CharSet nameChars{"-._~%!$&'()*+,;="};
constexpr ascii::CharSet literalChars{"-._~%!$&'()*+,;=:"};

// Length of the host at the front of `text`; 0 when there is none.
std::size_t hostLength(std::string_view text) {
  if (!text.starts_with('[')) return nameChars.lengthIn(text);
  const std::size_t end = text.find(']');
  if (end == std::string_view::npos || end == 1 || !literalChars.hasAll(text.substr(1, end - 1))) return 0;
  return end + 1;
}

constexpr ascii::CharSet digits{ascii::isDigit};

}  // namespace

bool isAuthority(std::string_view text) {
  const std::size_t length = hostLength(text);
  if (length == 0) return false;
  const std::string_view rest = text.substr(length);
  return rest.empty() || (rest.front() == ':' && digits.hasAll(rest.substr(1)));
}

bool isAuthorityWithPort(std::string_view text) {
  return isAuthority(text) && ascii::isDigit(text.back()) && text.size() > hostLength(text);
}
