#include "tools/forwarder/request_head.h"

#include <algorithm>
#include <array>

namespace forwarder {
namespace {

constexpr std::string_view closeLine = "Connection: close\r\n";
constexpr std::array<std::string_view, 3> droppedNames{"connection", "keep-alive", "proxy-connection"};

char lowerCase(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The name of a header line, whatever blanks stand around it: a server that takes them must not see it either.
std::string nameOf(std::string_view line) {
  std::string name;
  for (const char c : line.substr(0, line.find(':'))) {
    if (c != ' ' && c != '\t') name.push_back(lowerCase(c));
  }
  return name;
}

// The line at the front, its end included.
std::string_view takeLine(std::string_view& rest) {
  const std::string_view line = rest.substr(0, std::min(rest.find('\n'), rest.size() - 1) + 1);
  rest.remove_prefix(line.size());
  return line;
}

bool isEmptyLine(std::string_view line) {
  return line == "\n" || line == "\r\n";
}

// Method and target alone: such a request has no header lines.
bool hasNoVersion(std::string_view line) {
  while (line.ends_with('\n') || line.ends_with('\r'))
    line.remove_suffix(1);
  return std::ranges::count(line, ' ') < 2;
}

}  // namespace

std::optional<std::size_t> headLength(std::string_view bytes) {
  std::string_view rest = bytes;
  bool first = true;
  while (rest.find('\n') != std::string_view::npos) {
    const std::string_view line = takeLine(rest);
    if (isEmptyLine(line) || (first && hasNoVersion(line))) return bytes.size() - rest.size();
    first = false;
  }
  return std::nullopt;
}

std::string closingHead(std::string_view head) {
  std::string out(takeLine(head));
  if (head.empty()) return out;
  bool dropping = false;
  while (!head.empty()) {
    const std::string_view line = takeLine(head);
    if (isEmptyLine(line)) {
      out.append(closeLine).append(line);
      break;
    }
    // A line that begins with a blank goes on with the one before it.
    const bool goesOn = line.starts_with(' ') || line.starts_with('\t');
    if (!goesOn) dropping = std::ranges::find(droppedNames, nameOf(line)) != droppedNames.end();
    if (!dropping) out.append(line);
  }
  return out;
}

}  // namespace forwarder
