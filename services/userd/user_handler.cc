#include "services/userd/user_handler.h"

#include <algorithm>
#include <array>
#include <memory>
#include <utility>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/policies.h"
#include "services/common/return_address.h"
#include "services/userd/fields.h"
#include "services/userd/password.h"
#include "services/userd/permission.h"

namespace userd {
namespace {

// Before every attempt to log in: there are few of these, and somebody with the right to them waits.
constexpr unsigned hashRank = 0;

constexpr std::string_view defaultGroup = "users";

constexpr std::array subjectKeys = {keyOf(field::name)};
constexpr std::array passwordKeys = {keyOf(field::name), keyOf(field::password), keyOf(field::oldPassword)};

Refusal notAllowed() {
  return {tn::error::notAllowed, "not allowed"};
}

Refusal noSuchUser() {
  return {tn::error::noSuchService, "no such user"};
}

Refusal bad(std::string_view why) {
  return {error::badRequest, std::string(why)};
}

// The new password of a command, taken out of it.
std::expected<Secret, Refusal> takeNewPassword(tn::message& msg) {
  const auto text = msg.get(field::password);
  if (!text) return std::unexpected(bad("the password (string 3) is missing"));
  const auto problem = checkNewPassword(*text);
  auto password = takePassword(msg, field::password);
  if (problem) return std::unexpected(bad(*problem));
  return std::move(*password);
}

}  // namespace

UserHandler::UserHandler(Accounts& accounts, Doorkeeper& doorkeeper, HashQueue& queue, const FirstLogin& note)
    : AccountHandler(accounts), accounts_(accounts), doorkeeper_(doorkeeper), queue_(queue), note_(note) {}

void UserHandler::handleCmd(tn::message& msg) {
  Outcome refusal;
  switch (msg.get(tn::field::command).value_or(0)) {
    case tn::command::addObj:
      refusal = add(msg);
      break;
    case command::setPassword:
      refusal = setPassword(msg);
      break;
    default:
      return Handler::handleCmd(msg);
  }
  if (refusal) replyError(msg, refusal->code, refusal->text);
}

bool UserHandler::isOwn(const tn::message& msg, const User& user) const {
  const User* const caller = callerOf(msg, accounts_);
  return caller != nullptr && caller->number == user.number;
}

UserHandler::Subject UserHandler::subjectOf(const tn::message& msg, bool ownIsAllowed) const {
  const auto number = msg.get(tn::field::objectNumber);
  const auto name = msg.get(field::name);
  const User* user = callerOf(msg, accounts_);
  if (number) {
    user = accounts_.user(*number);
  } else if (name) {
    user = accounts_.userNamed(*name);
  }
  const bool own = ownIsAllowed && user != nullptr && isOwn(msg, *user);
  if (!own && !may(msg, tn::policies::manageUsers, accounts_)) return std::unexpected(notAllowed());
  if (user == nullptr && !number && !name) {
    return std::unexpected(bad("a user's name (string 1) or number (u32 0xfe0001) is missing"));
  }
  if (user == nullptr) return std::unexpected(noSuchUser());
  return user;
}

tn::message UserHandler::cmdGet(tn::message& msg) {
  if (const Problem problem = checkKnown(msg, subjectKeys)) return refuse(bad(*problem));
  const Subject subject = subjectOf(msg, true);
  return subject ? describe(**subject, accounts_) : refuse(subject.error());
}

tn::message UserHandler::cmdGetAll(tn::message& msg) {
  if (!may(msg, tn::policies::manageUsers, accounts_)) return refuse(notAllowed());
  std::vector<const User*> users;
  for (const auto& [number, user] : accounts_.tables().users)
    users.push_back(&user);
  std::ranges::sort(users, {}, &User::name);
  std::vector<tn::message> described;
  described.reserve(users.size());
  for (const User* const user : users)
    described.push_back(describe(*user, accounts_));
  tn::message answer;
  answer.insert_vector(field::all, described);
  return answer;
}

tn::message UserHandler::cmdSetObj(tn::message& msg, std::uint32_t /*object*/) {
  const Subject subject = subjectOf(msg, false);
  if (!subject) return refuse(subject.error());
  if (takePassword(msg, field::password)) return refuse(bad("a password is set with command 0x20001"));
  User changed = **subject;
  if (const Outcome refusal = applyUserFields(changed, msg, accounts_)) return refuse(*refusal);
  const bool renamed = changed.name != (*subject)->name;
  Outcome outcome = accounts_.changeUser(changed);
  if (!outcome) {
    logLine("user ", changed.name, ": changed");
    if (renamed) forgetNote(changed.number);
  }
  return answerOf(outcome);
}

tn::message UserHandler::cmdRemoveObj(tn::message& msg, std::uint32_t /*object*/) {
  if (const Problem problem = checkKnown(msg, subjectKeys)) return refuse(bad(*problem));
  const Subject subject = subjectOf(msg, false);
  if (!subject) return refuse(subject.error());
  const std::uint32_t number = (*subject)->number;
  const std::string name = (*subject)->name;
  Outcome outcome = accounts_.removeUser(number);
  if (!outcome) {
    logLine("user ", name, ": removed");
    forgetNote(number);
  }
  return answerOf(outcome);
}

Outcome UserHandler::add(tn::message& msg) {
  if (!may(msg, tn::policies::manageUsers, accounts_)) return notAllowed();
  auto password = takeNewPassword(msg);
  if (!password) return password.error();
  if (!msg.has(field::name)) return bad("the name (string 1) is missing");
  if (!msg.has(field::groupName)) msg.insert(field::groupName, defaultGroup);
  User user;
  if (Outcome refusal = applyUserFields(user, msg, accounts_)) return refusal;
  return hash(service::returnAddress(msg), std::move(*password), [this, user](const std::string& made) mutable {
    user.hash = made;
    const auto added = accounts_.addUser(user);
    if (added) logLine("user ", user.name, ": added");
    return answerOf(added);
  });
}

Outcome UserHandler::setPassword(tn::message& msg) {
  auto old = takePassword(msg, field::oldPassword);
  auto password = takeNewPassword(msg);
  if (const Problem problem = checkKnown(msg, passwordKeys)) return bad(*problem);
  const Subject subject = subjectOf(msg, true);
  if (!subject) return subject.error();
  if (!password) return password.error();
  const User& user = **subject;
  tn::message address = service::returnAddress(msg);
  if (!isOwn(msg, user)) {
    return hash(std::move(address), std::move(*password),
                [this, number = user.number](const std::string& made) { return keepPassword(number, made); });
  }
  if (!old) return bad("the old password (string 4) is missing");
  // Callables are copied, secrets are not.
  const auto kept = std::make_shared<Secret>(std::move(*password));
  doorkeeper_.attempt(
      Client::sessionOf(user.name), user.name, std::move(*old),
      [this, address, kept](const Doorkeeper::Answer& came) { onOldPassword(address, std::move(*kept), came); });
  return std::nullopt;
}

void UserHandler::onOldPassword(const tn::message& address, Secret password, const Doorkeeper::Answer& came) {
  Outcome refusal;
  switch (came.verdict) {
    case Doorkeeper::Verdict::right:
      refusal = hash(address, std::move(password),
                     [this, number = came.user](const std::string& made) { return keepPassword(number, made); });
      break;
    case Doorkeeper::Verdict::wrong:
      refusal = Refusal{tn::error::notAllowed, "wrong password"};
      break;
    case Doorkeeper::Verdict::tooMany:
    case Doorkeeper::Verdict::busy:
      refusal = notLookedAt(came);
      break;
  }
  if (refusal) reply(address, refuse(*refusal));
}

Outcome UserHandler::hash(tn::message address, Secret password,
                          std::function<tn::message(const std::string& hash)> use) {
  if (waiting_ == maxWaiting) return Refusal{error::tooMuch, "too busy, try again"};
  ++waiting_;
  queue_.put({std::move(password), std::nullopt}, hashRank,
             [this, address = std::move(address), use = std::move(use)](const HashResult& result) {
               --waiting_;
               const Refusal failed{error::notStored, "cannot store the change: no hash can be made"};
               reply(address, result.made.empty() ? refuse(failed) : use(result.made));
             });
  return std::nullopt;
}

tn::message UserHandler::keepPassword(std::uint32_t number, const std::string& hash) {
  const User* const user = accounts_.user(number);
  if (user == nullptr) return refuse(noSuchUser());
  User changed = *user;
  changed.hash = hash;
  Outcome outcome = accounts_.changeUser(changed);
  if (!outcome) {
    logLine("user ", changed.name, ": password changed");
    forgetNote(number);
  }
  return answerOf(outcome);
}

void UserHandler::forgetNote(std::uint32_t number) const {
  if (number == firstUser) note_.remove();
}

}  // namespace userd
