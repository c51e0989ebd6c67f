// list, stats, call, send, and how the bus is reached.

#include "tests/tools/verb_fixture.h"

namespace {

using fixture::reading;
using testing::HasSubstr;
using tn::FrameKind;
using tool::ExitStatus;

class Verbs : public fixture::VerbTest {};

TEST_F(Verbs, ListsThePrograms) {
  link();
  brokerSays("{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'}]}");
  EXPECT_EQ(run({"list"}), ExitStatus::done);
  EXPECT_EQ(output_, " 0  busd\n68  sermgr\n");
  EXPECT_EQ(error_, "");
  ASSERT_EQ(link_->sent.size(), 1U);
  EXPECT_EQ(link_->sent[0].kind, FrameKind::control);
  EXPECT_EQ(sent(0), "{u1:4}");
}

TEST_F(Verbs, ListsForPrograms) {
  link();
  brokerSays("{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'}]}");
  EXPECT_EQ(run({"list", "-j"}), ExitStatus::done);
  EXPECT_EQ(output_, "{\"id\":0,\"name\":\"busd\"}\n{\"id\":68,\"name\":\"sermgr\"}\n");
  brokerSays("{u1:4,M4:[{u2:0,s3:'busd'},{u2:68,s3:'sermgr'}]}");
  EXPECT_EQ(run({"list", "-l"}), ExitStatus::done);
  EXPECT_EQ(output_, "{u2:0,s3:'busd'}\n{u2:68,s3:'sermgr'}\n");
}

TEST_F(Verbs, ShowsTheStatistics) {
  link();
  brokerSays("{u1:5,q5:9}");
  EXPECT_EQ(run({"stats", "-l"}), ExitStatus::done);
  EXPECT_EQ(output_, "{u1:5,q5:9}\n");
  brokerSays("{u1:5,q5:9}");
  EXPECT_EQ(run({"stats", "-j"}), ExitStatus::done);
  EXPECT_EQ(output_, "{\"operation\":5,\"frames\":9}\n");
  brokerSays("{u1:5,q5:9}");
  EXPECT_EQ(run({"stats"}), ExitStatus::done);
  EXPECT_THAT(output_, HasSubstr("frames: 9\n"));
}

TEST_F(Verbs, CallsAndShowsTheAnswer) {
  link();
  serviceSays("{u9:77,u2:8080,s1:'http'}");
  EXPECT_EQ(run({"call", "68/1", "get", "{s1:'http'}"}), ExitStatus::done);
  EXPECT_EQ(output_, "u9: 77\nu2 port: 8080\ns1 name: 'http'\n");
  EXPECT_EQ(error_, "");
  ASSERT_EQ(link_->sent.size(), 1U);
  EXPECT_EQ(link_->sent[0].peer, 68U);
  EXPECT_EQ(sent(0), "{s1:'http',uff0007:16646402,Uff0001:[1]}");
}

TEST_F(Verbs, CallsByNames) {
  link();
  serviceSays("{}");
  EXPECT_EQ(run({"call", "userd/users", "setPassword", "name=bob", "password=it's"}), ExitStatus::done);
  EXPECT_EQ(link_->sent[0].peer, 13U);
  EXPECT_EQ(sent(0), "{s1:'bob',s3:'it\\'s',uff0007:131073,Uff0001:[2]}");
  EXPECT_EQ(output_, "");
}

TEST_F(Verbs, FindsAProgramByItsName) {
  link();
  brokerSays("{u1:4,M4:[{u2:1000,s3:'tn'},{u2:1003,s3:'www'},{u2:1004,s3:'www'}]}");
  serviceSays("{u2:5}");
  EXPECT_EQ(run({"call", "www/counters", "get", "-j"}), ExitStatus::done);
  EXPECT_EQ(output_, "{\"open\":5}\n");
  EXPECT_EQ(link_->sent.at(1).peer, 1003U);
  EXPECT_EQ(sent(1), "{uff0007:16646402,Uff0001:[2]}");
}

TEST_F(Verbs, AProgramThatIsNotThereIsTold) {
  link();
  brokerSays("{u1:4,M4:[{u2:1000,s3:'tn'}]}");
  EXPECT_EQ(run({"call", "mine/1", "get"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: mine is not on the bus\n");
  EXPECT_EQ(link_->sent.size(), 1U);
}

TEST_F(Verbs, WhatIsWrongIsToldWithoutTheBus) {
  EXPECT_EQ(run({"call", "68/", "get"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: \"68/\" is no path such as 68/1 or sermgr/servers\n");
  EXPECT_EQ(run({"call", "0xff0001/1", "get"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: \"0xff0001/1\" is a group: it can be sent to, not called\n");
  EXPECT_EQ(run({"call", "68/1", "gte"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: \"gte\" is neither a command's number nor one of its names\n");
  EXPECT_EQ(run({"call", "68/1", "set", "prot=1"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: no field is called \"prot\"\n");
  EXPECT_EQ(run({"send", "68/1", "set", "{uff0015:1}"}), ExitStatus::usage);
  EXPECT_EQ(error_, "tn: a message from here cannot carry a descriptor\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Verbs, QuietPrintsNothing) {
  link();
  serviceSays("{u9:77}");
  EXPECT_EQ(run({"-q", "call", "68/1", "get"}), ExitStatus::done);
  EXPECT_EQ(output_, "");
}

TEST_F(Verbs, AnErrorIsOneLineAndAStatus) {
  link();
  serviceSays("{uff0022:0xfe0006,sff0023:'no such\\n\\x1bservice'}");
  EXPECT_EQ(run({"call", "68/1", "get"}), ExitStatus::refused);
  EXPECT_EQ(error_, "tn: error 0xfe0006: no such\\n\\x1bservice\n");
  EXPECT_EQ(output_, "");
}

TEST_F(Verbs, ABouncedCallIsUnreachable) {
  link();
  bounces();
  EXPECT_EQ(run({"call", "68/1", "get"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: unreachable\n");
}

TEST_F(Verbs, SilenceIsATimeOut) {
  link();
  EXPECT_EQ(run({"call", "68/1", "get", "-t", "2500"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000d: timeout\n");
}

TEST_F(Verbs, NoLinkIsATimeOutToo) {
  EXPECT_EQ(run({"list"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: cannot reach the bus at /run/tn/bus: no answer\n");
  EXPECT_TRUE(link_->sent.empty());
}

TEST_F(Verbs, ALostBrokerFailsTheCall) {
  link();
  lose();
  EXPECT_EQ(run({"call", "68/1", "get"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: unreachable\n");
}

TEST_F(Verbs, ACallIsSentOnceHoweverOftenTheLinkIsMade) {
  link();
  lose();
  link();
  EXPECT_EQ(run({"call", "68/1", "get"}), ExitStatus::unreachable);
  EXPECT_EQ(link_->sent.size(), 1U);
}

TEST_F(Verbs, ALoopThatIsEndedFromOutsideIsNoSuccess) {
  link();
  stop();
  EXPECT_EQ(run({"call", "68/1", "get"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: error 0xfe000e: stopped\n");
}

TEST_F(Verbs, SendsAndWaitsForTheBrokerToHaveIt) {
  link();
  brokerSays("{u1:4}");
  EXPECT_EQ(run({"send", "0xff0005/3", "0x10", "{s1:'x'}"}), ExitStatus::done);
  EXPECT_EQ(output_, "");
  ASSERT_EQ(link_->sent.size(), 2U);
  EXPECT_EQ(link_->sent[0].peer, 0xff0005U);
  EXPECT_FALSE(link_->sent[0].msg.has(tn::field::requestNumber));
  EXPECT_EQ(sent(0), "{s1:'x',uff0007:16,Uff0001:[3]}");
  EXPECT_EQ(link_->sent[1].kind, FrameKind::control);
}

TEST_F(Verbs, OutputThatCannotBeWrittenIsAnError) {
  std::FILE* const full = std::fopen("/dev/full", "w");
  ASSERT_NE(full, nullptr);
  link();
  brokerSays("{u1:4,M4:[{u2:68,s3:'sermgr'}]}");
  out_ = full;
  EXPECT_EQ(run({"list"}), ExitStatus::unreachable);
  EXPECT_EQ(error_, "tn: cannot write: No space left on device\n");
  std::fclose(full);
}

}  // namespace
