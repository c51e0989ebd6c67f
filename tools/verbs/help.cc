// help and names: what the program tells about itself.

#include "tools/table.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

constexpr std::string_view rest = R"(
PATH     program and handler, by number or name: 68/1, sermgr/servers, www/2
COMMAND  a number (0x30003) or a name (getAll, list); tn names PATH tells them
MESSAGE  fields in the line form, {u1:5,s2:'x'}; - reads it from standard input

Exit status: 0 done; 1 the answer was an error, or a document has errors; 2 usage
is wrong; 3 the bus or the service cannot be reached, or no answer came in time.
)";

void addOption(Table& table, const OptionShape& option) {
  std::string name = option.shortName.empty() ? "    " : std::string(option.shortName) + ", ";
  name += option.longName;
  if (!option.value.empty()) name.append(" ").append(option.value);
  table.add({"", std::move(name), std::string(option.about)});
}

// Two columns behind an indentation; without headings, so that nothing is turned into blocks.
Table pairs() {
  return {{"", Table::Column::text}, {"", Table::Column::text}, {"", Table::Column::text}};
}

std::string overview() {
  std::string out = "tn - the bus of the system from a command line\n\n";
  Table verbs = pairs();
  for (const Verb& verb : allVerbs()) {
    if (!verb.isHidden) verbs.add({"", "tn " + std::string(verb.name), std::string(verb.about)});
  }
  out += verbs.text(0, false) + "\ntn help COMMAND tells more about one. With every command:\n\n";
  Table options = pairs();
  for (const OptionShape& option : optionShapes()) {
    if (takesOption(Verb{}, option.option)) addOption(options, option);
  }
  return out + options.text(0, false) + std::string(rest);
}

std::string helpAbout(const Verb& verb) {
  std::string out = "usage: tn " + std::string(verb.usage) + "\n\n" + std::string(verb.about) + "\n";
  if (!verb.details.empty()) out += '\n' + std::string(verb.details);
  Table options = pairs();
  for (const OptionShape& option : optionShapes()) {
    if (takesOption(verb, option.option)) addOption(options, option);
  }
  return out + '\n' + options.text(0, false);
}

void appendNames(std::string& out, const tn::FieldNames& names) {
  std::string_view separator;
  for (const tn::FieldName& field : names.fields) {
    out.append(separator).append(field.name);
    separator = " ";
    if (field.below == nullptr) continue;
    out += '(';
    appendNames(out, *field.below);
    out += ')';
  }
  for (const tn::FieldNames* object : names.byObject) {
    if (object == nullptr) continue;
    out += " | ";
    appendNames(out, *object);
  }
}

void appendFields(std::string& out, std::string_view what, const tn::FieldNames* names) {
  if (names == nullptr) return;
  out.append("    ").append(what);
  appendNames(out, *names);
  out += '\n';
}

std::string aboutHandler(const HandlerShape& handler) {
  std::string out = std::string(handler.program) + '/' + std::string(handler.name) + "  ";
  if (handler.programId != 0) out += decimal(handler.programId) + '/' + decimal(handler.handler) + "  ";
  out += std::string(handler.about) + '\n';
  for (const CommandShape& command : handler.commands) {
    out += "  " + std::string(command.name) + "  " + std::string(command.about) + '\n';
    appendFields(out, "takes   ", command.in);
    appendFields(out, "answers ", command.out);
  }
  return out;
}

}  // namespace

ExitStatus help(Context& context) {
  if (context.operandCount() == 0) {
    context.output().print(overview());
    return ExitStatus::done;
  }
  const Verb* const verb = findVerb(allVerbs(), context.operand(0));
  if (verb == nullptr) return context.failUsage("unknown command " + quoted(context.operand(0)));
  context.output().print(helpAbout(*verb));
  return ExitStatus::done;
}

ExitStatus names(Context& context) {
  Output& out = context.output();
  if (context.arguments().markdown) {
    out.print(namesDocument());
    return ExitStatus::done;
  }
  std::optional<PathText> path;
  if (context.operandCount() != 0) {
    path = readPath(context.operand(0));
    if (!path) return context.failUsage(quoted(context.operand(0)) + " is no path such as 68/1 or sermgr/servers");
  }
  bool isFirst = true;
  for (const HandlerShape& handler : knownHandlers()) {
    const bool isProgram =
        path && (path->path[0] != 0 ? path->path[0] == handler.programId : path->program == handler.program);
    const bool isHandler = isProgram && (path->path.size() == 1 || path->handler == &handler);
    if (path && !isHandler) continue;
    out.print((isFirst ? "" : "\n") + aboutHandler(handler));
    isFirst = false;
  }
  if (!isFirst) return ExitStatus::done;
  return context.fail(ExitStatus::refused, "nothing is known about " + quoted(context.operand(0)));
}

}  // namespace tool::verbs
