#include "services/userd/store.h"

#include <algorithm>

#include "platform/policies.h"
#include "services/userd/password.h"

namespace userd {
namespace {

using storage::Statement;

// AUTOINCREMENT: a number is never given again, so that nobody inherits what was meant for somebody else. The checks
// keep out, for every program that opens the file, what the service would not take itself.
constexpr char schema[] =
    "CREATE TABLE groups ("
    "  number INTEGER PRIMARY KEY AUTOINCREMENT CHECK (number BETWEEN 1 AND 4294967294),"
    "  name TEXT NOT NULL UNIQUE COLLATE NOCASE CHECK (length(name) BETWEEN 1 AND 64),"
    "  policies INTEGER NOT NULL CHECK (policies BETWEEN 0 AND 4294967295),"
    "  skin TEXT NOT NULL CHECK (length(skin) BETWEEN 1 AND 64)"
    ") STRICT;"
    "CREATE TABLE users ("
    "  number INTEGER PRIMARY KEY AUTOINCREMENT CHECK (number BETWEEN 1 AND 4294967294),"
    "  name TEXT NOT NULL UNIQUE COLLATE NOCASE CHECK (length(name) BETWEEN 1 AND 64),"
    "  full_name TEXT NOT NULL CHECK (length(CAST(full_name AS BLOB)) <= 128),"
    "  user_group INTEGER NOT NULL REFERENCES groups (number),"
    "  hidden INTEGER NOT NULL CHECK (hidden IN (0, 1)),"
    "  disabled INTEGER NOT NULL CHECK (disabled IN (0, 1)),"
    "  password TEXT NOT NULL CHECK (length(password) BETWEEN 1 AND 255)"
    ") STRICT;";

// A column as a number of an object or a policies word; false when it cannot be one.
bool take(const Statement& row, int column, std::uint32_t& number) {
  const std::int64_t value = row.number(column);
  number = static_cast<std::uint32_t>(value);
  return value >= 0 && value <= 0xFFFFFFFF;
}

bool readGroup(const Statement& row, Group& group) {
  const bool inRange = take(row, 0, group.number) && take(row, 2, group.policies);
  group.name = row.text(1);
  group.skin = row.text(3);
  return inRange && !checkName(group.name) && !checkSkin(group.skin);
}

bool readUser(const Statement& row, User& user) {
  const bool inRange = take(row, 0, user.number) && take(row, 3, user.group);
  user.name = row.text(1);
  user.fullName = row.text(2);
  user.hidden = row.number(4) != 0;
  user.disabled = row.number(5) != 0;
  user.hash = row.text(6);
  return inRange && !checkName(user.name) && !checkFullName(user.fullName) && isPasswordHash(user.hash);
}

// A table that is not there, or has other columns, is SQLITE_ERROR.
int endOfRows(int result) {
  if (result == SQLITE_ERROR) return SQLITE_MISMATCH;
  return result == SQLITE_DONE ? SQLITE_OK : result;
}

Group bornGroup(std::string_view name, std::uint32_t policies, std::string_view skin) {
  return {0, std::string(name), policies, std::string(skin)};
}

}  // namespace

bool hasManager(const AccountTables& tables) {
  return std::ranges::any_of(tables.users, [&tables](const auto& entry) {
    const auto group = tables.groups.find(entry.second.group);
    const std::uint32_t policies = group == tables.groups.end() ? 0 : group->second.policies;
    return !entry.second.disabled && (policies & tn::policies::manageUsers) != 0;
  });
}

Store::Failure Store::open(const FirstPassword& makePassword, AccountTables& tables) {
  const auto fillNew = [&] { return fill(makePassword); };
  const auto readAll = [&] { return read(tables); };
  return storage::openStore(database_, path_,
                            {"users", "not a table of users", schemaVersion, schema, maxPages, fillNew, readAll});
}

int Store::fill(const FirstPassword& makePassword) {
  using namespace tn::policies;
  Group administrators = bornGroup("administrators", all, "admin");
  Group users = bornGroup("users", tn::policies::read | readFiles | writeFiles, "default");
  Group guests = bornGroup("guests", tn::policies::read, "default");
  for (Group* const group : {&administrators, &users, &guests}) {
    if (const int result = write(*group); result != SQLITE_OK) return result;
  }
  User admin;
  admin.name = "admin";
  admin.group = administrators.number;
  admin.hidden = false;
  admin.hash = makePassword();
  return admin.hash.empty() ? SQLITE_IOERR : write(admin);
}

int Store::read(AccountTables& tables) {
  tables = {};
  int result = readGroups(tables);
  if (result == SQLITE_OK) result = readUsers(tables);
  return result == SQLITE_OK && !hasManager(tables) ? SQLITE_MISMATCH : result;
}

int Store::readGroups(AccountTables& tables) {
  Statement rows(database_, "SELECT number, name, policies, skin FROM groups");
  int result = rows.step();
  for (; result == SQLITE_ROW; result = rows.step()) {
    Group group;
    if (tables.groups.size() == maxGroups || !readGroup(rows, group)) return SQLITE_MISMATCH;
    tables.groups[group.number] = std::move(group);
  }
  return endOfRows(result);
}

int Store::readUsers(AccountTables& tables) {
  Statement rows(database_, "SELECT number, name, full_name, user_group, hidden, disabled, password FROM users");
  int result = rows.step();
  for (; result == SQLITE_ROW; result = rows.step()) {
    User user;
    if (tables.users.size() == maxUsers || !readUser(rows, user)) return SQLITE_MISMATCH;
    if (!tables.groups.contains(user.group)) return SQLITE_MISMATCH;
    tables.users[user.number] = std::move(user);
  }
  return endOfRows(result);
}

Store::Failure Store::save(User& user) {
  if (!database_.isOpen()) return "no database";
  return storage::failureOf(write(user));
}

Store::Failure Store::save(Group& group) {
  if (!database_.isOpen()) return "no database";
  return storage::failureOf(write(group));
}

// One statement is a transaction of its own, or part of the one that makes the database.
int Store::write(User& user) {
  Statement statement(database_, user.number == 0
                                     ? "INSERT INTO users (name, full_name, user_group, hidden, disabled, password) "
                                       "VALUES (?, ?, ?, ?, ?, ?) RETURNING number"
                                     : "UPDATE users SET name = ?, full_name = ?, user_group = ?, hidden = ?, "
                                       "disabled = ?, password = ? WHERE number = ? RETURNING number");
  statement.bind(1, user.name).bind(2, user.fullName).bind(3, user.group);
  statement.bind(4, user.hidden ? 1 : 0).bind(5, user.disabled ? 1 : 0).bind(6, user.hash);
  if (user.number != 0) statement.bind(7, user.number);
  return finishWrite(statement, user.number);
}

int Store::write(Group& group) {
  Statement statement(database_, group.number == 0
                                     ? "INSERT INTO groups (name, policies, skin) VALUES (?, ?, ?) RETURNING number"
                                     : "UPDATE groups SET name = ?, policies = ?, skin = ? WHERE number = ? "
                                       "RETURNING number");
  statement.bind(1, group.name).bind(2, group.policies).bind(3, group.skin);
  if (group.number != 0) statement.bind(4, group.number);
  return finishWrite(statement, group.number);
}

// The row tells the number; the change itself is made, or fails, when the statement ends.
int Store::finishWrite(Statement& statement, std::uint32_t& number) {
  int result = statement.step();
  if (result == SQLITE_DONE) return SQLITE_NOTFOUND;
  if (result != SQLITE_ROW) return result;
  const std::int64_t given = statement.number(0);
  result = statement.step();
  if (result != SQLITE_DONE) return result;
  number = static_cast<std::uint32_t>(given);
  return SQLITE_OK;
}

Store::Failure Store::removeUser(std::uint32_t number) {
  return remove("DELETE FROM users WHERE number = ?", number);
}

Store::Failure Store::removeGroup(std::uint32_t number) {
  return remove("DELETE FROM groups WHERE number = ?", number);
}

Store::Failure Store::remove(std::string_view sql, std::uint32_t number) {
  if (!database_.isOpen()) return "no database";
  Statement statement(database_, sql);
  const int result = statement.bind(1, number).step();
  return storage::failureOf(result == SQLITE_DONE ? SQLITE_OK : result);
}

}  // namespace userd
