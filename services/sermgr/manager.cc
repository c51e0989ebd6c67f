#include "services/sermgr/manager.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"
#include "services/common/return_address.h"

namespace sermgr {
namespace {

constexpr tn::message_array_id allRecords{1};

// Copies the name: it must survive the message.
std::string nameOf(const tn::message& msg) {
  return std::string(msg.get(field::name).value_or(std::string_view()));
}

// Rounded up, and one while it is about to end.
std::uint32_t secondsUntil(tn::Clock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::seconds>(end - tn::getRunner()->timers().now());
  return static_cast<std::uint32_t>(std::max<std::int64_t>(left.count(), 1));
}

// What the log says of a record.
void logRecord(const Record& record, std::string_view how) {
  logLine("record ", record.name, ": enabled=", boolText(record.enabled), " port=", NumberText(record.port), how);
}

tn::message notAllowed() {
  return tn::errorMsg(tn::error::notAllowed, "not allowed");
}

}  // namespace

std::vector<Record> defaultRecords() {
  constexpr std::uint32_t loopbackNetwork = 0x7F000000;
  Prefix loopback;
  loopback.address[15] = 1;
  loopback.length = 128;
  Record http;
  http.name = "http";
  http.port = 8080;
  http.allowed = {Prefix::ofIpv4(loopbackNetwork, 8), loopback};
  Record https = http;
  https.name = "https";
  https.port = 8443;
  https.tlsRef = 1;
  return {http, https};
}

Manager::Manager(Store& store) : store_(store), delivery_(*this), retry_([this] { openStoreAgain(); }) {}

void Manager::start() {
  std::vector<Record> records;
  if (!openStore(records)) records = defaultRecords();
  take(std::move(records));
}

// Whether the store is open, and these are its records. If not, it is tried again later.
bool Manager::openStore(std::vector<Record>& records) {
  Store::Failure failure = store_.open(defaultRecords());
  if (!failure) failure = store_.load(records);
  if (!failure) return true;
  // A change must not be laid over records that were not read.
  store_.close();
  if (failure != lastFailure_) {
    logLine("records: ", *failure, "; the defaults serve and changes are refused, trying again");
  }
  lastFailure_ = std::move(failure);
  retry_.start(tn::getRunner()->timers(), retryMs);
  return false;
}

// The servers may have been told the defaults meanwhile.
void Manager::openStoreAgain() {
  std::vector<Record> records;
  if (!openStore(records)) return;
  logLine("records: they can be read now");
  const auto before = std::exchange(entries_, {});
  take(std::move(records));
  std::vector<std::string> gone;
  for (const auto& [name, entry] : before) {
    if (!entries_.contains(name)) gone.push_back(name);
  }
  delivery_.findServers([this, gone](const Delivery::Found& found) {
    for (const std::string& name : gone)
      delivery_.deliver(found.servers, removeCommand(name), [](const Outcome&) {});
    sendAll(found.servers);
  });
}

void Manager::take(std::vector<Record> records) {
  for (Record& record : records) {
    std::string name = record.name;
    entries_[std::move(name)] = {std::move(record), false, {}, ++lastRevision_};
  }
}

void Manager::handleCmd(tn::message& msg) {
  switch (msg.get(tn::field::command).value_or(0)) {
    case tn::command::set:
      return change(msg, &Manager::set);
    case tn::command::addObj:
      return change(msg, &Manager::add);
    case tn::command::removeObj:
      return change(msg, &Manager::remove);
    case command::askRecords:
      return giveAll(msg);
    default:
      return Handler::handleCmd(msg);
  }
}

tn::message Manager::cmdGet(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return notAllowed();
  const auto found = entries_.find(nameOf(msg));
  if (found == entries_.end()) return tn::errorMsg(tn::error::noSuchService, "no such service");
  return describe(found->second);
}

tn::message Manager::cmdGetAll(tn::message& msg) {
  if (!tn::policies::holds(msg, tn::policies::read)) return notAllowed();
  std::vector<tn::message> records;
  records.reserve(entries_.size());
  for (const auto& [name, entry] : entries_)
    records.push_back(describe(entry));
  tn::message answer;
  answer.insert_vector(allRecords, records);
  return answer;
}

void Manager::change(const tn::message& msg, Change make) {
  if (!tn::policies::holds(msg, tn::policies::changeSettings))
    return replyError(msg, tn::error::notAllowed, "not allowed");
  if (changes_ == maxChanges) return replyError(msg, error::tooManyChanges, "too many changes at once");
  const std::string name = nameOf(msg);
  if (const auto problem = checkName(name)) return replyError(msg, error::badRecord, *problem);
  if (const auto refusal = (this->*make)(msg, name)) return replyError(msg, refusal->code, refusal->text);
  tell(msg, name);
}

std::optional<Manager::Refusal> Manager::set(const tn::message& msg, std::string_view name) {
  const auto found = entries_.find(name);
  if (found == entries_.end()) return Refusal{tn::error::noSuchService, "no such service"};
  Record record = found->second.record;
  auto problem = checkTrial(msg);
  if (!problem) problem = applyFields(record, msg);
  if (problem) return Refusal{error::badRecord, std::move(*problem)};
  const auto seconds = msg.get(field::trial);
  return seconds ? tryOut(record, *seconds) : keep(record);
}

std::optional<Manager::Refusal> Manager::add(const tn::message& msg, std::string_view name) {
  if (msg.has(field::trial)) return Refusal{error::badRecord, "only set takes a trial (u32 12)"};
  Record record;
  record.name = name;
  if (auto problem = applyFields(record, msg)) return Refusal{error::badRecord, std::move(*problem)};
  if (!entries_.contains(name) && entries_.size() == maxServers) {
    return Refusal{error::badRecord, "at most " + std::to_string(maxServers) + " servers can be kept"};
  }
  return keep(record);
}

std::optional<Manager::Refusal> Manager::remove(const tn::message& /*msg*/, std::string_view name) {
  const auto found = entries_.find(name);
  if (found == entries_.end()) return Refusal{tn::error::noSuchService, "no such service"};
  if (auto failure = store_.remove(name)) return Refusal{error::notStored, "cannot remove the record: " + *failure};
  entries_.erase(found);
  logLine("record ", name, ": removed");
  return std::nullopt;
}

std::optional<Manager::Refusal> Manager::keep(const Record& record) {
  if (auto failure = store_.save(record)) return Refusal{error::notStored, "cannot store the record: " + *failure};
  Entry& entry = entries_[record.name];
  const bool followsTrial = entry.timer != nullptr;
  entry = {record, false, {}, ++lastRevision_};
  if (followsTrial) entry.timer = bringer(record.name);
  logRecord(record, "");
  return std::nullopt;
}

// Where nothing can be stored, nothing on trial could be confirmed, and the defaults may give way at any moment.
std::optional<Manager::Refusal> Manager::tryOut(const Record& record, std::uint32_t seconds) {
  if (!store_.isOpen()) return Refusal{error::notStored, "cannot store the record: no database"};
  tn::TimerQueue& timers = tn::getRunner()->timers();
  constexpr std::uint32_t secondMs = 1000;
  Entry& entry = entries_.find(record.name)->second;
  Record stored = entry.trial ? std::move(entry.trial->stored) : std::move(entry.record);
  entry = {record, false, {}, ++lastRevision_, Trial{std::move(stored), timers.now() + std::chrono::seconds(seconds)}};
  entry.timer = std::make_unique<tn::Timer>([this, name = record.name] { takeBack(name); });
  entry.timer->start(timers, seconds * secondMs);
  logRecord(record, std::string(", on trial for ").append(NumberText(seconds)).append(" s"));
  return std::nullopt;
}

void Manager::takeBack(const std::string& name) {
  Entry& entry = entries_.find(name)->second;
  entry = {std::move(entry.trial->stored), false, {}, ++lastRevision_};
  entry.timer = bringer(name);
  logRecord(entry.record, ", taken back");
  bring(name);
}

std::unique_ptr<tn::Timer> Manager::bringer(const std::string& name) {
  return std::make_unique<tn::Timer>([this, name] { bring(name); });
}

void Manager::bring(const std::string& name) {
  const Entry& entry = entries_.find(name)->second;
  const auto heard = [this, name, revision = entry.revision](const Outcome& outcome) {
    if (Entry* const brought = settle(name, revision, outcome)) bringAgain(*brought, outcome);
  };
  delivery_.findServers([this, heard, command = applyCommand(entry.record)](const Delivery::Found& there) {
    if (there.failure) return heard(there.failure);
    delivery_.deliver(there.servers, command, heard);
  });
}

// Only what follows a trial is brought until it was heard.
void Manager::bringAgain(Entry& entry, const Outcome& outcome) {
  if (entry.trial || !entry.timer) return;
  if (outcome && outcome->unheard) {
    entry.timer->start(tn::getRunner()->timers(), bringMs);
  } else {
    entry.timer.reset();
  }
}

// Tells the servers of a record as it is now, or that it is gone, and whoever changed it how they took that.
void Manager::tell(const tn::message& request, const std::string& name) {
  const auto found = entries_.find(name);
  const bool gone = found == entries_.end();
  const Told told{service::returnAddress(request), name, gone, gone ? 0 : found->second.revision};
  const tn::message command = gone ? removeCommand(name) : applyCommand(found->second.record);
  ++changes_;
  delivery_.findServers([this, told, command](const Delivery::Found& there) {
    if (there.failure) return finish(told, there.failure);
    delivery_.deliver(there.servers, command, [this, told](const Outcome& outcome) { finish(told, outcome); });
  });
}

void Manager::finish(const Told& told, const Outcome& outcome) {
  --changes_;
  if (Entry* const changed = settle(told.name, told.revision, outcome)) bringAgain(*changed, outcome);
  // A server that is not there does not listen, which is all that a removal is for.
  const bool done = !outcome || (told.gone && outcome->code == tn::error::noSuchService);
  tn::message answer;
  if (!done) answer.insert(field::lastError, outcome->text);
  reply(told.address, std::move(answer));
}

// The entry, when it is still that revision.
Manager::Entry* Manager::settle(const std::string& name, std::uint64_t revision, const Outcome& outcome) {
  const auto found = entries_.find(name);
  if (found == entries_.end() || found->second.revision != revision) return nullptr;
  Entry& entry = found->second;
  // What is tried again and again is told once.
  if (outcome && outcome->text != entry.lastError) logLine("record ", name, ": not applied: ", outcome->text);
  entry.applied = !outcome;
  entry.lastError = outcome ? outcome->text : std::string();
  return &entry;
}

void Manager::linked() {
  delivery_.findServers([this](const Delivery::Found& found) { sendAll(found.servers); });
}

// The asker is answered with commands to its handler 1. What it says to them counts for the records' state only if it
// is a server: anybody may ask.
void Manager::giveAll(const tn::message& request) {
  if (!tn::policies::isOfSystem(request)) return replyError(request, tn::error::notAllowed, "not allowed");
  reply(request, {});
  const auto sender = request.get(tn::field::sender);
  if (!sender || sender->empty() || !askers_.insert(sender->front()).second) return;
  delivery_.findServers([this, asker = sender->front()](const Delivery::Found& found) {
    askers_.erase(asker);
    if (std::ranges::find(found.servers, asker) != found.servers.end()) {
      sendAll(std::array{asker});
    } else {
      sendUntracked(asker);
    }
  });
}

void Manager::sendAll(std::span<const std::uint32_t> servers) {
  if (servers.empty()) return;
  for (const Entry* entry : enabledFirst()) {
    delivery_.deliver(servers, applyCommand(entry->record),
                      [this, name = entry->record.name, revision = entry->revision](const Outcome& outcome) {
                        settle(name, revision, outcome);
                      });
  }
}

void Manager::sendUntracked(std::uint32_t program) {
  for (const Entry* entry : enabledFirst()) {
    tn::message told = applyCommand(entry->record);
    told.insert_vector(tn::field::destination, std::array{program, serverHandler});
    sendMessage(std::move(told));
  }
}

std::vector<Manager::Entry*> Manager::enabledFirst() {
  std::vector<Entry*> order;
  order.reserve(entries_.size());
  for (auto& [name, entry] : entries_)
    order.push_back(&entry);
  std::stable_partition(order.begin(), order.end(), [](const Entry* entry) { return entry->record.enabled; });
  return order;
}

tn::message Manager::describe(const Entry& entry) {
  tn::message msg;
  writeRecord(entry.record, msg);
  msg.insert(field::lastError, entry.lastError);
  msg.insert(field::applied, entry.applied);
  if (entry.trial) msg.insert(field::trial, secondsUntil(entry.trial->end));
  return msg;
}

tn::message Manager::applyCommand(const Record& record) {
  tn::message msg;
  writeRecord(record, msg);
  msg.insert(tn::field::command, command::applyRecord);
  return msg;
}

tn::message Manager::removeCommand(std::string_view name) {
  tn::message msg;
  msg.insert(field::name, name);
  msg.insert(tn::field::command, tn::command::removeObj);
  return msg;
}

}  // namespace sermgr
