#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

enum class Operation : std::uint8_t { help, list, call, send, monitor, stats };

// What the command line asks for.
struct Arguments {
  static constexpr std::uint32_t defaultTimeoutMs = 5000;
  static constexpr std::uint32_t maxTimeoutMs = 3600000;

  Operation operation = Operation::help;
  std::vector<std::uint32_t> path;  // call, send: never empty
  std::uint32_t command = 0;        // call, send
  std::string message = "{}";       // call, send: the text; "-" stands for standard input
  std::uint64_t count = 0;          // monitor: frames to show, 0 for all
  std::uint32_t timeoutMs = defaultTimeoutMs;
  bool lineForm = false;
  bool quiet = false;
};

// Reads the arguments behind the program's name into `out`. Options may stand anywhere up to a "--". Returns what is
// wrong, one line for a person without a line end, or nothing.
[[nodiscard]] std::optional<std::string> parseArguments(std::span<const char* const> arguments, Arguments& out);

// What --help prints.
[[nodiscard]] std::string_view helpText();

}  // namespace tool
