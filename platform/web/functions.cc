#include "platform/web/functions.h"

#include <algorithm>
#include <charconv>

#include "platform/web/ascii.h"

std::vector<std::string> tokenize(std::string_view text, char separator) {
  std::vector<std::string> pieces;
  while (!text.empty()) {
    const std::size_t end = std::min(text.find(separator), text.size());
    if (end != 0) pieces.emplace_back(text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return pieces;
}

bool parseNumber(std::string_view text, unsigned* value) {
  static_assert(sizeof(unsigned) == 4, "numbers of the wire have 32 bits");
  const char* const end = text.data() + text.size();
  unsigned number = 0;
  const std::from_chars_result result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return false;
  *value = number;
  return true;
}
