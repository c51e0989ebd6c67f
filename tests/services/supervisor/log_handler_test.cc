#include "services/supervisor/log_handler.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "platform/bus/text.h"
#include "platform/policies.h"
#include "services/supervisor/program_handler.h"
#include "tests/fakes/recording_bus.h"

namespace tnrun {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class FakeProcesses : public Processes {
 public:
  std::expected<Started, int> start(const std::string&) override { return Started{++last, UniqueFd(), UniqueFd()}; }
  void signal(pid_t, int) override {}

  pid_t last = 100;
};

class DeafListener : public Listener {
 public:
  void began(std::size_t, UniqueFd, UniqueFd) override {}
  void ended(std::size_t) override {}
  void say(Stream, std::string_view) override {}
};

// Both handlers of the supervisor, on a bus without a broker.
class HandlersTest : public testing::Test {
 protected:
  HandlersTest() {
    loop.looper.addHandler(LogHandler::busHandlerId, logHandler);
    loop.looper.addHandler(ProgramHandler::busHandlerId, programHandler);
    supervisor.start();
  }

  static tn::message read(const std::string& text) {
    tn::message msg;
    EXPECT_FALSE(tn::readText(text, msg).has_value()) << text;
    return msg;
  }
  tn::message ask(std::uint32_t handler, std::uint32_t command, const std::string& request = "{}") {
    const std::uint32_t number = bus.request(1001, handler, command, read(request));
    const auto* reply = bus.replyTo(number);
    EXPECT_NE(reply, nullptr);
    if (reply == nullptr) return {};
    tn::message answer = reply->content;
    answer.remove(tn::field::destination);
    answer.remove(tn::field::sender);
    answer.remove(tn::field::requestNumber);
    answer.remove(tn::field::isReply);
    return answer;
  }
  std::string log(const std::string& request = "{}") {
    return tn::writeText(ask(LogHandler::busHandlerId, tn::command::getAll, request));
  }
  std::vector<std::uint64_t> numbers(const std::string& request) {
    std::vector<std::uint64_t> all;
    const tn::message answer = ask(LogHandler::busHandlerId, tn::command::getAll, request);
    for (const tn::message& line : answer.get(tn::message_array_id(1)).value_or(std::vector<tn::message>()))
      all.push_back(line.get(tn::u64_id(1)).value_or(0));
    return all;
  }
  void answerControl(const std::string& text) {
    bus.answerControl(read(text));
    loop.advance(0);
  }
  std::string programList() { return tn::writeText(ask(ProgramHandler::busHandlerId, tn::command::get)); }

  const std::vector<Program> programs = {{"busd", "/bin/busd"}, {"www", "/bin/www"}};
  tn::fakes::TestLooper loop;
  tn::fakes::RecordingBus& bus = loop.bus;
  Journal journal;
  LogHandler logHandler{journal};
  FakeProcesses processes;
  DeafListener listener;
  BusEnquiry enquiry{loop.looper, programs, 0};
  Supervisor supervisor{programs, 0, loop.runner, processes, enquiry, listener, [] {}};
  ProgramHandler programHandler{programs, supervisor, enquiry};
};

constexpr std::uint32_t withoutSettings = tn::policies::all & ~tn::policies::changeSettings;
constexpr std::uint32_t withoutRead = tn::policies::all & ~tn::policies::read;

std::string session(std::uint32_t policies) {
  return "{sff000a:'eve',uff000b:" + std::to_string(policies) + "}";
}

const std::string notAllowed = "{uff0022:16646153,sff0023:'not allowed'}";

TEST_F(HandlersTest, TheLog) {
  EXPECT_EQ(log(), "{M1:[],q2:0,q3:0}");
  journal.add("www", Stream::output, "it's up", 1234567890123);
  journal.add("sermgr", Stream::errors, "trouble", 1234567890124);
  EXPECT_EQ(log(),
            "{M1:[{q1:1,q2:1234567890123,s3:'www',s4:'it\\'s up',b5:0},"
            "{q1:2,q2:1234567890124,s3:'sermgr',s4:'trouble',b5:1}],q2:2,q3:0}");
}

TEST_F(HandlersTest, WhatIsAskedOfTheLog) {
  for (int i = 0; i < 300; ++i)
    journal.add(i % 2 == 0 ? "www" : "userd", Stream::output, "line " + std::to_string(i), 1);
  EXPECT_THAT(numbers("{}"), SizeIs(LogHandler::usualLines));
  EXPECT_EQ(numbers("{}").back(), 300U);
  EXPECT_THAT(numbers("{u2:500}"), SizeIs(300));
  EXPECT_THAT(numbers("{q1:298}"), ElementsAre(299, 300));
  EXPECT_THAT(numbers("{q1:290,s4:'www'}"), ElementsAre(291, 293, 295, 297, 299));
  EXPECT_THAT(numbers("{s3:'line 7',u2:2}"), ElementsAre(79, 80));
  EXPECT_THAT(numbers("{q1:300}"), IsEmpty());
  // Fields of other types are other fields.
  EXPECT_THAT(numbers("{u1:298,q2:1,u3:1}"), SizeIs(LogHandler::usualLines));
}

TEST_F(HandlersTest, HowManyLinesMayBeAskedFor) {
  const std::string refused = "{uff0022:16646160,sff0023:'an answer (u32 2) has 1 to 500 lines'}";
  EXPECT_EQ(log("{u2:0}"), refused);
  EXPECT_EQ(log("{u2:501}"), refused);
  EXPECT_EQ(log("{u2:0xffffffff}"), refused);
}

TEST_F(HandlersTest, AnAnswerFitsTheTunnel) {
  for (int i = 0; i < 600; ++i)
    journal.add("www", Stream::output, std::string(1000, 'x'), 1);
  const tn::message answer = ask(LogHandler::busHandlerId, tn::command::getAll, "{u2:500}");
  EXPECT_GT(answer.max_length(), 50'000U);
  EXPECT_LT(answer.max_length(), 65'000U);
  EXPECT_EQ(numbers("{u2:500}").back(), 600U);
  for (int i = 0; i < 600; ++i)
    journal.add("w", Stream::output, "", 1);
  EXPECT_LT(ask(LogHandler::busHandlerId, tn::command::getAll, "{u2:500}").max_length(), 65'000U);
}

TEST_F(HandlersTest, LostLinesAreCounted) {
  for (std::size_t i = 0; i < Journal::maxLines + 5; ++i)
    journal.add("www", Stream::output, "x", 1);
  EXPECT_EQ(ask(LogHandler::busHandlerId, tn::command::getAll).get(tn::u64_id(3)), 5U);
  EXPECT_EQ(ask(LogHandler::busHandlerId, tn::command::getAll, "{q1:2}").get(tn::u64_id(3)), 3U);
}

TEST_F(HandlersTest, TheLogNeedsTheRightToChangeSettings) {
  journal.add("www", Stream::output, "secret", 1);
  EXPECT_EQ(log(session(withoutSettings)), notAllowed);
  EXPECT_EQ(log(session(0)), notAllowed);
  EXPECT_EQ(log("{uff000b:0x10}"), notAllowed);
  EXPECT_EQ(log("{sff000a:'eve'}"), notAllowed);
  EXPECT_NE(log(session(tn::policies::changeSettings)), notAllowed);
}

TEST_F(HandlersTest, NothingElseIsThere) {
  const std::string unknown = "{uff0022:16646151,sff0023:'unknown command'}";
  EXPECT_EQ(tn::writeText(ask(LogHandler::busHandlerId, tn::command::get)), unknown);
  EXPECT_EQ(tn::writeText(ask(ProgramHandler::busHandlerId, tn::command::set)), unknown);
}

TEST_F(HandlersTest, ProgramsBeforeTheBrokerAnswers) {
  EXPECT_EQ(programList(), "{M1:[{s1:'busd',u2:0,u3:101,u4:0,q5:0,b6:0},{s1:'www',u2:0,u3:102,u4:0,q5:0,b6:0}]}");
}

TEST_F(HandlersTest, ProgramsAsTheBrokerKnowsThem) {
  bus.sent.clear();
  loop.advance(Supervisor::roundMs);
  ASSERT_THAT(bus.sent, SizeIs(1));
  EXPECT_EQ(tn::writeText(bus.sent[0].content), "{u1:5}");
  bus.sent.clear();
  answerControl(
      "{u1:5,q5:100,M4:[{u2:1003,s3:'stranger',q5:9},"
      "{u2:1000,s3:'www',q5:1,q6:2,q7:3,qa:4,qc:5,qd:6}]}");
  // The one that is there is asked whether it turns.
  ASSERT_THAT(bus.sent, SizeIs(1));
  EXPECT_EQ(bus.sent[0].peer, 1000U);
  bus.answer(bus.sent[0], {});
  EXPECT_EQ(programList(),
            "{M1:[{s1:'busd',u2:0,u3:101,u4:0,q5:2000,b6:1},"
            "{s1:'www',u2:1000,u3:102,u4:0,q5:2000,b6:1,q7:1,q8:2,q9:3,qa:4,qb:5,qc:6}]}");
}

TEST_F(HandlersTest, AProgramThatLeftTheBus) {
  loop.advance(Supervisor::roundMs);
  answerControl("{u1:5,M4:[{u2:1000,s3:'www',q5:1}]}");
  loop.advance(Supervisor::roundMs);
  answerControl("{u1:5,M4:[]}");
  const tn::message answer = ask(ProgramHandler::busHandlerId, tn::command::get);
  const auto list = answer.get(tn::message_array_id(1));
  ASSERT_TRUE(list.has_value());
  EXPECT_EQ(list->back().get(tn::u32_id(2)), 0U);
  EXPECT_FALSE(list->back().has(tn::u64_id(7)));
}

TEST_F(HandlersTest, AProgramThatWasStartedAgain) {
  supervisor.onEnded(102, 9);
  EXPECT_EQ(programList(), "{M1:[{s1:'busd',u2:0,u3:101,u4:0,q5:0,b6:0},{s1:'www',u2:0,u3:0,u4:0,q5:0,b6:0}]}");
  loop.advance(RestartPause::firstMs);
  EXPECT_EQ(programList(), "{M1:[{s1:'busd',u2:0,u3:101,u4:0,q5:200,b6:0},{s1:'www',u2:0,u3:103,u4:1,q5:0,b6:0}]}");
}

TEST_F(HandlersTest, ProgramsNeedTheRightToRead) {
  const auto asked = [this](const std::string& request) {
    return tn::writeText(ask(ProgramHandler::busHandlerId, tn::command::get, request));
  };
  EXPECT_EQ(asked(session(withoutRead)), notAllowed);
  EXPECT_EQ(asked(session(0)), notAllowed);
  EXPECT_EQ(asked("{sff000a:'eve'}"), notAllowed);
  EXPECT_NE(asked(session(tn::policies::read)), notAllowed);
}

}  // namespace
}  // namespace tnrun
