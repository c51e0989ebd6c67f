// list, stats, call and send: what is told by the broker, and single messages.

#include "tools/render.h"
#include "tools/request.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

using tn::FieldName;
using tn::FieldNames;
using tn::FieldType;

constexpr std::uint32_t key(FieldType type, std::uint32_t id) {
  return static_cast<std::uint32_t>(type) | id;
}

constexpr FieldName programFields[] = {
    {key(FieldType::u32, 2), "id"},        {key(FieldType::string, 3), "name"},
    {key(FieldType::u64, 5), "sent"},      {key(FieldType::u64, 6), "sent-bytes"},
    {key(FieldType::u64, 7), "bounced"},   {key(FieldType::u64, 10), "queued-bytes"},
    {key(FieldType::u64, 12), "received"}, {key(FieldType::u64, 13), "received-bytes"},
};
constexpr FieldNames programNames{programFields};
constexpr FieldName brokerFields[] = {
    {key(FieldType::u32, 1), "operation"},
    {key(FieldType::messageArray, 4), "programs", &programNames},
    {key(FieldType::u64, 5), "frames"},
    {key(FieldType::u64, 6), "bytes"},
    {key(FieldType::u64, 7), "bounced"},
    {key(FieldType::u64, 8), "dropped"},
    {key(FieldType::u64, 9), "unobserved"},
    {key(FieldType::u64, 10), "queued-bytes"},
    {key(FieldType::u64, 11), "unfinished-bytes"},
};

struct Request {
  tn::message msg;
  const CommandShape* command = nullptr;
  Bus* bus = nullptr;
};

// Reads the operands of call and send and joins the bus. Anything but done has been told.
ExitStatus prepare(Context& context, bool isCall, Request& request) {
  auto path = readPath(context.operand(0));
  if (!path) return context.failUsage(quoted(context.operand(0)) + " is no path such as 68/1 or sermgr/servers");
  if (isCall && path->path[0] >= tn::firstGroup) {
    return context.failUsage(quoted(context.operand(0)) + " is a group: it can be sent to, not called");
  }
  const auto command = commandNumbered(path->handler, context.operand(1));
  if (!command) {
    return context.failUsage(quoted(context.operand(1)) + " is neither a command's number nor one of its names");
  }
  request.command = commandOf(path->handler, *command);
  const auto words = std::span(context.arguments().operands).subspan(2);
  const tn::FieldNames* const names = request.command == nullptr ? nullptr : request.command->in;
  if (const auto error = readMessage(words, names, request.msg)) return context.failUsage(*error);
  // Addressed before the bus is asked for, so that what is wrong with the message is told first.
  if (const auto error = address(request.msg, path->path, *command)) return context.failUsage(*error);
  request.bus = context.bus();
  if (request.bus == nullptr) return ExitStatus::unreachable;
  tn::message error;
  if (!context.resolve(*path, error)) return context.fail(error);
  request.msg.insert_vector(tn::field::destination, path->path);
  return ExitStatus::done;
}

}  // namespace

const tn::FieldNames brokerNames{brokerFields};

ExitStatus list(Context& context) {
  Bus* const bus = context.bus();
  if (bus == nullptr) return ExitStatus::unreachable;
  const tn::message answer = bus->control(tn::control::list);
  if (tn::isError(answer)) return context.fail(answer);
  Output& out = context.output();
  if (out.isReadable()) {
    out.print(renderList(answer, out.width()));
    return ExitStatus::done;
  }
  for (const tn::message& program : messagesOf(answer, tn::message_array_id(4)))
    out.show(program, &programNames);
  return ExitStatus::done;
}

ExitStatus stats(Context& context) {
  Bus* const bus = context.bus();
  if (bus == nullptr) return ExitStatus::unreachable;
  const tn::message answer = bus->control(tn::control::statistics);
  if (tn::isError(answer)) return context.fail(answer);
  Output& out = context.output();
  if (out.isReadable()) {
    out.print(renderStatistics(answer, out.width(), out.colours()));
  } else {
    out.show(answer, &brokerNames);
  }
  return ExitStatus::done;
}

ExitStatus call(Context& context) {
  Request request;
  const ExitStatus ready = prepare(context, true, request);
  if (ready != ExitStatus::done) return ready;
  const tn::message answer = request.bus->askMessage(std::move(request.msg));
  if (tn::isError(answer)) return context.fail(answer);
  context.output().show(withoutCarriage(answer), request.command == nullptr ? nullptr : request.command->out);
  return ExitStatus::done;
}

ExitStatus send(Context& context) {
  Request request;
  const ExitStatus ready = prepare(context, false, request);
  if (ready != ExitStatus::done) return ready;
  const tn::message answer = request.bus->deliver(std::move(request.msg));
  return tn::isError(answer) ? context.fail(answer) : ExitStatus::done;
}

}  // namespace tool::verbs
