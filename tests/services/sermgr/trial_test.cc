// Records on trial: what begins and ends one, and what the servers hear of it.
#include "tests/services/sermgr/manager_fixture.h"

namespace sermgr_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

using TrialTest = ManagerTest;

TEST_F(TrialTest, TakesATrialBackWhenItsTimeIsUp) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081"));
  EXPECT_FALSE(commandsTo(server)[0]->content.has(tn::u32_id(0x12)));
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 20 s", "https on 8443"));
  loop_->advance(18001);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 2 s", "https on 8443"));
  loop_->advance(1998);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 1 s", "https on 8443"));
  loop_->advance(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080 applied", "https on 8443"));
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 2U);
  EXPECT_THAT(log(), HasSubstr("record http: enabled=1 port=8081, on trial for 20 s\n"
                               "record http: enabled=1 port=8080, taken back\n"));
}

TEST_F(TrialTest, StoresATrialThatIsConfirmed) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:60}");
  listServer();
  answer(0);
  const auto number = ask(tn::command::set, "{s1:'http',u5:3}");
  listServer();
  answer(1);
  EXPECT_EQ(answerTo(number), "{}");
  loop_->advance(60000);
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8081"));
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
  beginAgain();
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'http'}")),
            tn::writeText(text("{s1:'http',bfe000a:0,u2:8081,u5:3,M6:[{u1:0x7F000000,u2:0xFF000000},"
                               "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],s10:'',b11:0}")));
}

TEST_F(TrialTest, StoresNothingOfATrial) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// The second one begins with what the first one gave, and what comes back is what was stored.
TEST_F(TrialTest, BeginsAnewWithAnotherTrial) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:5}");
  loop_->advance(4000);
  ask(tn::command::set, "{s1:'http',bfe000a:1,u12:5}");
  loop_->advance(4999);
  EXPECT_THAT(records(), ElementsAre("http off 8081 for 1 s: the bus does not answer: timeout", "https on 8443"));
  loop_->advance(1);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(TrialTest, HasATrialForEachRecord) {
  ask(tn::command::set, "{s1:'http',u2:1,u12:5}");
  ask(tn::command::set, "{s1:'https',u2:2,u12:7}");
  listServer();
  answer(0);
  answer(1);
  loop_->advance(5000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 2 applied for 2 s"));
  loop_->advance(2000);
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: timeout", "https on 8443"));
}

TEST_F(TrialTest, TakesOneToSixtySecondsForATrial) {
  constexpr const char* refusal = "fe0010 a trial (u32 12) takes 1 to 60 seconds";
  for (const char* wrong : {"0", "61", "0xFFFFFFFF"}) {
    EXPECT_EQ(answerTo(ask(tn::command::set, std::string("{s1:'http',u2:9,u12:") + wrong + "}")), refusal);
  }
  for (const char* wrong : {"s12:'20'", "q12:20", "b12:1", "U12:[20]"}) {
    EXPECT_EQ(answerTo(ask(tn::command::set, std::string("{s1:'http',u2:9,") + wrong + "}")),
              "fe0010 field 12 is not known with this type");
  }
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'other',u12:20}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:0,u12:20}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'http',u2:9,u12:20}")), "fe0010 only set takes a trial (u32 12)");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',u12:20}")), "fe0010 only set takes a trial (u32 12)");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,u12:20,uff000b:0}")), "fe0009 not allowed");
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  ask(tn::command::set, "{s1:'http',u2:9,u12:1}");
  ask(tn::command::set, "{s1:'https',u2:9,u12:60}");
  EXPECT_THAT(records(), ElementsAre("http on 9 for 1 s", "https on 9 for 60 s"));
}

TEST_F(TrialTest, EndsATrialByReplacingOrRemovingTheRecord) {
  ask(tn::command::set, "{s1:'http',u2:1,u12:5}");
  ask(tn::command::set, "{s1:'https',u2:2,u12:5}");
  ask(tn::command::addObj, "{s1:'http',u2:3}");
  ask(tn::command::removeObj, "{s1:'https'}");
  EXPECT_THAT(records(), ElementsAre("http on 3"));
  listServer();
  answer(2);
  loop_->advance(10000);
  EXPECT_THAT(records(), ElementsAre("http on 3 applied"));
  EXPECT_THAT(saidTo(server),
              ElementsAre("1 30001 http on 1", "1 30001 https on 2", "1 30001 http on 3", "1 fe010a https"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 3"));
}

TEST_F(TrialTest, GivesWhatIsOnTrialToServersThatAskOrAreFound) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  list({});
  ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 https on 8443"));
  bus().unlink();
  loop_->advance(0);
  bus().link();
  loop_->advance(0);
  list({program(secondServer, "www")});
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http on 8081", "1 30001 https on 8443"));
}

TEST_F(TrialTest, KeepsATrialRunningThatTheServerRefuses) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:81,u12:20}");
  listServer();
  answer(0, refused());
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
  EXPECT_THAT(records(), ElementsAre("http on 81 for 20 s: cannot bind service connection", "https on 8443"));
  loop_->advance(20000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// Whatever keeps the record from the servers: the broker is silent, lost, without servers; a server is silent.
TEST_F(TrialTest, BringsWhatWasTakenBackUntilItWasHeard) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:1}");
  listServer();
  answer(0);
  loop_->advance(1000);
  loop_->advance(sermgr::Delivery::findMs);  // the broker does not say who is there
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: timeout", "https on 8443"));
  loop_->advance(sermgr::Manager::bringMs);
  answered_ = questions() - 1;
  list({});
  EXPECT_THAT(records(), ElementsAre("http on 8080: no server is running", "https on 8443"));
  loop_->advance(sermgr::Manager::bringMs);
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_THAT(records(), ElementsAre("http on 8080: timeout", "https on 8443"));
  bus().unlink();
  loop_->advance(sermgr::Manager::bringMs);
  loop_->advance(sermgr::Manager::bringMs);
  bus().link();
  EXPECT_THAT(records(), ElementsAre("http on 8080: the bus does not answer: unreachable", "https on 8443"));
  loop_->advance(0);
  answered_ = questions() - 1;
  list({});  // the servers are not back yet
  loop_->advance(sermgr::Manager::bringMs);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_EQ(saidTo(server).size(), 3U);
  answer(2, refused());
  loop_->advance(sermgr::Delivery::answerMs);  // the second server is silent
  loop_->advance(sermgr::Manager::bringMs);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_EQ(saidTo(server).size(), 4U);
  answer(3, refused());
  answer(1, {}, secondServer);
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 4U);
  EXPECT_THAT(records(), ElementsAre("http on 8080: cannot bind service connection", "https on 8443"));
}

// Who takes it back himself is as safe as who waits.
TEST_F(TrialTest, BringsAlsoWhatEndedATrialUntilItWasHeard) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  answer(0);
  const auto number = ask(tn::command::set, "{s1:'http',u2:8080}");
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_EQ(answerTo(number), "{s10:'the bus does not answer: timeout'}");
  ask(tn::command::set, "{s1:'http',u2:8082}");
  loop_->advance(sermgr::Delivery::findMs);
  loop_->advance(sermgr::Manager::bringMs);
  answered_ = questions() - 1;
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8082"));
  answer(1);
  loop_->advance(100000);
  EXPECT_EQ(saidTo(server).size(), 2U);
}

TEST_F(TrialTest, LetsATrialRunOnThatCannotBeStored) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:20}");
  listServer();
  answer(0);
  store_->limitPages(1);
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http'," + allPrefixes() + "}")),
            "fe0011 cannot store the record: database or disk is full");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied for 20 s", "https on 8443"));
  loop_->advance(20000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8080"));
}

TEST_F(TrialTest, TriesNothingOutWhereThereIsNoStorage) {
  beginWithoutStorage();
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,u12:5}")), "fe0011 cannot store the record: no database");
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(TrialTest, EndsWithATrialUnderWay) {
  ask(tn::command::set, "{s1:'http',u2:8081,u12:1}");
  ask(tn::command::set, "{s1:'https',u2:8444,u12:1}");
  listServer();
  loop_->advance(1000);
  loop_->advance(sermgr::Delivery::findMs);
  beginAgain();
  loop_->advance(100000);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

}  // namespace
}  // namespace sermgr_test
