#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/text.h"

namespace tool {

// The services that this system has, by the names that a person uses for them: one table, from which the command line
// reads and shows names, and from which its completion and docs/tn-names.md are made.

// One command of a handler. Null names: nothing is known of the fields, or there are none.
struct CommandShape {
  std::uint32_t number;
  std::string_view name;
  std::string_view about;
  const tn::FieldNames* in = nullptr;
  const tn::FieldNames* out = nullptr;
};

struct HandlerShape {
  std::string_view program;
  std::uint32_t programId;  // 0: any free one, the broker's list tells
  std::string_view name;    // of the handler; empty: the program itself
  std::uint32_t handler;    // 0 for the program itself
  std::string_view about;
  std::span<const CommandShape> commands;
};

[[nodiscard]] std::span<const HandlerShape> knownHandlers();

// The handler that the path of a message leads to; null when it is none of the known. `program` is the name of the
// program on the bus, which decides where the id does not; it may be empty.
[[nodiscard]] const HandlerShape* handlerAt(std::span<const std::uint32_t> path, std::string_view program);
[[nodiscard]] const HandlerShape* handlerNamed(std::string_view program, std::string_view name);

[[nodiscard]] const CommandShape* commandOf(const HandlerShape* handler, std::uint32_t number);

// A command by its name at this handler (null: any), by one of the names that hold everywhere ("get", "list") or by its
// number. Nothing: it is none of these.
[[nodiscard]] std::optional<std::uint32_t> commandNumbered(const HandlerShape* handler, std::string_view text);
// What a command is called at this handler; its number in hexadecimal when it has no name.
[[nodiscard]] std::string commandText(const HandlerShape* handler, std::uint32_t number);

// Short names that hold everywhere besides those of the slots: "list" for getAll.
struct ShortName {
  std::string_view name;
  std::uint32_t number;
};
[[nodiscard]] std::span<const ShortName> shortNames();

// A whole decimal number or, behind 0x, a hexadecimal one.
[[nodiscard]] std::optional<std::uint64_t> wholeNumber(std::string_view text);
[[nodiscard]] std::optional<std::uint32_t> wholeNumber32(std::string_view text);

// The fixed bus id of a program of this system; 0 for others.
[[nodiscard]] std::uint32_t fixedId(std::string_view program);

// A path as it is typed: program and handler by number or by name, then numbers: 68/1, sermgr/servers, www/2.
struct PathText {
  std::string_view program;         // a name, when the program has no fixed id; then path[0] is still 0
  std::vector<std::uint32_t> path;  // never empty
  const HandlerShape* handler = nullptr;
};
// Nothing: the text is no path, or names a handler that the program does not have.
[[nodiscard]] std::optional<PathText> readPath(std::string_view text);

// What docs/tn-names.md holds.
[[nodiscard]] std::string namesDocument();

}  // namespace tool
