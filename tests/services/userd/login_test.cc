#include <fstream>
#include <gmock/gmock.h>

#include "tests/services/userd/service_fixture.h"

namespace userd {
namespace {

using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr char wrong[] = "fe0009 wrong user name or password";

class LoginTest : public ServiceTest {};

TEST_F(LoginTest, TellsTheTunnelAllItNeeds) {
  addBob();
  tn::message fields = text("{s1:'bob',s3:'bobs password',u7:5,b8:1}");
  fields.insert(field::clientAddress, tn::Addr6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 9});
  fields.insert_vector(tn::field::sender, std::array<std::uint32_t, 2>{100, 7});
  const std::uint32_t number = loop_->bus.request(server, loginHandlerId, command::logIn, fields);
  hasher_->finishAll();
  const tn::message& answer = loop_->bus.replyTo(number)->content;
  EXPECT_EQ(answer.get(tn::u32_id(0xfe0001)), 42U);
  EXPECT_EQ(answer.get(tn::u32_id(11)), 0xd0U);
  EXPECT_EQ(answer.get(tn::string_id(17)), "Bob B.");
  EXPECT_EQ(answer.get(tn::string_id(18)), "users");
  EXPECT_THAT(std::string(answer.get(tn::string_id(21)).value_or("")), Not(""));
  EXPECT_THAT(std::string(answer.get(tn::string_id(23)).value_or("")), MatchesRegex("[0-9.]+"));
  EXPECT_EQ(answer.get(tn::string_id(24)), "default");
  EXPECT_EQ(answer.get(tn::field::destination), (std::vector<std::uint32_t>{100, 7}));
  EXPECT_THAT(takeLog(), HasSubstr("login of bob from 10.0.0.9\n"));
}

TEST_F(LoginTest, GivesEachLoginItsNumber) {
  EXPECT_THAT(logIn("admin", firstPassword()), HasSubstr("ufe0001:42,"));
  EXPECT_THAT(logIn("admin", firstPassword()), HasSubstr("ufe0001:43,"));
}

TEST_F(LoginTest, TellsNothingOfWhatIsWrong) {
  addBob();
  EXPECT_EQ(ask(userHandlerId, tn::command::setObj, "{s1:'bob',bfe000a:1}"), "{}");
  EXPECT_EQ(logIn("bob", "bobs password"), wrong);
  EXPECT_EQ(logIn("nobody", "bobs password"), wrong);
  EXPECT_EQ(logIn("admin", "bobs password"), wrong);
  EXPECT_EQ(hasher_->started, 4U);
}

TEST_F(LoginTest, TakesAnyBytesForAWrongPassword) {
  const std::string password = firstPassword();
  const std::pair<std::string, std::string> pairs[] = {{"admin", ""},
                                                       {"admin", std::string(257, 'x')},
                                                       {"admin", std::string(65535, 'x')},
                                                       {"admin", password + std::string(1, '\0')},
                                                       {"admin", "\xff\xfe" + password},
                                                       {std::string(65535, 'a'), password},
                                                       {"admin\n", password},
                                                       {std::string("admin\0", 6), password},
                                                       {"Admin", password},
                                                       {"", password}};
  for (const auto& [name, tried] : pairs) {
    loop_->advance(600'000);
    EXPECT_EQ(logIn(name, tried), wrong) << name.substr(0, 10) << ' ' << tried.size();
  }
}

TEST_F(LoginTest, KeepsWhatWasTypedOutOfTheLog) {
  logIn("my secret in the wrong field", "and here too");
  EXPECT_EQ(takeLog().find("secret"), std::string::npos);
}

TEST_F(LoginTest, SaysWhatIsMissing) {
  EXPECT_EQ(ask(loginHandlerId, 1, "{s3:'x'}"), "fe0010 the user name (string 1) is missing");
  EXPECT_EQ(ask(loginHandlerId, 1, "{s1:'admin'}"), "fe0010 the password (string 3) is missing");
  EXPECT_EQ(ask(loginHandlerId, 1, "{u1:1,r3:[1]}"), "fe0010 the user name (string 1) is missing");
  EXPECT_EQ(ask(loginHandlerId, 2), "fe0007 unknown command");
}

// A session could else try passwords from addresses that it makes up.
TEST_F(LoginTest, IsNotForSessions) {
  const std::string typed = "{s1:'admin',s3:'" + firstPassword() + "'}";
  EXPECT_EQ(askAs("admin", 0xffffffff, loginHandlerId, command::logIn, typed), "fe0009 not allowed");
  tn::message fields = text(typed);
  fields.insert(tn::field::user, "admin");
  const std::uint32_t named = send(loginHandlerId, command::logIn, fields);
  fields.remove(tn::field::user);
  fields.insert(tn::field::policies, 0U);
  const std::uint32_t marked = send(loginHandlerId, command::logIn, fields);
  EXPECT_EQ(answerTo(named), "fe0009 not allowed");
  EXPECT_EQ(answerTo(marked), "fe0009 not allowed");
  EXPECT_EQ(hasher_->started, 0U);
}

TEST_F(LoginTest, SaysWhenThereWereTooManyAttempts) {
  std::vector<std::uint32_t> numbers;
  for (int i = 0; i < 8; ++i)
    numbers.push_back(send(loginHandlerId, command::logIn, text("{s1:'admin',s3:'wrong'}")));
  EXPECT_EQ(answerTo(numbers.back()), "fe0012 too many attempts, try again in 4 s");
  for (int i = 0; i < 80; ++i) {
    hasher_->finishAll();
    loop_->advance(50);
  }
  for (std::size_t i = 0; i < 7; ++i)
    EXPECT_EQ(answerTo(numbers[i]), wrong);
}

TEST_F(LoginTest, AnswersNobodyAtAnEndlessPath) {
  tn::message fields = text("{s1:'admin',s3:'wrong'}");
  fields.insert_vector(tn::field::sender, std::vector<std::uint32_t>(1000, 7));
  const std::uint32_t number = send(loginHandlerId, command::logIn, fields);
  hasher_->finishAll();
  EXPECT_EQ(answerTo(number), "none");
}

TEST_F(LoginTest, MakesOneUserWithAPasswordOfItsOwn) {
  const std::string password = firstPassword();
  EXPECT_THAT(password, MatchesRegex("[a-z2-9-]{24}"));
  EXPECT_THAT(logIn("admin", password), HasSubstr("s12:'administrators'"));
  end();
  begin();
  EXPECT_EQ(firstPassword(), password);
  EXPECT_THAT(logIn("admin", password), HasSubstr("s12:'administrators'"));
}

// The power went between the change of the password and the end of the note.
TEST_F(LoginTest, TakesAwayANoteThatIsNotTrueAnyMore) {
  ASSERT_TRUE(FirstLogin(path("rw/store/first-login")).write("admin", Secret("another password")));
  end();
  begin();
  EXPECT_FALSE(hasNote());
}

TEST_F(LoginTest, SaysThatThereIsNoStorageAndTriesAgain) {
  end();
  std::filesystem::remove_all(path("rw"));
  std::ofstream(path("rw")) << "in the way";
  takeLog();
  begin();
  EXPECT_EQ(logIn("admin", "x"), "fe0011 the users cannot be read now");
  EXPECT_EQ(ask(userHandlerId, tn::command::getAll), "fe0011 the users cannot be read now");
  EXPECT_EQ(ask(groupHandlerId, tn::command::getAll), "fe0011 the users cannot be read now");
  EXPECT_EQ(ask(nameHandlerId, tn::command::getObj, "{ufe0001:1}"), "fe0011 the users cannot be read now");
  loop_->advance(Service::retryMs * 3);
  const std::string log = takeLog();
  EXPECT_EQ(log.find("nobody can log in"), log.rfind("nobody can log in"));
  EXPECT_THAT(log, ContainsRegex("Not a directory; nobody can log in, trying again\n"));
  std::filesystem::remove(path("rw"));
  loop_->advance(Service::retryMs);
  EXPECT_THAT(logIn("admin", firstPassword()), HasSubstr("s12:'administrators'"));
}

}  // namespace
}  // namespace userd
