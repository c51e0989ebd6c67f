#include "services/hotspotd/servers.h"

#include <filesystem>
#include <gmock/gmock.h>

#include "platform/bus/frame.h"
#include "platform/bus/looper.h"
#include "platform/log.h"
#include "services/hotspotd/desk.h"
#include "tests/fakes/recording_bus.h"
#include "tests/services/hotspotd/typed.h"

namespace {

using hotspot::Desk;
using hotspot::Servers;
using hotspot::Watch;
using testing::ElementsAre;
using testing::IsEmpty;
using tn::fakes::RecordingBus;

constexpr std::uint32_t asker = 1500;
constexpr std::uint32_t www = 1700;
constexpr std::uint32_t otherWww = 1701;

class HotspotServersTest : public testing::Test {
 protected:
  HotspotServersTest() {
    loop.looper.addHandler(Desk::id, desk);
    loop.looper.addHandler(Servers::id, servers);
    servers.start();
  }
  void SetUp() override { testing::internal::CaptureStdout(); }
  void TearDown() override {
    drainLog();
    testing::internal::GetCapturedStdout();
  }

  // The broker answers what it was asked for.
  void list(const std::vector<std::uint32_t>& serversThere) {
    std::vector<tn::message> programs{program(68, "sermgr"), program(asker, "tn")};
    for (const std::uint32_t id : serversThere)
      programs.push_back(program(id, "www"));
    tn::message answer;
    answer.insert(tn::u32_id(1), tn::control::list);
    answer.insert_vector(tn::message_array_id(4), programs);
    while (answered_ < questions()) {
      ++answered_;
      loop.bus.answerControl(answer);
    }
    loop.advance(0);
  }
  static tn::message program(std::uint32_t id, std::string_view name) {
    tn::message listed;
    listed.insert(tn::u32_id(2), id);
    listed.insert(tn::string_id(3), name);
    return listed;
  }
  std::size_t questions() {
    return static_cast<std::size_t>(std::ranges::count_if(
        loop.bus.sent, [](const RecordingBus::Sent& frame) { return frame.kind == tn::FrameKind::control; }));
  }
  // The next round of looking who is there.
  void round(const std::vector<std::uint32_t>& serversThere) {
    loop.advance(Watch::roundMs);
    list(serversThere);
  }
  // A server that has been given its records.
  void serve(std::uint32_t id = www) {
    list({id});
    round({id});
    answerAll({});
  }

  // Commands to server programs that were not looked at yet: "<program> <command> <record>".
  std::vector<std::string> commands() {
    std::vector<std::string> said;
    for (; looked_ < loop.bus.sent.size(); ++looked_) {
      const RecordingBus::Sent& frame = loop.bus.sent[looked_];
      if (frame.kind != tn::FrameKind::message || tn::isReply(frame.content)) continue;
      EXPECT_EQ(frame.content.get(tn::field::destination), (std::vector<std::uint32_t>{1}));
      const tn::message record = hotspot::recordFrom({}, frame.content);
      const std::uint32_t command = frame.content.get(tn::field::command).value_or(0);
      said.push_back(std::to_string(frame.peer) + " " + std::string(tn::commandName(command)) + " " +
                     tn::writeText(record));
      open_.push_back(looked_);
    }
    return said;
  }
  // Every command is answered like this.
  void answerAll(const tn::message& content) {
    commands();
    for (const std::size_t index : std::exchange(open_, {}))
      loop.bus.answer(loop.bus.sent[index], content);
    loop.advance(0);
  }

  std::uint32_t ask(std::uint32_t command, std::string_view text) {
    return loop.bus.request(asker, Servers::id, command, typed(text));
  }
  // What was answered: "none" yet, "ok", what servers said, or the error.
  std::string answerTo(std::uint32_t number) {
    const RecordingBus::Sent* reply = loop.bus.replyTo(number);
    if (reply == nullptr) return "none";
    if (tn::isError(reply->content)) return tn::getError(reply->content);
    const auto error = reply->content.get(tn::string_id(0x10));
    return error ? "servers say " + std::string(*error) : "ok";
  }
  std::vector<std::string> records() {
    const auto* reply = loop.bus.replyTo(ask(tn::command::getAll, "{}"));
    std::vector<std::string> texts;
    const auto listed = reply->content.get(tn::message_array_id(1));
    for (const tn::message& record : listed.value_or(std::vector<tn::message>()))
      texts.push_back(tn::writeText(record));
    return texts;
  }

  std::string folder = [] {
    std::string pattern = std::filesystem::temp_directory_path() / "hotspot_XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    return pattern;
  }();
  std::shared_ptr<void> cleanUp{nullptr, [this](void*) { std::filesystem::remove_all(folder); }};
  hotspot::Keeper keeper = [this] {
    const tn::message record = typed("{s1:'guest',u2:8090,M6:[]}");
    EXPECT_FALSE(hotspot::StateFile(folder + "/f").save({{"x", "secret1", 5}, {record}}).has_value());
    return hotspot::Keeper(folder + "/f");
  }();
  tn::fakes::TestLooper loop;
  Servers servers{keeper, loop.looper};
  Desk desk{servers};

 private:
  std::size_t answered_ = 0;
  std::size_t looked_ = 0;
  std::vector<std::size_t> open_;
};

TEST_F(HotspotServersTest, AServerIsGivenTimeToAsk) {
  list({www});
  EXPECT_THAT(commands(), IsEmpty());
  loop.advance(Watch::roundMs - 1);
  EXPECT_THAT(commands(), IsEmpty());
  loop.advance(1);
  list({www});
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'guest',u2:8090,M6:[]}"));
  answerAll({});
  round({www});
  round({www});
  EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(HotspotServersTest, WhoAsksIsGivenTheRecordsAtOnce) {
  list({});
  loop.bus.request(www, Desk::id, Desk::askRecords);
  list({www});
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'guest',u2:8090,M6:[]}"));
  answerAll({});
  round({www});
  EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(HotspotServersTest, OnlyServersAreAnswered) {
  list({});
  loop.bus.request(asker, Desk::id, Desk::askRecords);
  list({www});
  EXPECT_THAT(commands(), IsEmpty());
  tn::message ofUser = typed("{uff000b:0xffffffff}");
  const auto number = loop.bus.request(www, Desk::id, Desk::askRecords, ofUser);
  EXPECT_EQ(answerTo(number), "not allowed");
}

TEST_F(HotspotServersTest, TheDeskAnswersAsAnyProgram) {
  EXPECT_EQ(answerTo(loop.bus.request(asker, Desk::id, tn::command::getPolicies)), "unknown command");
  EXPECT_EQ(answerTo(loop.bus.request(asker, Desk::id, 0x30004)), "unknown command");
}

TEST_F(HotspotServersTest, AServerThatStartsAgainIsGivenThemAgain) {
  serve();
  round({});
  round({otherWww});
  EXPECT_THAT(commands(), IsEmpty());
  round({otherWww});
  EXPECT_THAT(commands(), ElementsAre("1701 addObj {s1:'guest',u2:8090,M6:[]}"));
  // Under the same number too, after a round without it.
  answerAll({});
  round({});
  round({otherWww});
  round({otherWww});
  EXPECT_THAT(commands(), ElementsAre("1701 addObj {s1:'guest',u2:8090,M6:[]}"));
}

TEST_F(HotspotServersTest, AfterALostLinkEveryServerIsNew) {
  serve();
  loop.bus.unlink();
  loop.bus.link();
  round({www});
  EXPECT_THAT(commands(), IsEmpty());
  round({www});
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'guest',u2:8090,M6:[]}"));
}

TEST_F(HotspotServersTest, ABrokerThatDoesNotAnswerIsAskedAgain) {
  loop.advance(Watch::answerMs);
  EXPECT_THAT(commands(), IsEmpty());
  loop.advance(Watch::roundMs);
  EXPECT_GE(questions(), 2U);
}

TEST_F(HotspotServersTest, AddsWithAndWithoutTls) {
  serve();
  const auto plain = ask(tn::command::addObj, "{s1:'lobby',u2:8100,M6:[{u1:1,u2:2}],bfe000a:0}");
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'lobby',bfe000a:0,u2:8100,M6:[{u1:1,u2:2}]}"));
  EXPECT_EQ(answerTo(plain), "none");
  answerAll({});
  EXPECT_EQ(answerTo(plain), "ok");
  const auto tls = ask(tn::command::addObj, "{s1:'safe',u2:8101,u5:1,M6:[]}");
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'safe',u2:8101,u5:1,M6:[]}"));
  answerAll({});
  EXPECT_EQ(answerTo(tls), "ok");
  EXPECT_EQ(hotspot::Keeper(folder + "/f").state().servers.size(), 3U);
}

TEST_F(HotspotServersTest, AServerKeepsItsKind) {
  serve();
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u5:1}")),
            "a server keeps to TLS (u32 5), or goes without it, as it was added");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'guest',u2:1,u5:1,M6:[]}")),
            "a server keeps to TLS (u32 5), or goes without it, as it was added");
  EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(HotspotServersTest, ChangesSomeFields) {
  serve();
  const auto number = ask(tn::command::set, "{s1:'guest',u2:8099}");
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'guest',u2:8099,M6:[]}"));
  answerAll({});
  EXPECT_EQ(answerTo(number), "ok");
  ask(tn::command::set, "{s1:'guest',bfe000a:1}");
  EXPECT_THAT(commands(), ElementsAre("1700 addObj {s1:'guest',bfe000a:1,u2:8099,M6:[]}"));
}

TEST_F(HotspotServersTest, Removes) {
  serve();
  const auto number = ask(tn::command::removeObj, "{s1:'guest'}");
  EXPECT_THAT(commands(), ElementsAre("1700 removeObj {s1:'guest'}"));
  answerAll({});
  EXPECT_EQ(answerTo(number), "ok");
  EXPECT_THAT(records(), IsEmpty());
  EXPECT_TRUE(hotspot::Keeper(folder + "/f").state().servers.empty());
  round({www, otherWww});
  round({www, otherWww});
  EXPECT_THAT(commands(), IsEmpty());
}

TEST_F(HotspotServersTest, RefusesWhatIsNoRecord) {
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'nobody',u2:1}")), "no such service");
  EXPECT_EQ(answerTo(ask(tn::command::removeObj, "{s1:'nobody'}")), "no such service");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u2:0}")), "the port (u32 2) is 1 to 65535");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'x',u2:1}")), "who may connect (messages 6) is missing");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'x',u2:1,M6:[],s2:'1'}")), "field 2 is not known with this type");
  EXPECT_EQ(answerTo(ask(tn::command::get, "{s1:'guest'}")), "unknown command");
  EXPECT_EQ(keeper.state().servers.size(), 1U);
}

TEST_F(HotspotServersTest, OnlySoManyServers) {
  for (std::size_t i = 1; i < hotspot::maxServers; ++i)
    EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'s" + std::to_string(i) + "',u2:1,M6:[]}")),
              "servers say no server is running");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'more',u2:1,M6:[]}")), "too many servers");
  EXPECT_EQ(answerTo(ask(tn::command::addObj, "{s1:'guest',u2:2,M6:[]}")), "servers say no server is running");
}

TEST_F(HotspotServersTest, ChangesNeedARight) {
  for (const char* rights : {"uff000b:0xfffffeff", "sff000a:'x'", "uff000b:0"}) {
    const std::string text = std::string("{s1:'guest',u2:1,M6:[],") + rights + "}";
    for (const std::uint32_t command : {tn::command::set, tn::command::addObj, tn::command::removeObj})
      EXPECT_EQ(answerTo(ask(command, text)), "not allowed") << text;
  }
  EXPECT_EQ(answerTo(ask(tn::command::getAll, "{uff000b:0xffffffef}")), "not allowed");
  EXPECT_EQ(answerTo(ask(tn::command::getAll, "{uff000b:0x10}")), "ok");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u2:1,uff000b:0x100,sff000a:'a'}")),
            "servers say no server is running");
}

TEST_F(HotspotServersTest, WhatAServerRefusesIsToldAndKept) {
  list({www});
  round({www});
  answerAll(tn::errorMsg(tn::error::cannotBind, "cannot bind service connection"));
  EXPECT_THAT(records(), ElementsAre("{s1:'guest',u2:8090,M6:[],s10:'cannot bind service connection',b11:0}"));
  const auto number = ask(tn::command::set, "{s1:'guest',u2:8091}");
  answerAll(tn::errorMsg(tn::error::cannotBind, "cannot bind service connection"));
  EXPECT_EQ(answerTo(number), "servers say cannot bind service connection");
  EXPECT_THAT(records(), ElementsAre("{s1:'guest',u2:8091,M6:[],s10:'cannot bind service connection',b11:0}"));
  ask(tn::command::set, "{s1:'guest',u2:8092}");
  answerAll({});
  EXPECT_THAT(records(), ElementsAre("{s1:'guest',u2:8092,M6:[],s10:'',b11:1}"));
}

TEST_F(HotspotServersTest, AnAnswerThatComesLateSaysNothing) {
  serve();
  const auto first = ask(tn::command::set, "{s1:'guest',u2:8091}");
  loop.advance(Servers::answerMs);
  EXPECT_EQ(answerTo(first), "servers say timeout");
  // Of two changes on their way only the last one counts for the record.
  const auto second = ask(tn::command::set, "{s1:'guest',u2:8092}");
  const std::size_t secondCommand = loop.bus.sent.size() - 1;
  ask(tn::command::set, "{s1:'guest',u2:8093}");
  loop.bus.answer(loop.bus.sent[secondCommand], tn::errorMsg(1, "old news"));
  loop.advance(0);
  EXPECT_EQ(answerTo(second), "servers say old news");
  EXPECT_THAT(records(), ElementsAre("{s1:'guest',u2:8093,M6:[],s10:'',b11:0}"));
}

TEST_F(HotspotServersTest, SeveralServersAreAllTold) {
  list({www, otherWww});
  round({www, otherWww});
  EXPECT_THAT(commands(),
              ElementsAre("1700 addObj {s1:'guest',u2:8090,M6:[]}", "1701 addObj {s1:'guest',u2:8090,M6:[]}"));
  answerAll({});
  ask(tn::command::removeObj, "{s1:'guest'}");
  EXPECT_THAT(commands(), ElementsAre("1700 removeObj {s1:'guest'}", "1701 removeObj {s1:'guest'}"));
}

TEST_F(HotspotServersTest, WhatCannotBeStoredIsNotDone) {
  serve();
  std::filesystem::remove_all(folder);
  for (const std::uint32_t command : {tn::command::set, tn::command::addObj, tn::command::removeObj})
    EXPECT_EQ(answerTo(ask(command, "{s1:'guest',u2:7,M6:[]}")), "open: No such file or directory");
  EXPECT_THAT(commands(), IsEmpty());
  EXPECT_THAT(records(), ElementsAre("{s1:'guest',u2:8090,M6:[],s10:'',b11:1}"));
}

TEST_F(HotspotServersTest, OnlySoManyChangesAtATime) {
  serve();
  for (std::size_t i = 0; i < Servers::maxChanges; ++i)
    EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u2:7}")), "none");
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u2:8}")), "too many changes at once");
  answerAll({});
  EXPECT_EQ(answerTo(ask(tn::command::set, "{s1:'guest',u2:8}")), "none");
}

}  // namespace
