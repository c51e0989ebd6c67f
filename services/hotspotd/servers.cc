#include "services/hotspotd/servers.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"
#include "services/common/return_address.h"
#include "services/hotspotd/error_codes.h"

namespace hotspot {
namespace {

constexpr tn::message_array_id allRecords{1};
constexpr std::uint32_t serverHandler = 1;

// The record of that name, or the end.
auto findRecord(auto& servers, std::string_view name) {
  return std::ranges::find_if(servers, [name](const tn::message& record) { return nameOf(record) == name; });
}

tn::message addCommand(const tn::message& record) {
  tn::message msg = record;
  msg.insert(tn::field::command, tn::command::addObj);
  return msg;
}

tn::message removeCommand(std::string_view name) {
  tn::message msg;
  msg.insert(field::name, name);
  msg.insert(tn::field::command, tn::command::removeObj);
  return msg;
}

// One command on its way to several programs, kept alive by the callbacks of their answers.
struct Round {
  std::size_t awaited = 0;
  std::optional<std::string> outcome;
  std::function<void(const std::optional<std::string>&)> done;

  void onAnswer(const tn::message& answer) {
    if (!outcome && tn::isError(answer)) outcome = tn::getError(answer);
    if (--awaited == 0) done(outcome);
  }
};

}  // namespace

Servers::Servers(Keeper& keeper, tn::Looper& looper)
    : keeper_(keeper), watch_(looper, [this](std::uint32_t program) { give(program); }) {}

void Servers::handleCmd(tn::message& msg) {
  switch (msg.get(tn::field::command).value_or(0)) {
    case tn::command::set:
    case tn::command::addObj:
    case tn::command::removeObj:
      return change(msg);
    default:
      return Handler::handleCmd(msg);
  }
}

tn::message Servers::cmdGetAll(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return tn::errorMsg(tn::error::notAllowed, "not allowed");
  std::vector<tn::message> records = keeper_.state().servers;
  for (tn::message& record : records) {
    const auto found = conditions_.find(nameOf(record));
    const Condition condition = found == conditions_.end() ? Condition() : found->second;
    record.insert(field::lastError, condition.lastError);
    record.insert(field::applied, condition.applied);
  }
  tn::message answer;
  answer.insert_vector(allRecords, records);
  return answer;
}

void Servers::change(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings))
    return replyError(msg, tn::error::notAllowed, "not allowed");
  if (changes_ == maxChanges) return replyError(msg, error::badRequest, "too many changes at once");
  const std::uint32_t code = msg.get(tn::field::command).value_or(0);
  const auto refusal = code == tn::command::removeObj ? remove(msg) : keep(msg, code == tn::command::addObj);
  if (refusal) return replyError(msg, refusal->code, refusal->text);
  tell(msg, std::string(nameOf(msg)));
}

// A server program decides once, when it first hears of a server, whether that speaks TLS.
std::optional<Servers::Refusal> Servers::keep(const tn::message& msg, bool whole) {
  State next = keeper_.state();
  const auto place = findRecord(next.servers, nameOf(msg));
  const bool fresh = place == next.servers.end();
  if (fresh && !whole) return Refusal{tn::error::noSuchService, "no such service"};
  if (fresh && next.servers.size() == maxServers) return Refusal{error::badRequest, "too many servers"};
  if (const Problem problem = checkFields(msg)) return Refusal{error::badRequest, *problem};
  tn::message record = recordFrom(fresh || whole ? tn::message() : *place, msg);
  if (const Problem problem = checkRecord(record)) return Refusal{error::badRequest, *problem};
  if (fresh) {
    next.servers.push_back(std::move(record));
    std::ranges::sort(next.servers, {}, nameOf);
  } else if (place->has(field::tlsRef) != record.has(field::tlsRef)) {
    return Refusal{error::badRequest, "a server keeps to TLS (u32 5), or goes without it, as it was added"};
  } else {
    *place = std::move(record);
  }
  if (const Problem problem = keeper_.change(std::move(next))) return Refusal{error::notStored, *problem};
  conditions_[std::string(nameOf(msg))] = {{}, false, ++lastRevision_};
  return std::nullopt;
}

std::optional<Servers::Refusal> Servers::remove(const tn::message& msg) {
  State next = keeper_.state();
  const auto place = findRecord(next.servers, nameOf(msg));
  if (place == next.servers.end()) return Refusal{tn::error::noSuchService, "no such service"};
  next.servers.erase(place);
  if (const Problem problem = keeper_.change(std::move(next))) return Refusal{error::notStored, *problem};
  if (const auto found = conditions_.find(nameOf(msg)); found != conditions_.end()) conditions_.erase(found);
  return std::nullopt;
}

// Tells the server programs of a record as it is now, or that it is gone, and whoever changed it how they took that. A
// program that has not been given its records yet gets this one with the others.
void Servers::tell(const tn::message& request, const std::string& name) {
  const auto record = findRecord(keeper_.state().servers, name);
  const bool gone = record == keeper_.state().servers.end();
  const std::uint64_t revision = gone ? 0 : conditions_[name].revision;
  logLine("server ", name, gone ? ": removed" : ": kept");
  const std::vector<std::uint32_t> programs = watch_.served();
  // A server that is not there does not listen, which is all that a removal is for.
  if (programs.empty()) {
    tn::message answer;
    if (!gone) answer.insert(field::lastError, "no server is running");
    return reply(request, std::move(answer));
  }
  ++changes_;
  deliver(programs, gone ? removeCommand(name) : addCommand(*record),
          [this, name, revision, address = service::returnAddress(request)](const Outcome& outcome) {
            --changes_;
            settle(name, revision, outcome);
            tn::message answer;
            if (outcome) answer.insert(field::lastError, *outcome);
            reply(address, std::move(answer));
          });
}

void Servers::give(std::uint32_t program) {
  for (const tn::message& record : keeper_.state().servers) {
    const std::string name(nameOf(record));
    const std::uint64_t revision = conditions_[name].revision;
    deliver(std::array{program}, addCommand(record),
            [this, name, revision](const Outcome& outcome) { settle(name, revision, outcome); });
  }
}

void Servers::deliver(std::span<const std::uint32_t> programs, const tn::message& command, Done done) {
  const auto round = std::make_shared<Round>();
  round->awaited = programs.size();
  round->done = std::move(done);
  for (const std::uint32_t program : programs) {
    tn::message copy = command;
    copy.insert_vector(tn::field::destination, std::array{program, serverHandler});
    postMessage(
        std::move(copy), [round](const tn::message& answer) { round->onAnswer(answer); }, answerMs);
  }
}

void Servers::settle(const std::string& name, std::uint64_t revision, const Outcome& outcome) {
  const auto found = conditions_.find(name);
  if (found == conditions_.end() || found->second.revision != revision) return;
  found->second.applied = !outcome;
  found->second.lastError = outcome.value_or(std::string());
  if (outcome) logLine("server ", name, ": not applied: ", *outcome);
}

}  // namespace hotspot
