#include "services/userd/accounts.h"

#include <gmock/gmock.h>

#include "platform/bus/field.h"
#include "platform/policies.h"
#include "tests/services/userd/fake_hasher.h"
#include "tests/services/userd/scratch.h"

namespace userd {
namespace {

using ::testing::SizeIs;

constexpr std::uint32_t administrators = 1;
constexpr std::uint32_t users = 2;

class AccountsTest : public ScratchTest {
 protected:
  void SetUp() override {
    store_ = std::make_unique<Store>(path("users.db"));
    accounts_ = std::make_unique<Accounts>(*store_);
    ASSERT_EQ(accounts_->open([] { return fakeHash("first"); }), std::nullopt);
  }

  static User named(std::string name, std::uint32_t group = users) {
    User user;
    user.name = std::move(name);
    user.group = group;
    user.hash = fakeHash("x");
    return user;
  }
  std::uint32_t add(std::string name, std::uint32_t group = users) {
    return accounts_->addUser(named(std::move(name), group)).value_or(0);
  }
  std::string change(const User& user) { return textOf(accounts_->changeUser(user)); }
  static std::string textOf(const Outcome& outcome) { return outcome ? outcome->text : "done"; }

  // What is held in memory is what the next start finds.
  void expectStored() {
    Store again(path("users.db"));
    AccountTables tables;
    ASSERT_EQ(again.open([] { return std::string(); }, tables), std::nullopt);
    EXPECT_EQ(tables.users, accounts_->tables().users);
    EXPECT_EQ(tables.groups, accounts_->tables().groups);
  }

  std::unique_ptr<Store> store_;
  std::unique_ptr<Accounts> accounts_;
};

constexpr char lastManager[] = "the last user who may manage users has to stay";

TEST_F(AccountsTest, FindsByNumberAndName) {
  const std::uint32_t number = add("bob");
  ASSERT_NE(accounts_->user(number), nullptr);
  EXPECT_EQ(accounts_->user(number)->name, "bob");
  EXPECT_EQ(accounts_->userNamed("bob"), accounts_->user(number));
  EXPECT_EQ(accounts_->userNamed("Bob"), nullptr);
  EXPECT_EQ(accounts_->user(0), nullptr);
  EXPECT_EQ(accounts_->groupOf(*accounts_->user(number)).name, "users");
  EXPECT_EQ(accounts_->usersIn(users), 1U);
  EXPECT_EQ(accounts_->groupNamed("nobodies"), nullptr);
  expectStored();
}

TEST_F(AccountsTest, HoldsNamesThatCanBeToldApart) {
  EXPECT_EQ(accounts_->addUser(named("ADMIN")).error().text, "there is a user of that name");
  User bob = named("bob");
  bob.number = add("bob");
  bob.name = "Admin";
  EXPECT_EQ(change(bob), "there is a user of that name");
  bob.name = "BOB";
  EXPECT_EQ(change(bob), "done");
  expectStored();
}

TEST_F(AccountsTest, KeepsOneWhoMayManageUsers) {
  const User admin = *accounts_->user(1);
  User changed = admin;
  changed.disabled = true;
  EXPECT_EQ(change(changed), lastManager);
  changed = admin;
  changed.group = users;
  EXPECT_EQ(change(changed), lastManager);
  EXPECT_EQ(textOf(accounts_->removeUser(1)), lastManager);
  Group group = *accounts_->group(administrators);
  group.policies &= ~tn::policies::manageUsers;
  EXPECT_EQ(textOf(accounts_->changeGroup(group)), lastManager);
  EXPECT_EQ(*accounts_->user(1), admin);
  expectStored();
}

TEST_F(AccountsTest, LetsTheFirstManagerGoWhenThereIsAnother) {
  const std::uint32_t other = add("other", administrators);
  EXPECT_EQ(textOf(accounts_->removeUser(1)), "done");
  EXPECT_EQ(textOf(accounts_->removeUser(other)), lastManager);
  expectStored();
}

TEST_F(AccountsTest, DoesNotCountADisabledManager) {
  User other = named("other", administrators);
  other.disabled = true;
  ASSERT_TRUE(accounts_->addUser(other).has_value());
  EXPECT_EQ(textOf(accounts_->removeUser(1)), lastManager);
}

TEST_F(AccountsTest, KeepsGroupsThatHaveUsers) {
  const std::uint32_t bob = add("bob");
  EXPECT_EQ(textOf(accounts_->removeGroup(users)), "the group has users");
  ASSERT_EQ(accounts_->removeUser(bob), std::nullopt);
  EXPECT_EQ(textOf(accounts_->removeGroup(users)), "done");
  EXPECT_EQ(textOf(accounts_->removeGroup(users)), "no such group");
  EXPECT_EQ(accounts_->addUser(named("bob")).error().text, "no such group");
  expectStored();
}

TEST_F(AccountsTest, ChangesGroups) {
  const auto number = accounts_->addGroup({0, "kids", 0x10, "simple"});
  ASSERT_TRUE(number.has_value());
  EXPECT_EQ(accounts_->addGroup({0, "KIDS", 0x10, "simple"}).error().text, "there is a group of that name");
  EXPECT_EQ(textOf(accounts_->changeGroup({*number, "children", 0x50, "plain"})), "done");
  EXPECT_EQ(textOf(accounts_->changeGroup({*number, "Users", 0x50, "plain"})), "there is a group of that name");
  EXPECT_EQ(textOf(accounts_->changeGroup({99, "x", 0, "plain"})), "no such group");
  EXPECT_EQ(*accounts_->group(*number), (Group{*number, "children", 0x50, "plain"}));
  expectStored();
}

TEST_F(AccountsTest, KeepsToItsLimits) {
  for (std::size_t i = accounts_->tables().users.size(); i < maxUsers; ++i)
    ASSERT_NE(add("user" + std::to_string(i)), 0U);
  EXPECT_EQ(accounts_->addUser(named("one-more")).error().code, error::conflict);
  for (std::size_t i = accounts_->tables().groups.size(); i < maxGroups; ++i)
    ASSERT_TRUE(accounts_->addGroup({0, "group" + std::to_string(i), 0, "x"}).has_value());
  EXPECT_EQ(accounts_->addGroup({0, "one-more", 0, "x"}).error().code, error::conflict);
  expectStored();
}

TEST_F(AccountsTest, ChangesNothingThatCannotBeStored) {
  storage::Database other;
  ASSERT_EQ(other.open(path("users.db")), SQLITE_OK);
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_OK);
  const AccountTables before = accounts_->tables();
  User admin = before.users.at(1);
  admin.fullName = "Somebody";
  EXPECT_EQ(change(admin), "cannot store the change: database is locked");
  EXPECT_EQ(accounts_->addUser(named("bob")).error().code, error::notStored);
  EXPECT_EQ(accounts_->addGroup({0, "kids", 0, "x"}).error().code, error::notStored);
  EXPECT_EQ(accounts_->removeGroup(users)->code, error::notStored);
  EXPECT_EQ(accounts_->tables().users, before.users);
  EXPECT_EQ(accounts_->tables().groups, before.groups);
}

TEST(Names, AreOfLettersDigitsAndAFewMarks) {
  for (const char* const name : {"a", "A1", "a.b_c-d@e", "0"})
    EXPECT_FALSE(checkName(name).has_value()) << name;
  EXPECT_FALSE(checkName(std::string(64, 'a')).has_value());
  for (const std::string_view name : {"", ".a", "-a", "@a", "a b", "a/b", "\xc3\xbc", "a'b", "a\n"})
    EXPECT_TRUE(checkName(name).has_value()) << name;
  EXPECT_TRUE(checkName(std::string(65, 'a')).has_value());
  EXPECT_TRUE(checkName(std::string_view("a\0b", 3)).has_value());
}

TEST(Names, InFullAreAnyText) {
  for (const char* const name : {"", "O'Neill \\ \"x\"", "Gr\xc3\xbc\xc3\x9f", "\xe6\x9d\x8e"})
    EXPECT_FALSE(checkFullName(name).has_value()) << name;
  for (const char* const name : {"a\nb", "\x1b[31m", "\xff", "\xc3", "a\x7f"})
    EXPECT_TRUE(checkFullName(name).has_value()) << name;
  EXPECT_FALSE(checkFullName(std::string(128, 'a')).has_value());
  EXPECT_TRUE(checkFullName(std::string(129, 'a')).has_value());
}

// A skin's name becomes part of a path.
TEST(Names, OfSkinsAreNoPaths) {
  EXPECT_FALSE(checkSkin("simple_2-b").has_value());
  for (const char* const skin : {"", ".", "..", "a/b", "a.json", "a b"})
    EXPECT_TRUE(checkSkin(skin).has_value()) << skin;
}

}  // namespace
}  // namespace userd
