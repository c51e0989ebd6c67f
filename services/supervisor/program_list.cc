#include "services/supervisor/program_list.h"

#include <algorithm>
#include <optional>

namespace tnrun {
namespace {

constexpr std::string_view blanks = " \t\r";

// Takes the next word off the front; empty at the end of the line.
std::string_view takeWord(std::string_view& line) {
  line.remove_prefix(std::min(line.find_first_not_of(blanks), line.size()));
  const std::string_view word = line.substr(0, line.find_first_of(blanks));
  line.remove_prefix(word.size());
  return word;
}

std::string_view takeLine(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  text.remove_prefix(std::min(line.size() + 1, text.size()));
  return line;
}

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool isName(std::string_view word) {
  return word.size() <= maxNameLength && std::all_of(word.begin(), word.end(), isNameCharacter);
}

bool isPath(std::string_view word) {
  return word.size() <= maxPathLength && word.starts_with('/') && word.find('\0') == std::string_view::npos;
}

// What is wrong with a program that is to be added to the list.
std::optional<std::string_view> fault(const std::vector<Program>& list, std::string_view name, std::string_view path,
                                      std::string_view rest) {
  if (!isName(name)) return "a name has small letters, digits, \"-\" and \"_\"";
  if (path.empty()) return "the path is missing";
  if (!isPath(path)) return "a path begins with \"/\"";
  if (!rest.empty()) return "a program takes no arguments";
  if (list.size() == maxPrograms) return "too many programs";
  const auto sameName = [name](const Program& program) { return program.name == name; };
  if (std::any_of(list.begin(), list.end(), sameName)) return "this name was there before";
  return std::nullopt;
}

}  // namespace

std::expected<std::vector<Program>, ListError> parseProgramList(std::string_view text) {
  std::vector<Program> list;
  for (unsigned number = 1; !text.empty(); ++number) {
    std::string_view line = takeLine(text);
    const std::string_view name = takeWord(line);
    if (name.empty() || name.starts_with('#')) continue;
    std::string_view path = takeWord(line);
    const bool optional = path.starts_with('-');
    if (optional) path.remove_prefix(1);
    if (const auto reason = fault(list, name, path, takeWord(line))) return std::unexpected(ListError{number, *reason});
    list.push_back({std::string(name), std::string(path), optional});
  }
  return list;
}

}  // namespace tnrun
