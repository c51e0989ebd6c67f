#include "services/userd/accounts.h"

#include <algorithm>
#include <utility>

#include "platform/bus/field.h"
#include "platform/policies.h"

namespace userd {
namespace {

template <typename Entry>
const Entry* find(const std::map<std::uint32_t, Entry>& entries, std::uint32_t number) {
  const auto found = entries.find(number);
  return found == entries.end() ? nullptr : &found->second;
}

template <typename Entry>
const Entry* findNamed(const std::map<std::uint32_t, Entry>& entries, std::string_view name) {
  const auto found = std::ranges::find(entries, name, [](const auto& entry) { return entry.second.name; });
  return found == entries.end() ? nullptr : &found->second;
}

// Whether another one than `subject` has its name, or one too like it.
template <typename Entry>
bool isNameTaken(const std::map<std::uint32_t, Entry>& entries, const Entry& subject) {
  return std::ranges::any_of(entries, [&subject](const auto& entry) {
    return entry.first != subject.number && isSameName(entry.second.name, subject.name);
  });
}

Refusal notStored(const std::string& why) {
  return {error::notStored, "cannot store the change: " + why};
}

Refusal lastManager() {
  return {error::conflict, "the last user who may manage users has to stay"};
}

}  // namespace

Store::Failure Accounts::open(const Store::FirstPassword& makePassword) {
  AccountTables tables;
  if (auto failure = store_.open(makePassword, tables)) return failure;
  tables_ = std::move(tables);
  open_ = true;
  return std::nullopt;
}

const User* Accounts::user(std::uint32_t number) const {
  return find(tables_.users, number);
}

const User* Accounts::userNamed(std::string_view name) const {
  return findNamed(tables_.users, name);
}

const Group* Accounts::group(std::uint32_t number) const {
  return find(tables_.groups, number);
}

const Group* Accounts::groupNamed(std::string_view name) const {
  return findNamed(tables_.groups, name);
}

const Group& Accounts::groupOf(const User& user) const {
  static const Group none;
  const Group* const found = group(user.group);
  return found == nullptr ? none : *found;
}

std::size_t Accounts::usersIn(std::uint32_t group) const {
  const auto isIn = [group](const auto& entry) { return entry.second.group == group; };
  return static_cast<std::size_t>(std::ranges::count_if(tables_.users, isIn));
}

Outcome Accounts::check(const User& user) const {
  if (group(user.group) == nullptr) return Refusal{tn::error::noSuchService, "no such group"};
  if (!isNameTaken(tables_.users, user)) return std::nullopt;
  return Refusal{error::conflict, "there is a user of that name"};
}

Outcome Accounts::check(const Group& group) const {
  if (!isNameTaken(tables_.groups, group)) return std::nullopt;
  return Refusal{error::conflict, "there is a group of that name"};
}

std::expected<std::uint32_t, Refusal> Accounts::addUser(User user) {
  if (auto refusal = check(user)) return std::unexpected(std::move(*refusal));
  if (tables_.users.size() >= maxUsers) {
    return std::unexpected(Refusal{error::conflict, "at most " + std::to_string(maxUsers) + " users can be kept"});
  }
  if (const auto failure = store_.save(user)) return std::unexpected(notStored(*failure));
  const std::uint32_t number = user.number;
  tables_.users[number] = std::move(user);
  return number;
}

Outcome Accounts::changeUser(User user) {
  if (!tables_.users.contains(user.number)) return Refusal{tn::error::noSuchService, "no such user"};
  if (auto refusal = check(user)) return refusal;
  AccountTables changed = tables_;
  changed.users[user.number] = user;
  if (!hasManager(changed)) return lastManager();
  if (const auto failure = store_.save(user)) return notStored(*failure);
  tables_ = std::move(changed);
  return std::nullopt;
}

Outcome Accounts::removeUser(std::uint32_t number) {
  AccountTables changed = tables_;
  if (changed.users.erase(number) == 0) return Refusal{tn::error::noSuchService, "no such user"};
  if (!hasManager(changed)) return lastManager();
  if (const auto failure = store_.removeUser(number)) return notStored(*failure);
  tables_ = std::move(changed);
  return std::nullopt;
}

std::expected<std::uint32_t, Refusal> Accounts::addGroup(Group group) {
  if (auto refusal = check(group)) return std::unexpected(std::move(*refusal));
  if (tables_.groups.size() >= maxGroups) {
    return std::unexpected(Refusal{error::conflict, "at most " + std::to_string(maxGroups) + " groups can be kept"});
  }
  if (const auto failure = store_.save(group)) return std::unexpected(notStored(*failure));
  const std::uint32_t number = group.number;
  tables_.groups[number] = std::move(group);
  return number;
}

Outcome Accounts::changeGroup(Group group) {
  if (!tables_.groups.contains(group.number)) return Refusal{tn::error::noSuchService, "no such group"};
  if (auto refusal = check(group)) return refusal;
  AccountTables changed = tables_;
  changed.groups[group.number] = group;
  if (!hasManager(changed)) return lastManager();
  if (const auto failure = store_.save(group)) return notStored(*failure);
  tables_ = std::move(changed);
  return std::nullopt;
}

Outcome Accounts::removeGroup(std::uint32_t number) {
  if (!tables_.groups.contains(number)) return Refusal{tn::error::noSuchService, "no such group"};
  if (usersIn(number) != 0) return Refusal{error::conflict, "the group has users"};
  if (const auto failure = store_.removeGroup(number)) return notStored(*failure);
  tables_.groups.erase(number);
  return std::nullopt;
}

}  // namespace userd
