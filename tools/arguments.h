#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

// How what comes from the bus is shown.
enum class Form : std::uint8_t {
  readable,
  lines,  // messages in the line form, one a line
  json,   // plain JSON, one value a line
};

enum class Option : std::uint8_t {
  // These go with every verb.
  help,
  version,
  timeout,
  lines,
  json,
  quiet,
  // These with some.
  count,
  follow,
  program,
  from,
  to,
  path,
  command,
  kind,
  markdown,
};

[[nodiscard]] constexpr std::uint32_t bitOf(Option option) {
  return std::uint32_t{1} << static_cast<unsigned>(option);
}

// What the command line asks for. Views are of the command line.
struct Arguments {
  static constexpr std::uint32_t defaultTimeoutMs = 5000;
  static constexpr std::uint32_t maxTimeoutMs = 3600000;

  std::string_view verb;  // empty: none was given
  std::vector<std::string_view> operands;
  std::uint32_t timeoutMs = defaultTimeoutMs;
  Form form = Form::readable;
  bool quiet = false;
  bool help = false;
  bool version = false;
  bool follow = false;
  bool markdown = false;
  std::uint64_t count = 0;  // 0: not given
  // Empty: not given.
  std::string_view program;
  std::string_view from;
  std::string_view to;
  std::string_view path;
  std::string_view command;
  std::string_view kind;
};

struct OptionShape {
  std::string_view shortName;
  std::string_view longName;
  Option option;
  std::string_view value;  // what its value is called; empty: it takes none
  std::string_view about;
};
[[nodiscard]] std::span<const OptionShape> optionShapes();

struct Verb;

// Reads the arguments behind the program's name into `out`. Options may stand anywhere up to a "--". Returns what is
// wrong, one line for a person without a line end, or nothing. With `help` or `version` set nothing else is checked.
[[nodiscard]] std::optional<std::string> parseArguments(std::span<const char* const> arguments,
                                                        std::span<const Verb> verbs, Arguments& out);

// A text of the caller's in quotes, cut and made harmless for a terminal.
[[nodiscard]] std::string quoted(std::string_view text);

}  // namespace tool
