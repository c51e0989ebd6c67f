#include "services/userd/store.h"

#include <fcntl.h>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>
#include <unistd.h>

#include "platform/policies.h"
#include "tests/services/userd/fake_hasher.h"
#include "tests/services/userd/scratch.h"

namespace userd {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;

class StoreTest : public ScratchTest {
 protected:
  // What a service that starts now finds.
  AccountTables open(Store& store) {
    AccountTables tables;
    EXPECT_EQ(store.open([this] { return firstPassword(); }, tables), std::nullopt);
    return tables;
  }
  AccountTables reopened() {
    Store store(path_());
    return open(store);
  }
  std::string firstPassword() {
    ++firstPasswords_;
    return fakeHash("first");
  }
  std::string path_() const { return path("rw/store/users.db"); }

  void plant(std::string_view bytes) const {
    std::filesystem::create_directories(path("rw/store"));
    std::ofstream(path_(), std::ios::binary) << bytes;
  }
  std::string bytes() const {
    std::ifstream file(path_(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  void tamper(const char* sql) const {
    storage::Database database;
    ASSERT_EQ(database.open(path_()), SQLITE_OK);
    ASSERT_EQ(database.run(sql), SQLITE_OK) << sql;
  }
  // Whether what is there was moved aside and begun anew.
  void expectAnew(std::string_view why) {
    takeLog();
    EXPECT_EQ(reopened().users.at(1).name, "admin");
    EXPECT_EQ(firstPasswords_, 1);
    EXPECT_THAT(takeLog(), HasSubstr(why));
    EXPECT_TRUE(std::filesystem::exists(path_() + ".damaged"));
  }

  static User userOf(std::string name, std::uint32_t group) {
    User user;
    user.name = std::move(name);
    user.group = group;
    user.hash = fakeHash("x");
    return user;
  }

  int firstPasswords_ = 0;
};

TEST_F(StoreTest, IsBornWithGroupsAndOneUser) {
  const AccountTables tables = reopened();
  ASSERT_THAT(tables.users, SizeIs(1));
  const User& admin = tables.users.at(1);
  EXPECT_EQ(admin, (User{1, "admin", "", 1, false, false, fakeHash("first")}));
  ASSERT_THAT(tables.groups, SizeIs(3));
  EXPECT_EQ(tables.groups.at(1), (Group{1, "administrators", tn::policies::all, "admin"}));
  EXPECT_EQ(tables.groups.at(2), (Group{2, "users", 0xd0, "default"}));
  EXPECT_EQ(tables.groups.at(3), (Group{3, "guests", 0x10, "default"}));
}

TEST_F(StoreTest, IsBornOnce) {
  reopened();
  reopened();
  EXPECT_EQ(firstPasswords_, 1);
}

TEST_F(StoreTest, IsNotBornWithoutAPassword) {
  Store store(path_());
  AccountTables tables;
  EXPECT_TRUE(store.open([] { return std::string(); }, tables).has_value());
  EXPECT_EQ(reopened().users.at(1).hash, fakeHash("first"));
}

TEST_F(StoreTest, KeepsEveryPart) {
  Group group{0, "Kids-1", 0xFFFFFFFF, "simple"};
  User user{0, "a.b_c-d@e", "Gr\xc3\xbc\xc3\x9f 'dich' \\", 0, false, true, fakeHash("y")};
  {
    Store store(path_());
    open(store);
    ASSERT_EQ(store.save(group), std::nullopt);
    user.group = group.number;
    ASSERT_EQ(store.save(user), std::nullopt);
  }
  EXPECT_EQ(group.number, 4U);
  EXPECT_EQ(user.number, 2U);
  const AccountTables tables = reopened();
  EXPECT_EQ(tables.groups.at(4), group);
  EXPECT_EQ(tables.users.at(2), user);
}

TEST_F(StoreTest, ChangesWhatHasANumber) {
  Store store(path_());
  User user = open(store).users.at(1);
  user.fullName = "The Owner";
  ASSERT_EQ(store.save(user), std::nullopt);
  EXPECT_EQ(reopened().users.at(1).fullName, "The Owner");
  user.number = 99;
  EXPECT_NE(store.save(user), std::nullopt);
}

TEST_F(StoreTest, NeverGivesANumberAgain) {
  Store store(path_());
  open(store);
  User first = userOf("first", 2);
  ASSERT_EQ(store.save(first), std::nullopt);
  ASSERT_EQ(store.removeUser(first.number), std::nullopt);
  User second = userOf("second", 2);
  ASSERT_EQ(store.save(second), std::nullopt);
  EXPECT_EQ(second.number, first.number + 1);
}

TEST_F(StoreTest, RefusesWhatCannotBe) {
  Store store(path_());
  open(store);
  User taken = userOf("ADMIN", 1);
  EXPECT_NE(store.save(taken), std::nullopt);
  User lost = userOf("lost", 77);
  EXPECT_NE(store.save(lost), std::nullopt);
  EXPECT_NE(store.removeGroup(1), std::nullopt);
  EXPECT_EQ(store.removeGroup(77), std::nullopt);
  EXPECT_THAT(reopened().users, SizeIs(1));
}

TEST_F(StoreTest, SaysNoWhileItIsNotOpen) {
  Store store(path_());
  User user = userOf("a", 1);
  Group group;
  EXPECT_EQ(store.save(user), "no database");
  EXPECT_EQ(store.save(group), "no database");
  EXPECT_EQ(store.removeUser(1), "no database");
  EXPECT_EQ(store.removeGroup(1), "no database");
}

TEST_F(StoreTest, BeginsAnewWhereTheFileIsNoDatabase) {
  plant("this is no database at all, and long enough to have a header that is not one");
  expectAnew("file is not a database");
}

TEST_F(StoreTest, BeginsAnewWhereTheFileWasCut) {
  reopened();
  firstPasswords_ = 0;
  std::filesystem::resize_file(path_(), bytes().size() / 2);
  expectAnew("moved aside");
}

TEST_F(StoreTest, BeginsAnewWhereTheLayoutIsAnother) {
  reopened();
  firstPasswords_ = 0;
  tamper("PRAGMA user_version = 2");
  expectAnew("users of version 2");
}

// Nobody could log in to mend that.
TEST_F(StoreTest, BeginsAnewWithoutAManager) {
  reopened();
  firstPasswords_ = 0;
  tamper("UPDATE users SET disabled = 1");
  expectAnew("not a table of users");
}

TEST_F(StoreTest, BeginsAnewWhereItHoldsWhatNoChangeMade) {
  for (const char* const sql : {"UPDATE users SET name = '../x'", "UPDATE users SET password = 'x'",
                                "UPDATE users SET full_name = char(7)", "UPDATE groups SET skin = 'a/b'",
                                "DROP TABLE groups", "PRAGMA foreign_keys = 0; UPDATE users SET user_group = 9"}) {
    std::filesystem::remove_all(path("rw"));
    reopened();
    firstPasswords_ = 0;
    tamper(sql);
    SCOPED_TRACE(sql);
    expectAnew("not a table of users");
  }
}

TEST_F(StoreTest, FailsWithoutHarmWhereItCannotWrite) {
  std::filesystem::create_directories(path("rw"));
  std::ofstream(path("rw/store")) << "a file in the place of the folder";
  Store store(path_());
  AccountTables tables;
  const auto failure = store.open([this] { return firstPassword(); }, tables);
  ASSERT_TRUE(failure.has_value());
  EXPECT_THAT(*failure, HasSubstr("unable to open database file"));
}

TEST_F(StoreTest, SaysWhenItIsFull) {
  Store store(path_());
  open(store);
  store.limitPages(1);
  Store::Failure failure;
  for (int i = 0; i < 200 && !failure; ++i) {
    User user = userOf("user" + std::to_string(i), 2);
    failure = store.save(user);
  }
  EXPECT_EQ(failure, "database or disk is full");
  const std::size_t kept = reopened().users.size();
  store.limitPages(Store::maxPages);
  User user = userOf("one-more", 2);
  EXPECT_EQ(store.save(user), std::nullopt);
  EXPECT_THAT(reopened().users, SizeIs(kept + 1));
}

// Whoever holds the file does not stop those who log in.
TEST_F(StoreTest, SaysWhenSomebodyElseHoldsIt) {
  Store store(path_());
  open(store);
  storage::Database other;
  ASSERT_EQ(other.open(path_()), SQLITE_OK);
  ASSERT_EQ(other.run("BEGIN EXCLUSIVE"), SQLITE_OK);
  User user = userOf("a", 2);
  EXPECT_EQ(store.save(user), "database is locked");
  ASSERT_EQ(other.run("ROLLBACK"), SQLITE_OK);
  EXPECT_EQ(store.save(user), std::nullopt);
}

}  // namespace
}  // namespace userd
