#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <functional>
#include <string_view>

#include "services/userd/account.h"
#include "services/userd/store.h"

namespace userd {

// The users and groups: what the store keeps, held in memory, with the rules for changing them. A change is stored
// before it is seen; one that is refused or cannot be stored has not happened.
//
// Pointers to users and groups die at the next change.
class Accounts {
 public:
  // The store must outlive this.
  explicit Accounts(Store& store) : store_(store) {}

  // Opens the store and reads it. Until this succeeded there are no users, and no change succeeds; it may be tried
  // again.
  [[nodiscard]] Store::Failure open(const Store::FirstPassword& makePassword);
  [[nodiscard]] bool isOpen() const { return open_; }

  // Null when there is none.
  [[nodiscard]] const User* user(std::uint32_t number) const;
  [[nodiscard]] const User* userNamed(std::string_view name) const;
  [[nodiscard]] const Group* group(std::uint32_t number) const;
  [[nodiscard]] const Group* groupNamed(std::string_view name) const;
  // The group of a user, who is one of these.
  [[nodiscard]] const Group& groupOf(const User& user) const;
  [[nodiscard]] std::size_t usersIn(std::uint32_t group) const;
  [[nodiscard]] const AccountTables& tables() const { return tables_; }

  // The values of what is given were checked. Numbers: 0 for what is to be added, which is given one; else one that is
  // there. The result of adding is the number.
  [[nodiscard]] std::expected<std::uint32_t, Refusal> addUser(User user);
  [[nodiscard]] Outcome changeUser(User user);
  [[nodiscard]] Outcome removeUser(std::uint32_t number);
  [[nodiscard]] std::expected<std::uint32_t, Refusal> addGroup(Group group);
  [[nodiscard]] Outcome changeGroup(Group group);
  [[nodiscard]] Outcome removeGroup(std::uint32_t number);

 private:
  [[nodiscard]] Outcome check(const User& user) const;
  [[nodiscard]] Outcome check(const Group& group) const;

  Store& store_;
  bool open_ = false;
  AccountTables tables_;
};

}  // namespace userd
