// users: users and groups.

#include <algorithm>
#include <unistd.h>

#include "platform/log.h"
#include "platform/policies.h"
#include "tools/fields.h"
#include "tools/password.h"
#include "tools/request.h"
#include "tools/table.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

constexpr tn::string_id name{1};
constexpr tn::string_id password{3};
constexpr tn::string_id fullName{0x11};
constexpr tn::string_id group{0x12};
constexpr tn::bool_id hidden{0x1c};
constexpr tn::u32_id policies{0xb};
constexpr tn::string_id skin{0x18};
constexpr tn::u32_id userCount{2};
constexpr tn::message_array_id entries{1};
constexpr std::uint32_t setPassword = 0x20001;

struct PolicyName {
  std::uint32_t bit;
  std::string_view name;
};
constexpr PolicyName policyNames[] = {
    {tn::policies::read, "read"},
    {tn::policies::readFiles, "read-files"},
    {tn::policies::writeFiles, "write-files"},
    {tn::policies::changeSettings, "change-settings"},
    {tn::policies::manageUsers, "manage-users"},
    {tn::policies::sensitiveFiles, "sensitive-files"},
};

std::string policiesText(std::uint32_t word) {
  std::string out;
  for (const PolicyName& policy : policyNames) {
    if ((word & policy.bit) == 0) continue;
    out.append(out.empty() ? "" : ", ").append(policy.name);
    word &= ~policy.bit;
  }
  if (word != 0) out.append(out.empty() ? "" : ", ").append("0x").append(NumberText(word, 16));
  return out.empty() ? "none" : out;
}

// A number, or names with commas between them.
std::optional<std::uint32_t> readPolicies(std::string_view text) {
  std::uint32_t word = 0;
  if (text == "none") return word;
  for (;;) {
    const std::string_view one = text.substr(0, text.find(','));
    const auto found = std::ranges::find(policyNames, one, &PolicyName::name);
    const auto bits = found != std::end(policyNames) ? found->bit : wholeNumber32(one);
    if (!bits) return std::nullopt;
    word |= *bits;
    if (one.size() == text.size()) return word;
    text.remove_prefix(one.size() + 1);
  }
}

// The words behind the name of a user or group.
std::optional<std::string> readWords(Context& context, std::size_t first, const tn::FieldNames* names, message& out) {
  std::vector<std::string> texts;
  for (const std::string_view word : std::span(context.arguments().operands).subspan(first)) {
    constexpr std::string_view policiesKey = "policies=";
    if (!word.starts_with(policiesKey)) {
      texts.emplace_back(word);
      continue;
    }
    const auto bits = readPolicies(word.substr(policiesKey.size()));
    if (!bits) return "policies needs names such as read,read-files, not " + quoted(word.substr(policiesKey.size()));
    texts.push_back(std::string(policiesKey) + decimal(*bits));
  }
  const std::vector<std::string_view> words(texts.begin(), texts.end());
  return readFields(words, names, out);
}

ExitStatus showAll(Context& context, const HandlerShape& handler, Table&& table,
                   std::vector<std::string> (*row)(const message&)) {
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  const message answer = context.ask(handler, tn::command::getAll);
  if (tn::isError(answer)) return context.fail(answer);
  Output& out = context.output();
  const tn::FieldNames* const names = commandOf(&handler, tn::command::get)->out;
  for (const message& entry : messagesOf(answer, entries)) {
    table.add(row(entry));
    if (!out.isReadable()) out.show(entry, names);
  }
  if (out.isReadable()) out.print(table.text(out.width(), out.colours()));
  return ExitStatus::done;
}

ExitStatus listUsers(Context& context, const HandlerShape& handler) {
  using enum Table::Column;
  Table table{{"name", cut}, {"full name", cut}, {"group", cut}, {"state", text}, {"start page", text}};
  return showAll(context, handler, std::move(table), [](const message& user) -> std::vector<std::string> {
    return {textOf(user, name), textOf(user, fullName), textOf(user, group),
            flagOf(user, tn::field::disabled) ? "disabled" : "enabled", flagOf(user, hidden) ? "hidden" : "shown"};
  });
}

ExitStatus listGroups(Context& context, const HandlerShape& handler) {
  using enum Table::Column;
  Table table{{"name", cut}, {"users", number}, {"skin", cut}, {"policies", text}};
  return showAll(context, handler, std::move(table), [](const message& entry) -> std::vector<std::string> {
    return {textOf(entry, name), decimal(numberOf(entry, userCount)), textOf(entry, skin),
            policiesText(entry.get(policies).value_or(0))};
  });
}

// Sends a command about the user or group that the operand at `named` names, with the fields that follow it.
ExitStatus change(Context& context, const HandlerShape& handler, std::uint32_t command, std::size_t named,
                  bool wantsPassword) {
  message request;
  const tn::FieldNames* const names = commandOf(&handler, tn::command::addObj)->in;
  if (const auto error = readWords(context, named + 1, names, request)) return context.failUsage(*error);
  if (command == tn::command::setObj && request.has(name)) {
    return context.failUsage("a new name needs the number: tn call " + std::string(handler.program) + "/" +
                             std::string(handler.name) + " setObj number=N name=NAME");
  }
  if (!request.insert(name, context.operand(named))) return context.failUsage("the name is too long");
  if (wantsPassword && !request.has(password)) {
    std::string error;
    const auto given = askPassword(STDIN_FILENO, error);
    if (!given) return context.failUsage(error);
    if (!request.insert(password, *given)) return context.failUsage("the password is too long");
  }
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  const message answer = context.ask(handler, command, request);
  return tn::isError(answer) ? context.fail(answer) : ExitStatus::done;
}

ExitStatus failUsage(Context& context) {
  return context.failUsage("usage: tn " + std::string(findVerb(allVerbs(), "users")->usage));
}

ExitStatus groups(Context& context) {
  const HandlerShape& handler = *handlerNamed("userd", "groups");
  const std::size_t count = context.operandCount();
  if (count == 1 || (count == 2 && context.operand(1) == "list")) return listGroups(context, handler);
  const std::string_view what = context.operand(1);
  if (what == "add" && count > 2) return change(context, handler, tn::command::addObj, 2, false);
  if (what == "set" && count > 3) return change(context, handler, tn::command::setObj, 2, false);
  if (what == "remove" && count == 3) return change(context, handler, tn::command::removeObj, 2, false);
  return failUsage(context);
}

}  // namespace

ExitStatus users(Context& context) {
  const HandlerShape& handler = *handlerNamed("userd", "users");
  const std::size_t count = context.operandCount();
  if (count == 0 || (count == 1 && context.operand(0) == "list")) return listUsers(context, handler);
  const std::string_view what = context.operand(0);
  if (what == "groups") return groups(context);
  if (what == "add" && count > 1) return change(context, handler, tn::command::addObj, 1, true);
  if (what == "set" && count > 2) return change(context, handler, tn::command::setObj, 1, false);
  if (what == "remove" && count == 2) return change(context, handler, tn::command::removeObj, 1, false);
  if (what == "password" && count == 2) return change(context, handler, setPassword, 1, true);
  return failUsage(context);
}

}  // namespace tool::verbs
