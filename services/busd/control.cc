#include "services/busd/control.h"

#include <algorithm>

#include "platform/log.h"

namespace busd {

using tn::message;

namespace {

std::string withNumber(std::string_view before, std::uint32_t number, std::string_view behind) {
  std::string text(before);
  text += std::string_view(NumberText(number));
  text += behind;
  return text;
}

std::vector<const Client*> byId(const Directory& directory) {
  std::vector<const Client*> clients;
  clients.reserve(directory.programs().size());
  for (const auto& [id, client] : directory.programs())
    clients.push_back(client);
  std::ranges::sort(clients, {}, &Client::id);
  return clients;
}

message entryOf(const Client& client) {
  message entry;
  entry.insert(field::number, client.id);
  entry.insert(field::name, client.name);
  return entry;
}

message figuresOf(const Client& client) {
  message entry = entryOf(client);
  entry.insert(field::frames, client.sent.frames);
  entry.insert(field::bytes, client.sent.bytes);
  entry.insert(field::bounced, client.bounced);
  entry.insert(field::queued, client.queue.bytes());
  entry.insert(field::framesDelivered, client.delivered.frames);
  entry.insert(field::bytesDelivered, client.delivered.bytes);
  return entry;
}

message answerTo(std::uint32_t operation) {
  message answer;
  answer.insert(field::operation, operation);
  return answer;
}

void insertRefusal(message& answer, std::uint32_t code, std::string_view text) {
  answer.insert(tn::field::errorCode, code);
  answer.insert(tn::field::errorText, text);
}

}  // namespace

std::string cleanName(std::string_view name) {
  std::string clean(name.substr(0, maxNameBytes));
  std::ranges::replace_if(
      clean, [](char c) { return c < 0x20 || c > 0x7e; }, '?');
  return clean.empty() ? "unnamed" : clean;
}

Control::Verdict Control::handle(Client& from, std::span<const std::uint8_t> payload) {
  message request;
  if (!request.unflatten(payload)) return Verdict::broken;
  const std::uint32_t operation = request.get(field::operation).value_or(0);
  if (from.state == Client::State::joining) {
    return operation == tn::control::join ? join(from, request) : Verdict::broken;
  }
  serve(from, operation, request);
  return Verdict::served;
}

Control::Verdict Control::join(Client& from, const message& request) {
  from.name = cleanName(request.get(field::name).value_or(std::string_view()));
  const Outcome refused = claimId(from, request.get(field::number).value_or(0));
  answerOutcome(from, tn::control::join, from.id, refused);
  if (refused) {
    logLine(from.name, " (uid ", NumberText(from.uid), ") was refused: ", refused->text);
    return Verdict::refused;
  }
  from.state = Client::State::joined;
  from.intake.allowMessages();
  list_.reset();
  statistics_.reset();
  logLine(from.name, " joined as ", NumberText(from.id), " (uid ", NumberText(from.uid), ")");
  return Verdict::served;
}

// Numbers from tn::firstFreeId up are the broker's to give: a program that could choose one could take the place of
// another that has just left.
Control::Outcome Control::claimId(Client& from, std::uint32_t wanted) {
  if (wanted >= tn::firstFreeId) return Refusal{refusal::badValue, withNumber("id ", wanted, " cannot be asked for")};
  if (wanted != 0 && !from.trusted) {
    return Refusal{tn::error::notAllowed, withNumber("id ", wanted, " is not allowed for this user")};
  }
  const std::uint32_t id = wanted != 0 ? wanted : directory_.freeId();
  if (!directory_.claim(id, from)) return Refusal{refusal::idTaken, withNumber("id ", id, " is taken")};
  from.id = id;
  return std::nullopt;
}

void Control::serve(Client& from, std::uint32_t operation, const message& request) {
  switch (operation) {
    case tn::control::join:
      return answerOutcome(from, operation, std::nullopt, Refusal{refusal::badValue, "already joined"});
    case tn::control::joinGroup:
      return answerOutcome(from, operation, request.get(field::number), joinGroup(from, request));
    case tn::control::leaveGroup:
      return answerOutcome(from, operation, request.get(field::number), leaveGroup(from, request));
    case tn::control::list:
      if (!list_) list_ = listPrograms();
      return router_.answer(from, list_->flattened());
    case tn::control::statistics:
      if (!statistics_) statistics_ = statistics();
      return router_.answer(from, statistics_->flattened());
    case tn::control::monitor:
      return answerOutcome(from, operation, std::nullopt, monitor(from, request));
    default:
      return answerOutcome(from, operation, std::nullopt, Refusal{tn::error::unknownCommand, "unknown command"});
  }
}

Control::Outcome Control::joinGroup(Client& from, const message& request) {
  const std::uint32_t group = request.get(field::number).value_or(0);
  if (group < tn::firstGroup || group > lastGroup) return Refusal{refusal::badValue, "no such group"};
  if (from.groups.size() >= limits_.groupsPerClient) return Refusal{refusal::tooMany, "too many groups"};
  if (!from.trusted && directory_.members(group).size() >= limits_.membersPerGroup) {
    return Refusal{refusal::tooMany, "the group is full"};
  }
  directory_.join(group, from);
  return std::nullopt;
}

Control::Outcome Control::leaveGroup(Client& from, const message& request) {
  const std::uint32_t group = request.get(field::number).value_or(0);
  if (group < tn::firstGroup || group > lastGroup) return Refusal{refusal::badValue, "no such group"};
  directory_.leave(group, from);
  return std::nullopt;
}

Control::Outcome Control::monitor(Client& from, const message& request) {
  if (!from.trusted) return Refusal{tn::error::notAllowed, "monitoring is not allowed for this user"};
  router_.setMonitoring(from, !request.get(field::off).value_or(false));
  return std::nullopt;
}

void Control::answerOutcome(Client& from, std::uint32_t operation, std::optional<std::uint32_t> number,
                            const Outcome& outcome) {
  message answer = answerTo(operation);
  if (number) answer.insert(field::number, *number);
  if (outcome) insertRefusal(answer, outcome->code, outcome->text);
  router_.answer(from, answer.flattened());
}

message Control::tooManyPrograms() {
  message answer = answerTo(tn::control::join);
  insertRefusal(answer, refusal::tooMany, "too many programs");
  return answer;
}

message Control::listPrograms() const {
  std::vector<message> entries;
  for (const Client* client : byId(directory_))
    entries.push_back(entryOf(*client));
  message answer = answerTo(tn::control::list);
  answer.insert_vector(field::programs, entries);
  return answer;
}

message Control::statistics() const {
  std::vector<message> entries;
  for (const Client* client : byId(directory_))
    entries.push_back(figuresOf(*client));
  const Router::Totals& totals = router_.totals();
  message answer = answerTo(tn::control::statistics);
  answer.insert(field::frames, totals.taken.frames);
  answer.insert(field::bytes, totals.taken.bytes);
  answer.insert(field::bounced, totals.bounced);
  answer.insert(field::dropped, totals.dropped);
  answer.insert(field::unobserved, totals.unobserved);
  answer.insert(field::queued, router_.queuedBytes());
  answer.insert(field::unfinished, unfinishedBytes_);
  answer.insert_vector(field::programs, entries);
  return answer;
}

void Control::endTurn() {
  list_.reset();
  statistics_.reset();
}

}  // namespace busd
