#include "tools/names.h"

#include <algorithm>
#include <charconv>

#include "platform/bus/text_parts.h"
#include "platform/log.h"

namespace tool {

namespace {

std::string hexadecimal(std::uint32_t value) {
  return std::string("0x").append(NumberText(value, 16));
}

std::string keyText(std::uint32_t key) {
  std::string text(1, tn::letterOfType(tn::FieldType{key & tn::typeMask}));
  return text.append(NumberText(key & tn::idMask, 16));
}

// One of the fields, its name and those below it: "u2 port", "M6 allowed (u1 ipv4, u2 mask)".
void appendFields(std::string& out, const tn::FieldNames& names) {
  std::string_view separator;
  for (const tn::FieldName& field : names.fields) {
    out.append(separator).append("`").append(keyText(field.key)).append("` ").append(field.name);
    if (field.below != nullptr) {
      out += " (";
      appendFields(out, *field.below);
      out += ')';
    }
    separator = ", ";
  }
  for (std::size_t object = 0; object < names.byObject.size(); ++object) {
    if (names.byObject[object] == nullptr) continue;
    out.append("; object ").append(NumberText(object)).append(": ");
    appendFields(out, *names.byObject[object]);
  }
}

std::string fieldsText(const tn::FieldNames* names) {
  std::string text;
  if (names != nullptr) appendFields(text, *names);
  return text;
}

}  // namespace

const HandlerShape* handlerAt(std::span<const std::uint32_t> path, std::string_view program) {
  if (path.empty()) return nullptr;
  const std::uint32_t handler = path.size() > 1 ? path[1] : 0;
  for (const HandlerShape& shape : knownHandlers()) {
    const bool isProgram = shape.programId != 0 ? shape.programId == path[0] : shape.program == program;
    if (isProgram && shape.handler == handler) return &shape;
  }
  return nullptr;
}

const HandlerShape* handlerNamed(std::string_view program, std::string_view name) {
  for (const HandlerShape& shape : knownHandlers()) {
    if (shape.program == program && shape.name == name) return &shape;
  }
  return nullptr;
}

const CommandShape* commandOf(const HandlerShape* handler, std::uint32_t number) {
  if (handler == nullptr) return nullptr;
  const auto found = std::ranges::find(handler->commands, number, &CommandShape::number);
  return found == handler->commands.end() ? nullptr : &*found;
}

std::optional<std::uint32_t> commandNumbered(const HandlerShape* handler, std::string_view text) {
  if (const auto number = wholeNumber32(text)) return number;
  if (handler != nullptr) {
    for (const CommandShape& command : handler->commands) {
      if (command.name == text) return command.number;
    }
  }
  for (const ShortName& entry : shortNames()) {
    if (entry.name == text) return entry.number;
  }
  return tn::commandNumber(text);
}

std::string commandText(const HandlerShape* handler, std::uint32_t number) {
  const CommandShape* const command = commandOf(handler, number);
  const std::string_view name = command != nullptr ? command->name : tn::commandName(number);
  return name.empty() ? hexadecimal(number) : std::string(name);
}

std::optional<std::uint64_t> wholeNumber(std::string_view text) {
  const bool isHex = text.starts_with("0x") || text.starts_with("0X");
  if (isHex) text.remove_prefix(2);
  std::uint64_t value = 0;
  const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), value, isHex ? 16 : 10);
  if (code != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::optional<std::uint32_t> wholeNumber32(std::string_view text) {
  const auto value = wholeNumber(text);
  if (!value || *value > 0xffffffff) return std::nullopt;
  return static_cast<std::uint32_t>(*value);
}

std::uint32_t fixedId(std::string_view program) {
  const auto found = std::ranges::find(knownHandlers(), program, &HandlerShape::program);
  return found == knownHandlers().end() ? 0 : found->programId;
}

namespace {

constexpr std::size_t longestProgramName = 64;  // of what the broker lists

// The first element: a number, or a name that a program may have.
bool readProgram(std::string_view text, PathText& out) {
  if (const auto number = wholeNumber32(text)) {
    out.path.push_back(*number);
    return true;
  }
  if (text.empty() || text.size() > longestProgramName || (text[0] >= '0' && text[0] <= '9')) return false;
  out.path.push_back(fixedId(text));
  if (out.path[0] == 0) out.program = text;
  return true;
}

bool readElement(std::string_view text, std::string_view program, PathText& out) {
  if (const auto number = wholeNumber32(text)) {
    out.path.push_back(*number);
    return true;
  }
  if (out.path.size() != 1) return false;
  const std::uint32_t id = out.path[0];
  for (const HandlerShape& shape : knownHandlers()) {
    const bool isProgram = id != 0 && shape.programId == id;
    if ((!isProgram && shape.program != program) || shape.name != text) continue;
    out.path.push_back(shape.handler);
    return true;
  }
  return false;
}

}  // namespace

std::optional<PathText> readPath(std::string_view text) {
  PathText result;
  const std::string_view program = text.substr(0, text.find('/'));
  if (!readProgram(program, result)) return std::nullopt;
  text.remove_prefix(program.size());
  while (!text.empty()) {
    text.remove_prefix(1);
    const std::string_view element = text.substr(0, text.find('/'));
    if (!readElement(element, program, result)) return std::nullopt;
    text.remove_prefix(element.size());
  }
  result.handler = handlerAt(result.path, result.program);
  return result;
}

std::string namesDocument() {
  std::string out =
      "# Names of services, commands and fields\n\n"
      "What `tn` knows by name ([tn.md](tn.md)). The numbers are hexadecimal; what the fields mean is told in\n"
      "[services.md](services.md), [server-record.md](server-record.md), [tls.md](tls.md) and "
      "[hotspot.md](hotspot.md). "
      "This page is\nwritten by `tn names --markdown`.\n";
  for (const HandlerShape& shape : knownHandlers()) {
    out.append("\n## ").append(shape.program).append("/").append(shape.name).append("\n\n");
    out.append("`").append(shape.programId == 0 ? shape.program : std::string_view(NumberText(shape.programId)));
    out.append("/").append(NumberText(shape.handler)).append("`: ").append(shape.about).append("\n\n");
    out += "| Command | | Takes | Answers |\n|---|---|---|---|\n";
    for (const CommandShape& command : shape.commands) {
      out.append("| `").append(command.name).append("` ").append(hexadecimal(command.number)).append(" | ");
      out.append(command.about).append(" | ").append(fieldsText(command.in)).append(" | ");
      out.append(fieldsText(command.out)).append(" |\n");
    }
  }
  out += "\n## Everywhere\n\n";
  for (const ShortName& entry : shortNames()) {
    out.append("- `").append(entry.name).append("` is `").append(tn::commandName(entry.number)).append("`\n");
  }
  return out;
}

}  // namespace tool
