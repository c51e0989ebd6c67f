#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "services/common/store_file.h"
#include "services/userd/account.h"

namespace userd {

// All that is kept, by number.
struct AccountTables {
  std::map<std::uint32_t, Group> groups;
  std::map<std::uint32_t, User> users;
};

// Whether there is an enabled user whose group may manage users. Nobody could ever manage them again without one.
[[nodiscard]] bool hasManager(const AccountTables& tables);

// Users and groups as they outlive the process and the machine's power: an SQLite database. What a change has answered
// is on the storage; a change that was cut off has not happened. A database that is no good, or without a user who may
// manage users, is moved aside and begun anew, as storage::openStore does it.
class Store {
 public:
  static constexpr std::int64_t maxPages = 1024;
  static constexpr std::int64_t schemaVersion = 1;

  using Failure = storage::Failure;
  // Makes the password of the first user, keeps it for the owner, and returns its hash; empty when it cannot be kept.
  using FirstPassword = std::function<std::string()>;

  explicit Store(std::string path) : path_(std::move(path)) {}

  // Opens the database and reads it. One that is new is given the groups and the user that the system is born with.
  // Every other call fails until this succeeded.
  [[nodiscard]] Failure open(const FirstPassword& makePassword, AccountTables& tables);

  // Adds what has no number yet, and gives it one that was never used before; else changes what has that number.
  [[nodiscard]] Failure save(User& user);
  [[nodiscard]] Failure save(Group& group);
  // No failure when there is none.
  [[nodiscard]] Failure removeUser(std::uint32_t number);
  // Fails while the group has users.
  [[nodiscard]] Failure removeGroup(std::uint32_t number);

  // As storage::limitPages; it opens with maxPages.
  void limitPages(std::int64_t pages) { storage::limitPages(database_, pages); }

 private:
  [[nodiscard]] int read(AccountTables& tables);
  [[nodiscard]] int readGroups(AccountTables& tables);
  [[nodiscard]] int readUsers(AccountTables& tables);
  [[nodiscard]] int fill(const FirstPassword& makePassword);
  [[nodiscard]] int write(User& user);
  [[nodiscard]] int write(Group& group);
  [[nodiscard]] static int finishWrite(storage::Statement& statement, std::uint32_t& number);
  [[nodiscard]] Failure remove(std::string_view sql, std::uint32_t number);

  std::string path_;
  storage::Database database_;
};

}  // namespace userd
