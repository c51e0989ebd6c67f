#include <gmock/gmock.h>

#include "platform/policies.h"
#include "tests/services/userd/service_fixture.h"

namespace userd {
namespace {

using ::testing::HasSubstr;

constexpr std::uint32_t all = tn::policies::all;
constexpr std::uint32_t manage = tn::policies::manageUsers;
constexpr char notAllowed[] = "fe0009 not allowed";

class UsersTest : public ServiceTest {
 protected:
  std::string users(std::uint32_t command, std::string_view typed = "{}") { return ask(userHandlerId, command, typed); }
  std::string groups(std::uint32_t command, std::string_view typed = "{}") {
    return ask(groupHandlerId, command, typed);
  }
  std::string asBob(std::uint32_t command, std::string_view typed = "{}") {
    return askAs("bob", 0xd0, userHandlerId, command, typed);
  }
  std::string change(std::string_view typed) { return users(tn::command::setObj, typed); }
  std::string setPassword(std::string_view typed) { return users(command::setPassword, typed); }
  bool mayLogIn(std::string_view name, std::string_view password) {
    loop_->advance(3'600'000);
    return !logIn(name, password).starts_with("fe");
  }
};

TEST_F(UsersTest, AreListedByName) {
  EXPECT_EQ(users(tn::command::addObj, "{s1:'Zoe',s3:'12345678',s12:'guests',b1c:0}"), "{ufe0001:2}");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'bob',s3:'12345678',s11:'Bob'}"), "{ufe0001:3}");
  EXPECT_EQ(users(tn::command::getAll),
            "{M1:[{ufe0001:2,s1:'Zoe',s11:'',s12:'guests',b1c:0,bfe000a:0,ub:16},"
            "{ufe0001:1,s1:'admin',s11:'',s12:'administrators',b1c:0,bfe000a:0,ub:17360},"
            "{ufe0001:3,s1:'bob',s11:'Bob',s12:'users',b1c:1,bfe000a:0,ub:208}]}");
}

TEST_F(UsersTest, AreFoundByNumberAndName) {
  addBob();
  const std::string bob = "{ufe0001:2,s1:'bob',s11:'Bob B.',s12:'users',b1c:1,bfe000a:0,ub:208}";
  EXPECT_EQ(users(tn::command::get, "{s1:'bob'}"), bob);
  EXPECT_EQ(users(tn::command::get, "{ufe0001:2}"), bob);
  EXPECT_EQ(users(tn::command::get, "{s1:'Bob'}"), "fe0006 no such user");
  EXPECT_EQ(users(tn::command::get, "{ufe0001:3}"), "fe0006 no such user");
  EXPECT_EQ(users(tn::command::get), "fe0010 a user's name (string 1) or number (u32 0xfe0001) is missing");
}

TEST_F(UsersTest, AreAddedWithAPassword) {
  addBob();
  EXPECT_TRUE(mayLogIn("bob", "bobs password"));
  EXPECT_EQ(users(tn::command::addObj, "{s1:'bob',s3:'12345678'}"), "fe0013 there is a user of that name");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve'}"), "fe0010 the password (string 3) is missing");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve',s3:'1234567'}"),
            "fe0010 a password (string 3) has 8 to 256 bytes and no control characters");
  EXPECT_EQ(users(tn::command::addObj, "{s3:'12345678'}"), "fe0010 the name (string 1) is missing");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'a b',s3:'12345678'}").substr(0, 24), "fe0010 a name (string 1)");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve',s3:'12345678',s12:'x'}"), "fe0006 no such group");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve',s3:'12345678',u12:1}"),
            "fe0010 field 12 is not known with this type");
  end();
  begin();
  EXPECT_TRUE(mayLogIn("bob", "bobs password"));
}

TEST_F(UsersTest, AreChangedFieldByField) {
  addBob();
  EXPECT_EQ(change("{s1:'bob',s12:'guests'}"), "{}");
  EXPECT_EQ(change("{s1:'bob',s11:'Robert',b1c:0}"), "{}");
  EXPECT_EQ(change("{ufe0001:2,s1:'robert'}"), "{}");
  const std::string robert = "{ufe0001:2,s1:'robert',s11:'Robert',s12:'guests',b1c:0,bfe000a:0,ub:16}";
  EXPECT_EQ(users(tn::command::get, "{ufe0001:2}"), robert);
  EXPECT_EQ(change(robert), "{}");
  EXPECT_TRUE(mayLogIn("robert", "bobs password"));
  EXPECT_FALSE(mayLogIn("bob", "bobs password"));
  EXPECT_EQ(change("{s1:'bob'}"), "fe0006 no such user");
  EXPECT_EQ(change("{ufe0001:2,s1:'admin'}"), "fe0013 there is a user of that name");
  EXPECT_EQ(change("{ufe0001:2,s3:'12345678'}"), "fe0010 a password is set with command 0x20001");
  EXPECT_EQ(change("{ufe0001:2,s11:'\\x1b'}").substr(0, 18), "fe0010 a full name");
  EXPECT_EQ(change("{s1:'admin',bfe000a:1}"), "fe0013 the last user who may manage users has to stay");
}

TEST_F(UsersTest, AreRemoved) {
  addBob();
  EXPECT_EQ(users(tn::command::removeObj, "{s1:'bob'}"), "{}");
  EXPECT_EQ(users(tn::command::removeObj, "{s1:'bob'}"), "fe0006 no such user");
  EXPECT_FALSE(mayLogIn("bob", "bobs password"));
  EXPECT_EQ(users(tn::command::removeObj, "{ufe0001:1}"), "fe0013 the last user who may manage users has to stay");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'bob',s3:'12345678'}"), "{ufe0001:3}");
}

TEST_F(UsersTest, GetPasswordsFromManagers) {
  addBob();
  EXPECT_EQ(setPassword("{s1:'bob',s3:'new password'}"), "{}");
  EXPECT_TRUE(mayLogIn("bob", "new password"));
  EXPECT_FALSE(mayLogIn("bob", "bobs password"));
  EXPECT_EQ(askAs("admin", all, userHandlerId, command::setPassword, "{ufe0001:2,s3:'another one'}"), "{}");
  EXPECT_TRUE(mayLogIn("bob", "another one"));
  EXPECT_EQ(setPassword("{s1:'eve',s3:'12345678'}"), "fe0006 no such user");
  EXPECT_EQ(setPassword("{s1:'bob'}"), "fe0010 the password (string 3) is missing");
  EXPECT_EQ(setPassword("{s1:'bob',s3:'short'}").substr(0, 24), "fe0010 a password (strin");
  EXPECT_EQ(setPassword("{s1:'bob',s3:'12345678',s11:'x'}"), "fe0010 field 11 is not known with this type");
}

TEST_F(UsersTest, ChangeTheirOwnPasswordWithTheOldOne) {
  addBob();
  EXPECT_EQ(asBob(command::setPassword, "{s3:'new password',s4:'bobs password'}"), "{}");
  EXPECT_TRUE(mayLogIn("bob", "new password"));
  EXPECT_EQ(asBob(command::setPassword, "{s1:'bob',s3:'newer password',s4:'bobs password'}"), "fe0009 wrong password");
  EXPECT_EQ(asBob(command::setPassword, "{s1:'bob',s3:'newer password'}"),
            "fe0010 the old password (string 4) is missing");
  EXPECT_EQ(asBob(command::setPassword, "{s1:'admin',s3:'12345678',s4:'new password'}"), notAllowed);
  EXPECT_EQ(asBob(command::setPassword, "{ufe0001:2,s3:'newest password',s4:'new password'}"), "{}");
  EXPECT_TRUE(mayLogIn("bob", "newest password"));
}

// A session that was left open is not enough to take an account over.
TEST_F(UsersTest, WhoManageOthersNeedTheirOwnOldPasswordToo) {
  const std::string first = firstPassword();
  EXPECT_EQ(askAs("admin", all, userHandlerId, command::setPassword, "{s3:'12345678'}"),
            "fe0010 the old password (string 4) is missing");
  EXPECT_EQ(askAs("admin", all, userHandlerId, command::setPassword, "{s3:'12345678',s4:'" + first + "'}"), "{}");
  EXPECT_TRUE(mayLogIn("admin", "12345678"));
}

TEST_F(UsersTest, PayForGuessingTheirOldPassword) {
  addBob();
  std::string last;
  for (int i = 0; i < 8; ++i)
    last = asBob(command::setPassword, "{s3:'new password',s4:'wrong'}");
  EXPECT_EQ(last, "fe0012 too many attempts, try again in 4 s");
}

TEST_F(UsersTest, AreManagedByThoseWhoMayAlone) {
  addBob();
  for (const std::uint32_t policies : {0U, 0xd0U, ~manage}) {
    EXPECT_EQ(askAs("admin", policies, userHandlerId, tn::command::getAll), notAllowed);
    EXPECT_EQ(askAs("admin", policies, userHandlerId, tn::command::get, "{s1:'bob'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, userHandlerId, tn::command::addObj, "{s1:'eve',s3:'12345678'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, userHandlerId, tn::command::setObj, "{s1:'bob',b1c:0}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, userHandlerId, tn::command::removeObj, "{s1:'bob'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, userHandlerId, command::setPassword, "{s1:'bob',s3:'12345678'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, groupHandlerId, tn::command::getAll), notAllowed);
    EXPECT_EQ(askAs("admin", policies, groupHandlerId, tn::command::get, "{s1:'users'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, groupHandlerId, tn::command::addObj, "{s1:'kids'}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, groupHandlerId, tn::command::setObj, "{s1:'users',ub:0}"), notAllowed);
    EXPECT_EQ(askAs("admin", policies, groupHandlerId, tn::command::removeObj, "{s1:'guests'}"), notAllowed);
  }
  EXPECT_EQ(askAs("admin", manage, userHandlerId, tn::command::setObj, "{s1:'bob',b1c:0}"), "{}");
}

// A session keeps the policies of its login.
TEST_F(UsersTest, AreManagedByThoseWhoStillMay) {
  addBob();
  EXPECT_EQ(askAs("bob", all, userHandlerId, tn::command::getAll), notAllowed);
  EXPECT_EQ(askAs("nobody", all, userHandlerId, tn::command::getAll), notAllowed);
  EXPECT_EQ(change("{s1:'bob',s12:'administrators'}"), "{}");
  EXPECT_THAT(askAs("bob", all, userHandlerId, tn::command::getAll), HasSubstr("'bob'"));
  EXPECT_EQ(change("{s1:'bob',bfe000a:1}"), "{}");
  EXPECT_EQ(askAs("bob", all, userHandlerId, tn::command::getAll), notAllowed);
}

TEST_F(UsersTest, AreManagedOnlyWithPolicies) {
  tn::message named;
  named.insert(tn::field::user, "admin");
  EXPECT_EQ(answerTo(send(userHandlerId, tn::command::getAll, named)), notAllowed);
  EXPECT_EQ(answerTo(send(userHandlerId, tn::command::get, named)), notAllowed);
  tn::message marked;
  marked.insert(tn::field::policies, manage);
  EXPECT_THAT(answerTo(send(userHandlerId, tn::command::getAll, marked)), HasSubstr("'admin'"));
}

TEST_F(UsersTest, SeeThemselves) {
  addBob();
  const std::string bob = "{ufe0001:2,s1:'bob',s11:'Bob B.',s12:'users',b1c:1,bfe000a:0,ub:208}";
  EXPECT_EQ(asBob(tn::command::get), bob);
  EXPECT_EQ(asBob(tn::command::get, "{s1:'bob'}"), bob);
  EXPECT_EQ(asBob(tn::command::get, "{s1:'admin'}"), notAllowed);
  EXPECT_EQ(asBob(tn::command::get, "{s1:'nobody'}"), notAllowed);
}

TEST_F(UsersTest, AreNotStoredWithoutAHash) {
  hasher_->refuse = true;
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve',s3:'12345678'}"),
            "fe0011 cannot store the change: no hash can be made");
  EXPECT_EQ(users(tn::command::get, "{s1:'eve'}"), "fe0006 no such user");
}

TEST_F(UsersTest, AreCheckedAgainWhenTheHashIsThere) {
  addBob();
  const std::uint32_t password = send(userHandlerId, command::setPassword, text("{s1:'bob',s3:'12345678'}"));
  const std::uint32_t removal = send(userHandlerId, tn::command::removeObj, text("{s1:'bob'}"));
  hasher_->finishAll();
  EXPECT_EQ(answerTo(removal), "{}");
  EXPECT_EQ(answerTo(password), "fe0006 no such user");
}

TEST_F(UsersTest, WaitForHashesInBounds) {
  std::vector<std::uint32_t> numbers;
  for (std::size_t i = 0; i <= UserHandler::maxWaiting; ++i) {
    const std::string typed = "{s1:'user" + std::to_string(i) + "',s3:'12345678'}";
    numbers.push_back(send(userHandlerId, tn::command::addObj, text(typed)));
  }
  EXPECT_EQ(answerTo(numbers.back()), "fe0012 too busy, try again");
  hasher_->finishAll();
  EXPECT_EQ(answerTo(numbers[UserHandler::maxWaiting - 1]), "{ufe0001:65}");
}

TEST_F(UsersTest, TheNoteGoesWithTheFirstChange) {
  EXPECT_TRUE(hasNote());
  addBob();
  EXPECT_EQ(setPassword("{s1:'bob',s3:'new password'}"), "{}");
  EXPECT_EQ(change("{s1:'admin',s11:'The Owner'}"), "{}");
  EXPECT_TRUE(hasNote());
  EXPECT_EQ(setPassword("{s1:'admin',s3:'new password'}"), "{}");
  EXPECT_FALSE(hasNote());
  EXPECT_TRUE(mayLogIn("admin", "new password"));
}

TEST_F(UsersTest, TheNoteGoesWithTheFirstUser) {
  EXPECT_EQ(users(tn::command::addObj, "{s1:'eve',s3:'12345678',s12:'administrators'}"), "{ufe0001:2}");
  EXPECT_EQ(users(tn::command::removeObj, "{s1:'admin'}"), "{}");
  EXPECT_FALSE(hasNote());
}

TEST_F(UsersTest, TheNoteGoesWithTheFirstUsersName) {
  EXPECT_EQ(change("{ufe0001:1,s1:'owner'}"), "{}");
  EXPECT_FALSE(hasNote());
}

TEST_F(UsersTest, HaveGroups) {
  EXPECT_EQ(groups(tn::command::addObj, "{s1:'kids',ub:0x10,s18:'simple'}"), "{ufe0001:4}");
  EXPECT_EQ(groups(tn::command::get, "{s1:'kids'}"), "{ufe0001:4,s1:'kids',ub:16,s18:'simple',u2:0}");
  EXPECT_EQ(users(tn::command::addObj, "{s1:'bob',s3:'12345678',s12:'kids'}"), "{ufe0001:2}");
  EXPECT_EQ(groups(tn::command::setObj, "{ufe0001:4,s1:'children',ub:0x50}"), "{}");
  EXPECT_EQ(groups(tn::command::get, "{ufe0001:4}"), "{ufe0001:4,s1:'children',ub:80,s18:'simple',u2:1}");
  EXPECT_EQ(groups(tn::command::setObj, "{ufe0001:4,s1:'children',ub:80,s18:'simple',u2:1}"), "{}");
  EXPECT_THAT(users(tn::command::get, "{s1:'bob'}"), HasSubstr("s12:'children',b1c:1,bfe000a:0,ub:80"));
  EXPECT_EQ(groups(tn::command::removeObj, "{s1:'children'}"), "fe0013 the group has users");
  EXPECT_EQ(users(tn::command::removeObj, "{s1:'bob'}"), "{}");
  EXPECT_EQ(groups(tn::command::removeObj, "{s1:'children'}"), "{}");
  EXPECT_EQ(groups(tn::command::getAll),
            "{M1:[{ufe0001:1,s1:'administrators',ub:17360,s18:'admin',u2:1},"
            "{ufe0001:3,s1:'guests',ub:16,s18:'default',u2:0},{ufe0001:2,s1:'users',ub:208,s18:'default',u2:0}]}");
}

TEST_F(UsersTest, HaveGroupsThatAreChecked) {
  EXPECT_EQ(groups(tn::command::addObj, "{ub:1}"), "fe0010 the name (string 1) is missing");
  EXPECT_EQ(groups(tn::command::addObj, "{s1:'users'}"), "fe0013 there is a group of that name");
  EXPECT_EQ(groups(tn::command::addObj, "{s1:'x',s18:'../x'}").substr(0, 13), "fe0010 a skin");
  EXPECT_EQ(groups(tn::command::addObj, "{s1:'x',s3:'x'}"), "fe0010 field 3 is not known with this type");
  EXPECT_EQ(groups(tn::command::setObj, "{ub:1}"),
            "fe0010 a group's name (string 1) or number (u32 0xfe0001) is missing");
  EXPECT_EQ(groups(tn::command::setObj, "{s1:'x',ub:1}"), "fe0006 no such group");
  EXPECT_EQ(groups(tn::command::removeObj, "{ufe0001:9}"), "fe0006 no such group");
  EXPECT_EQ(groups(tn::command::setObj, "{ufe0001:1,ub:0x10}"),
            "fe0013 the last user who may manage users has to stay");
  EXPECT_EQ(groups(0x20001), "fe0007 unknown command");
}

}  // namespace
}  // namespace userd
