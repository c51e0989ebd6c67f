#pragma once

#include <cstddef>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

namespace tnrun {

inline constexpr std::size_t maxPrograms = 64;
inline constexpr std::size_t maxNameLength = 32;
inline constexpr std::size_t maxPathLength = 255;

// One program of the system: the name under which it joins the bus, and the file to run.
struct Program {
  std::string name;
  std::string path;
  // It is left out where the file is not there when the system starts.
  bool optional = false;

  friend bool operator==(const Program&, const Program&) = default;
};

struct ListError {
  unsigned line;            // from 1
  std::string_view reason;  // lives for ever
};

// Reads the list of programs: one per line, name and absolute path separated by blanks, a "-" before the path of one
// that is optional; empty lines and those that begin with "#" are left out. The whole list is refused for one bad line:
// half a system helps nobody.
[[nodiscard]] std::expected<std::vector<Program>, ListError> parseProgramList(std::string_view text);

}  // namespace tnrun
