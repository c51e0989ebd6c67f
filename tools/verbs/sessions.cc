// sessions: who is logged in through the tunnel.

#include "tools/table.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::message;

constexpr tn::message_array_id sessionList{1};
constexpr tn::u32_id id{1};
constexpr tn::string_id user{2};
constexpr tn::addr6_id address{3};
constexpr tn::u64_id age{4};
constexpr tn::u64_id idle{5};

ExitStatus listSessions(Context& context, const HandlerShape& handler) {
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  const message answer = context.ask(handler, tn::command::getAll);
  if (tn::isError(answer)) return context.fail(answer);
  Output& out = context.output();
  if (!out.isReadable()) {
    const tn::FieldNames* const names = commandOf(&handler, tn::command::getAll)->out->fields[0].below;
    for (const message& session : messagesOf(answer, sessionList))
      out.show(session, names);
    return ExitStatus::done;
  }
  using enum Table::Column;
  Table table{{"id", number}, {"user", cut}, {"address", cut}, {"logged in", text}, {"idle", text}};
  for (const message& session : messagesOf(answer, sessionList)) {
    table.add({decimal(numberOf(session, id)), textOf(session, user),
               addressText(session.get(address).value_or(tn::Addr6{})), durationText(numberOf(session, age)),
               durationText(numberOf(session, idle))});
  }
  out.print(table.isEmpty() ? "nobody is logged in\n" : table.text(out.width(), out.colours()));
  return ExitStatus::done;
}

ExitStatus endSession(Context& context, const HandlerShape& handler) {
  const auto number = wholeNumber32(context.operand(1));
  if (!number) return context.failUsage(quoted(context.operand(1)) + " is no session's id");
  if (context.bus() == nullptr) return ExitStatus::unreachable;
  message request;
  request.insert(tn::field::objectNumber, *number);
  const message answer = context.ask(handler, tn::command::removeObj, request);
  return tn::isError(answer) ? context.fail(answer) : ExitStatus::done;
}

}  // namespace

ExitStatus sessions(Context& context) {
  const HandlerShape& handler = *handlerNamed("www", "sessions");
  const std::size_t count = context.operandCount();
  if (count == 0 || (count == 1 && context.operand(0) == "list")) return listSessions(context, handler);
  if (count == 2 && context.operand(0) == "end") return endSession(context, handler);
  return context.failUsage("usage: tn " + std::string(findVerb(allVerbs(), "sessions")->usage));
}

}  // namespace tool::verbs
