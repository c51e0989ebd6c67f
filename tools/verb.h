#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "tools/arguments.h"

namespace tool {

// What the program ends with; docs/tn.md tells a person.
enum class ExitStatus : std::uint8_t {
  done = 0,
  refused = 1,  // the answer was an error, or what was checked has errors
  usage = 2,
  unreachable = 3,  // no bus, no service, no answer in time, or the output cannot be written
};

class Context;

// One thing that the program does: its name, what may stand behind it, and the function that does it. The function gets
// operands of a permitted number; it tells its errors itself.
struct Verb {
  std::string_view name;
  std::string_view usage;    // behind "tn "
  std::string_view about;    // one line
  std::string_view details;  // more lines, each ended; may be empty
  std::size_t fewest;
  std::size_t most;
  std::uint32_t options;  // bits of what it takes besides the options of every verb
  bool isHidden;          // is not shown to people
  ExitStatus (*run)(Context& context);
};

inline constexpr std::size_t anyNumber = SIZE_MAX;

// All of them, in the order in which help shows them.
[[nodiscard]] std::span<const Verb> allVerbs();
[[nodiscard]] const Verb* findVerb(std::span<const Verb> verbs, std::string_view name);  // null: there is none
[[nodiscard]] bool takesOption(const Verb& verb, Option option);

}  // namespace tool
