#include "tests/services/sermgr/manager_fixture.h"

namespace sermgr_test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST_F(ManagerTest, StartsWithTheDefaultRecords) {
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'https'}")),
            tn::writeText(text("{s1:'https',bfe000a:0,u2:8443,u5:1,M6:[{u1:0x7F000000,u2:0xFF000000},"
                               "{a3:[0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,1],u4:128}],s10:'',b11:0}")));
}

TEST_F(ManagerTest, KnowsNoRecordOfAnotherName) {
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'HTTP'}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::get)), "fe0006 no such service");
}

TEST_F(ManagerTest, AnswersAChangeWhenTheServerHasTakenIt) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  EXPECT_EQ(answerTo(number), "none");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081"));
  EXPECT_EQ(answerTo(number), "none");
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
}

TEST_F(ManagerTest, GivesTheServerTheWholeRecord) {
  ask(tn::command::set, "{s1:'https',u2:8444}");
  listServer();
  ASSERT_EQ(commandsTo(server).size(), 1U);
  tn::message told = commandsTo(server)[0]->content;
  EXPECT_EQ(told.get(tn::u32_id(2)), 8444U);
  EXPECT_EQ(told.get(tn::u32_id(5)), 1U);
  EXPECT_EQ(told.get(tn::field::disabled), false);
  ASSERT_TRUE(told.get(tn::message_array_id(6)).has_value());
  EXPECT_EQ(told.get(tn::message_array_id(6))->size(), 2U);
}

TEST_F(ManagerTest, KeepsARecordThatTheServerRefusesAndSaysSo) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:81}");
  listServer();
  answer(0, refused());
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
  EXPECT_THAT(records(), ElementsAre("http on 81: cannot bind service connection", "https on 8443"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 81", "https on 8443"));
}

TEST_F(ManagerTest, ForgetsAnErrorOnceTheRecordIsTaken) {
  ask(tn::command::set, "{s1:'http',u2:81}");
  listServer();
  answer(0, refused());
  ask(tn::command::set, "{s1:'http',u2:82}");
  EXPECT_THAT(records(), ElementsAre("http on 82", "https on 8443"));
  listServer();
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 82 applied", "https on 8443"));
}

TEST_F(ManagerTest, WaitsForEveryServer) {
  const auto number = ask(tn::command::set, "{s1:'http',bfe000a:1}");
  list({program(server, "www"), program(secondServer, "www"), program(1702, "www2"), program(1703, "ww")});
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http off 8080"));
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http off 8080"));
  EXPECT_THAT(saidTo(1702), IsEmpty());
  EXPECT_THAT(saidTo(1703), IsEmpty());
  answer(0, refused(), secondServer);
  EXPECT_EQ(answerTo(number), "none");
  answer(0);
  EXPECT_EQ(answerTo(number), "{s10:'cannot bind service connection'}");
}

TEST_F(ManagerTest, SaysThatNoServerRuns) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  list({program(asker, "tn")});
  EXPECT_EQ(answerTo(number), "{s10:'no server is running'}");
  EXPECT_THAT(records(), ElementsAre("http on 8081: no server is running", "https on 8443"));
}

TEST_F(ManagerTest, SaysThatTheServerIsSilentOrGone) {
  const auto silent = ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_EQ(answerTo(silent), "{s10:'timeout'}");
  const auto gone = ask(tn::command::set, "{s1:'http',u2:8082}");
  listServer();
  const RecordingBus::Sent frame{tn::FrameKind::message, server, commandsTo(server)[1]->content, UniqueFd()};
  bus().bounce(frame);
  loop_->advance(0);
  EXPECT_EQ(answerTo(gone), "{s10:'unreachable'}");
}

TEST_F(ManagerTest, AnswersWithinThreeSecondsInAnyCase) {
  static_assert(sermgr::Delivery::findMs + sermgr::Delivery::answerMs <= 3000);
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_EQ(answerTo(number), "{s10:'the bus does not answer: timeout'}");
  EXPECT_THAT(records(), ElementsAre("http on 8081: the bus does not answer: timeout", "https on 8443"));
}

TEST_F(ManagerTest, ChangesNothingOnAnError) {
  const std::size_t asked = questions();
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'other',u2:1}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'other'}")), "fe0006 no such service");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:0}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9,M6:[{}]}")),
            "fe0010 allowed prefix 1: either an IPv4 or an IPv6 address is needed");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',s2:'9'}")), "fe0010 field 2 is not known with this type");
  constexpr const char* name = "fe0010 the name (string 1) has 1 to 64 printable ASCII characters";
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{u2:9}")), name);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'a\\nb'}")), name);
  EXPECT_EQ(answerTo(ask(tn::command::removeObj)), name);
  EXPECT_EQ(answerTo(ask(tn::command::set)), name);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',u2:65536}")), "fe0010 the port (u32 2) is 1 to 65535");
  EXPECT_EQ(questions(), asked);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, AddsARecord) {
  const auto number = ask(tn::command::addObj, "{s1:'guest',u2:8090,M6:[{u1:0x0A000000,u2:0xFF000000}]}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 guest on 8090"));
  answer(0, tn::errorMsg(tn::error::noSuchService, "no such service"));
  EXPECT_EQ(answerTo(number), "{s10:'no such service'}");
  EXPECT_THAT(records(), ElementsAre("guest on 8090: no such service", "http on 8080", "https on 8443"));
  beginAgain();
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'guest'}")),
            tn::writeText(text("{s1:'guest',bfe000a:0,u2:8090,M6:[{u1:0x0A000000,u2:0xFF000000}],s10:'',b11:0}")));
}

TEST_F(ManagerTest, ReplacesARecordThatIsAddedAgainAsAWhole) {
  ask(tn::command::addObj, "{s1:'https'}");
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'https'}")),
            tn::writeText(text("{s1:'https',bfe000a:0,u2:80,M6:[],s10:'',b11:0}")));
}

TEST_F(ManagerTest, TakesAsManyRecordsAsItKeeps) {
  for (std::size_t i = 2; i < sermgr::maxServers; ++i) {
    const std::string typed = std::string("{s1:'n").append(std::to_string(i)).append("'}");
    EXPECT_EQ(answerTo(ask(tn::command::addObj, typed)), "none");
  }
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'one more'}")), "fe0010 at most 64 servers can be kept");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'http',u2:1}")), "none");
  EXPECT_EQ(records().size(), sermgr::maxServers);
  beginAgain();
  EXPECT_EQ(records().size(), sermgr::maxServers);
}

TEST_F(ManagerTest, RemovesARecord) {
  const auto number = ask(tn::command::removeObj, "{s1:'http'}");
  EXPECT_EQ(answerTo(number), "none");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 fe010a http"));
  answer(0);
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'}")), "fe0006 no such service");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
}

TEST_F(ManagerTest, SaysThatARemovalWasNotHeard) {
  const auto number = ask(tn::command::removeObj, "{s1:'http'}");
  listServer();
  loop_->advance(sermgr::Delivery::answerMs);
  EXPECT_EQ(answerTo(number), "{s10:'timeout'}");
  EXPECT_THAT(records(), ElementsAre("https on 8443"));
}

TEST_F(ManagerTest, FindsNothingWrongWithARemovalWhereNothingListens) {
  const auto unknown = ask(tn::command::removeObj, "{s1:'http'}");
  listServer();
  answer(0, tn::errorMsg(tn::error::noSuchService, "no such service"));
  EXPECT_EQ(answerTo(unknown), "{}");
  const auto nobody = ask(tn::command::removeObj, "{s1:'https'}");
  list({});
  EXPECT_EQ(answerTo(nobody), "{}");
}

// Changes of one record in a row: each is told, in order, and only the last one's answer says how the record is.
TEST_F(ManagerTest, GoesByTheLastOfSeveralChanges) {
  const auto first = ask(tn::command::set, "{s1:'http',u2:1}");
  const auto second = ask(tn::command::set, "{s1:'http',u2:2}");
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 1", "1 30001 http on 2"));
  answer(1);
  answer(0, refused());
  EXPECT_EQ(answerTo(first), "{s10:'cannot bind service connection'}");
  EXPECT_EQ(answerTo(second), "{}");
  EXPECT_THAT(records(), ElementsAre("http on 2 applied", "https on 8443"));
}

TEST_F(ManagerTest, GivesAServerThatAsksAllRecordsEnabledOnesFirst) {
  ask(tn::command::set, "{s1:'http',bfe000a:1}");
  list({});
  const auto number = ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 https on 8443", "1 30001 http off 8080"));
  answer(0, refused());
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http off 8080 applied", "https on 8443: cannot bind service connection"));
}

TEST_F(ManagerTest, GivesRecordsToWhoeverAsksButGoesByServersAlone) {
  const auto number = ask(sermgr::command::askRecords);
  listServer();
  EXPECT_EQ(answerTo(number), "{}");
  EXPECT_THAT(saidTo(asker), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  EXPECT_THAT(saidTo(server), IsEmpty());
  for (const RecordingBus::Sent* frame : commandsTo(asker)) {
    EXPECT_FALSE(frame->content.has(tn::field::requestNumber));
  }
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, GivesRecordsAlsoWhenTheBrokerDoesNotSayWhoAsks) {
  ask(sermgr::command::askRecords, "{}", server);
  loop_->advance(sermgr::Delivery::findMs);
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
}

TEST_F(ManagerTest, GivesRecordsOnceToAnImpatientServer) {
  ask(sermgr::command::askRecords, "{}", server);
  EXPECT_EQ(answerTo(ask(sermgr::command::askRecords, "{}", server)), "{}");
  EXPECT_EQ(questions(), 1U);
  listServer();
  EXPECT_EQ(saidTo(server).size(), 2U);
  ask(sermgr::command::askRecords, "{}", server);
  listServer();
  EXPECT_EQ(saidTo(server).size(), 4U);
}

TEST_F(ManagerTest, GivesAllRecordsToEveryServerWhenTheLinkIsMade) {
  bus().unlink();
  loop_->advance(0);
  bus().link();
  loop_->advance(0);
  list({program(server, "www"), program(secondServer, "www")});
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  EXPECT_THAT(saidTo(secondServer), ElementsAre("1 30001 http on 8080", "1 30001 https on 8443"));
  for (const std::uint32_t id : {server, secondServer}) {
    answer(0, {}, id);
    answer(1, id == server ? tn::message() : refused(), id);
  }
  EXPECT_THAT(records(), ElementsAre("http on 8080 applied", "https on 8443: cannot bind service connection"));
}

TEST_F(ManagerTest, FindsNoServerWhenTheLinkIsMade) {
  bus().link();
  loop_->advance(0);
  list({program(asker, "tn")});
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, AnswersAChangeWhenTheBrokerIsLost) {
  const auto number = ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  bus().unlink();
  loop_->advance(0);
  EXPECT_EQ(answerTo(number), "none");  // there is no way for it
  bus().link();
  loop_->advance(0);
  EXPECT_THAT(records(), ElementsAre("http on 8081: unreachable", "https on 8443"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 30001 http on 8081", "1 30001 http on 8081", "1 30001 https on 8443"));
  answer(1);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
}

TEST_F(ManagerTest, LetsOnlyThoseChangeWhoMay) {
  constexpr const char* refusal = "fe0009 not allowed";
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:1,uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'new',uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http',uff000b:0}")), refusal);
  EXPECT_EQ(answerTo(ask(sermgr::command::askRecords, "{uff000b:0}")), refusal);
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:1,uff000b:0x100}")), "none");
  EXPECT_THAT(records(), ElementsAre("http on 1", "https on 8443"));
}

TEST_F(ManagerTest, AnswersOtherCommandsAsEveryHandler) {
  EXPECT_EQ(answerTo(ask(tn::command::reset)), "fe0007 unknown command");
  EXPECT_EQ(answerTo(ask(0x30001, "{s1:'http'}")), "fe0007 unknown command");
  EXPECT_EQ(answerTo(ask(0)), "fe0007 unknown command");
}

TEST_F(ManagerTest, ChangesAlsoForThoseWhoWantNoAnswer) {
  tn::message command = text("{s1:'http',u2:8081}");
  command.insert_vector(tn::field::destination, std::array{sermgr::handlerId});
  command.insert(tn::field::command, tn::command::set);
  bus().deliver(asker, command);
  listServer();
  answer(0);
  EXPECT_THAT(records(), ElementsAre("http on 8081 applied", "https on 8443"));
  for (const RecordingBus::Sent& frame : bus().sent) {
    const bool aboutTheChange = frame.peer == asker && !frame.content.has(tn::message_array_id(1));
    EXPECT_FALSE(aboutTheChange) << tn::writeText(frame.content);
  }
}

TEST_F(ManagerTest, RefusesMoreChangesThanItCanAnswerInTime) {
  for (std::size_t i = 0; i < sermgr::Manager::maxChanges; ++i)
    ask(tn::command::set, "{s1:'http',u2:8081}");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "fe0012 too many changes at once");
  list({});
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "none");
}

TEST_F(ManagerTest, RefusesAChangeThatCannotBeStored) {
  store_->limitPages(1);
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9," + allPrefixes() + "}")),
            "fe0011 cannot store the record: database or disk is full");
  EXPECT_EQ(questions(), 0U);
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

TEST_F(ManagerTest, ServesTheDefaultsWhereThereIsNoStorage) {
  beginWithoutStorage();
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:9}")), "fe0011 cannot store the record: no database");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'}")), "fe0011 cannot remove the record: no database");
  EXPECT_THAT(records(), ElementsAre("http on 8080", "https on 8443"));
}

// The store holds other records than the defaults, which were served meanwhile: the servers are told those, and that
// the rest is gone.
TEST_F(ManagerTest, TakesTheRecordsOnceTheStorageCanBeUsed) {
  ask(tn::command::set, "{s1:'http',u2:9}");
  ask(tn::command::removeObj, "{s1:'https'}");
  end();
  const std::string away = directory_ + ".away";
  std::filesystem::rename(directory_, away);
  std::ofstream(directory_) << "a file in the way";
  begin();
  loop_->advance(10 * sermgr::Manager::retryMs);
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:7}")), "fe0011 cannot store the record: no database");
  std::filesystem::remove(directory_);
  std::filesystem::rename(away, directory_);
  loop_->advance(sermgr::Manager::retryMs);
  EXPECT_THAT(records(), ElementsAre("http on 9"));
  listServer();
  EXPECT_THAT(saidTo(server), ElementsAre("1 fe010a https", "1 30001 http on 9"));
  EXPECT_THAT(log(), HasSubstr("; the defaults serve and changes are refused, trying again\nrecords: they can"));
  ask(tn::command::set, "{s1:'http',u2:10}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 10"));
}

TEST_F(ManagerTest, EndsWithAnswersUnderWay) {
  ask(tn::command::set, "{s1:'http',u2:8081}");
  listServer();
  ask(tn::command::set, "{s1:'http',u2:8082}");
  beginAgain();
  EXPECT_THAT(records(), ElementsAre("http on 8082", "https on 8443"));
}

TEST_F(ManagerTest, ASessionSeesAndChangesWhatItsPoliciesPermit) {
  const std::string guest = "sff000a:'guest',uff000b:0x10";
  const std::string nobody = "sff000a:'guest',uff000b:0x40";
  EXPECT_THAT(answerTo(ask(tn::command::getAll, "{" + guest + "}")), testing::StartsWith("{M1:"));
  EXPECT_EQ(answerTo(ask(tn::command::getAll, "{" + nobody + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'http'," + nobody + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'http',u2:81," + guest + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'http'," + guest + "}")), "fe0009 not allowed");
  EXPECT_EQ(answerTo(ask(0x30003, "{sff000a:'owner',uff000b:0xffffffff}")), "fe0009 not allowed");
  const std::uint32_t change = ask(tn::command::set, "{s1:'http',u2:81,sff000a:'owner',uff000b:0x100}");
  EXPECT_EQ(answerTo(change), "none");  // until the servers have been told
}

}  // namespace
}  // namespace sermgr_test
