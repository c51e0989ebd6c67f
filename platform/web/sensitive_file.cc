#include <algorithm>
#include <array>

#include "platform/web/ascii.h"
#include "platform/web/functions.h"

namespace {

constexpr std::array<std::string_view, 5> sensitiveSuffixes{".backup", ".key", ".pem", ".p12", ".db"};
constexpr std::string_view sensitiveFolder = "private";

bool endsWithIgnoreCase(std::string_view text, std::string_view suffix) {
  return text.size() >= suffix.size() && ascii::equalsIgnoreCase(text.substr(text.size() - suffix.size()), suffix);
}

}  // namespace

bool isSensitiveFile(std::string_view name) {
  if (std::any_of(sensitiveSuffixes.begin(), sensitiveSuffixes.end(),
                  [name](std::string_view suffix) { return endsWithIgnoreCase(name, suffix); })) {
    return true;
  }
  while (true) {
    const std::string_view piece = name.substr(0, name.find('/'));
    if (piece.size() == name.size()) return false;
    if (ascii::equalsIgnoreCase(piece, sensitiveFolder)) return true;
    name.remove_prefix(piece.size() + 1);
  }
}
