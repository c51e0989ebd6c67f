#include <gmock/gmock.h>
#include <string>
#include <vector>

#include "platform/bus/text.h"
#include "platform/byte_order.h"
#include "platform/policies.h"
#include "services/sysd/console_handler.h"
#include "tests/fakes/recording_bus.h"

namespace sysd {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using tn::FrameKind;

constexpr std::uint32_t userd = 13;
constexpr std::uint32_t tlsd = 12;
constexpr std::uint32_t asker = 1001;

class ConsoleTest : public testing::Test {
 protected:
  ConsoleTest() { loop.looper.addHandler(ConsoleHandler::id, console); }

  static tn::message read(const std::string& text) {
    tn::message msg;
    EXPECT_FALSE(tn::readText(text, msg).has_value()) << text;
    return msg;
  }
  tn::message request(const std::string& text = "{}") {
    const std::uint32_t number = bus.request(asker, ConsoleHandler::id, tn::command::getAll, read(text));
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
  std::vector<std::string> texts(const std::string& text = "{}") {
    std::vector<std::string> all;
    const tn::message answer = request(text);
    for (const tn::message& frame : answer.get(tn::message_array_id(1)).value_or(std::vector<tn::message>()))
      all.emplace_back(frame.get(tn::string_id(7)).value_or("none"));
    return all;
  }
  // What the broker was asked since the last call.
  std::vector<std::string> asked() {
    std::vector<std::string> all;
    for (const auto& frame : bus.sent)
      if (frame.kind == FrameKind::control) all.push_back(tn::writeText(frame.content));
    bus.sent.clear();
    return all;
  }
  // The broker shows a frame.
  void pass(std::uint32_t from, std::uint32_t to, const std::string& text, FrameKind kind = FrameKind::message) {
    const tn::message msg = read(text);
    passBytes(from, to, msg.flattened(), kind);
  }
  void passBytes(std::uint32_t from, std::uint32_t to, std::span<const std::uint8_t> payload,
                 FrameKind kind = FrameKind::message) {
    std::vector<std::uint8_t> observed(12);
    storeLe32(observed.data(), from);
    storeLe32(observed.data() + 4, to);
    storeLe32(observed.data() + 8, static_cast<std::uint32_t>(kind));
    observed.insert(observed.end(), payload.begin(), payload.end());
    bus.show(observed);
  }
  // What a frame is shown as.
  std::string shown(std::uint32_t from, std::uint32_t to, const std::string& text,
                    FrameKind kind = FrameKind::message) {
    request();
    pass(from, to, text, kind);
    const auto all = texts();
    return all.empty() ? "nothing" : all.back();
  }

  tn::fakes::TestLooper loop;
  tn::fakes::RecordingBus& bus = loop.bus;
  ConsoleHandler console{loop.looper};
};

const std::string notAllowed = "{uff0022:16646153,sff0023:'not allowed'}";
const std::string hidden = "(not shown)";

TEST_F(ConsoleTest, TheFirstQuestionBeginsTheWatch) {
  pass(1002, 68, "{u1:1}");
  EXPECT_EQ(tn::writeText(request()), "{M1:[],q2:0,q3:0}");
  EXPECT_THAT(asked(), ElementsAre("{u1:6}"));
  pass(1002, 68, "{u1:2}");
  EXPECT_THAT(texts(), ElementsAre("{u1:2}"));
  // It goes on without being asked for again.
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(ConsoleTest, AFrameIsTold) {
  request();
  pass(1002, 68, "{Uff0001:[1],uff0007:16646402}");
  pass(68, 1002, "{}", FrameKind::bounced);
  const auto frames = request().get(tn::message_array_id(1));
  ASSERT_TRUE(frames.has_value());
  ASSERT_THAT(*frames, SizeIs(2));
  tn::message first = frames->front();
  EXPECT_TRUE(first.has(tn::u64_id(2)));
  first.remove(tn::u64_id(2));
  EXPECT_EQ(tn::writeText(first), "{q1:1,u3:1002,u4:68,u5:0,u6:20,s7:'{Uff0001:[1],uff0007:16646402}'}");
  EXPECT_EQ(frames->back().get(tn::u32_id(5)), 1U);
}

TEST_F(ConsoleTest, TheWatchEndsTenSecondsAfterTheLastQuestion) {
  request();
  bus.answerControl(read("{u1:6}"));
  loop.advance(ConsoleHandler::watchMs - 1);
  request();
  asked();
  loop.advance(ConsoleHandler::watchMs - 1);
  EXPECT_THAT(asked(), IsEmpty());
  pass(1002, 68, "{u1:1}");
  loop.advance(1);
  EXPECT_THAT(asked(), ElementsAre("{u1:6,b2:1}"));
  EXPECT_FALSE(console.watching());
  pass(1002, 68, "{u1:2}");
  // What was seen before is no longer there.
  EXPECT_EQ(tn::writeText(request()), "{M1:[],q2:1,q3:1}");
  EXPECT_THAT(asked(), SizeIs(1));
}

TEST_F(ConsoleTest, ItsOwnFramesAreLeftOut) {
  request();
  const std::uint32_t own = tn::fakes::RecordingBus::ownId;
  pass(own, 1002, "{u1:1}");
  pass(1002, own, "{u1:1}");
  pass(own, 0, "{u1:1}", FrameKind::control);
  EXPECT_THAT(texts(), IsEmpty());
}

TEST_F(ConsoleTest, TheLinkIsLostAndMadeAgain) {
  request();
  pass(1002, 68, "{u1:1}");
  asked();
  bus.unlink();
  loop.advance(0);
  EXPECT_FALSE(console.watching());
  bus.link();
  EXPECT_THAT(texts(), ElementsAre("{u1:1}"));
  EXPECT_THAT(asked(), ElementsAre("{u1:6}"));
}

TEST_F(ConsoleTest, ABrokerThatSaysNothingIsAskedAgain) {
  request();
  asked();
  loop.advance(ConsoleHandler::watchMs / 2);
  EXPECT_FALSE(console.watching());
  EXPECT_EQ(tn::writeText(request()), "{M1:[],q2:0,q3:0}");
  EXPECT_THAT(asked(), ElementsAre("{u1:6}"));
}

TEST_F(ConsoleTest, ARefusalOfTheBrokerIsTold) {
  request();
  bus.answerControl(read("{u1:6,uff0022:16646153,sff0023:'monitoring is not allowed for this user'}"));
  loop.advance(0);
  asked();
  EXPECT_EQ(tn::writeText(request()), "{uff0022:16646153,sff0023:'monitoring is not allowed for this user'}");
  EXPECT_THAT(asked(), IsEmpty());
  // Then it is tried again.
  request();
  EXPECT_THAT(asked(), ElementsAre("{u1:6}"));
}

TEST_F(ConsoleTest, WhatIsAsked) {
  request();
  for (int i = 1; i <= 150; ++i)
    pass(i % 2 == 0 ? 1002 : 1001, 68, "{u1:" + std::to_string(i) + "}");
  EXPECT_THAT(texts(), SizeIs(ConsoleHandler::usualFrames));
  EXPECT_THAT(texts("{u2:200}"), SizeIs(150));
  EXPECT_THAT(texts("{q1:148}"), ElementsAre("{u1:149}", "{u1:150}"));
  EXPECT_THAT(texts("{u2:1,u3:1001}"), ElementsAre("{u1:149}"));
  EXPECT_THAT(texts("{s4:'u1:7}'}"), ElementsAre("{u1:7}"));
  EXPECT_THAT(texts("{u3:0}"), IsEmpty());
  const std::string refused = "{uff0022:16646160,sff0023:'an answer (u32 2) has 1 to 200 frames'}";
  EXPECT_EQ(tn::writeText(request("{u2:0}")), refused);
  EXPECT_EQ(tn::writeText(request("{u2:201}")), refused);
}

TEST_F(ConsoleTest, AnAnswerFitsTheTunnel) {
  request();
  tn::message msg;
  msg.insert(tn::string_id(1), std::string(5000, 'x'));
  for (int i = 0; i < 200; ++i)
    passBytes(1002, 68, msg.flattened());
  const tn::message answer = request("{u2:200}");
  EXPECT_GT(answer.max_length(), 50'000U);
  EXPECT_LT(answer.max_length(), 65'000U);
}

TEST_F(ConsoleTest, SessionsNeedEveryRight) {
  const auto as = [this](std::uint32_t policies) {
    return tn::writeText(request("{sff000a:'eve',uff000b:" + std::to_string(policies) + "}"));
  };
  for (std::uint32_t bit = 1; bit != 0; bit <<= 1U)
    EXPECT_EQ(as(tn::policies::all & ~bit) == notAllowed, (bit & tn::policies::all) != 0);
  EXPECT_EQ(as(0), notAllowed);
  EXPECT_EQ(tn::writeText(request("{sff000a:'eve'}")), notAllowed);
  EXPECT_EQ(tn::writeText(request("{uff000b:0x10}")), notAllowed);
  EXPECT_NE(as(tn::policies::all), notAllowed);
  EXPECT_NE(as(0xffffffff), notAllowed);
}

TEST_F(ConsoleTest, WhoeverMayNotSeeBeginsNoWatch) {
  request("{sff000a:'eve',uff000b:0x10}");
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_FALSE(console.watching());
}

TEST_F(ConsoleTest, PayloadsThatAreNoMessage) {
  request();
  const std::vector<std::uint8_t> noise{1, 2, 3};
  passBytes(1002, 68, noise);
  passBytes(1002, userd, noise);
  passBytes(userd, 1002, noise);
  passBytes(userd, 1002, noise, FrameKind::bounced);
  passBytes(1002, tlsd, noise);
  passBytes(1002, 68, {});
  EXPECT_THAT(texts(), ElementsAre("(no message)", hidden, hidden, hidden, hidden, "(no message)"));
}

TEST_F(ConsoleTest, PayloadsThatAreVeryLong) {
  request();
  const std::vector<std::uint8_t> large(FrameRing::maxShownPayload + 1);
  passBytes(1002, 68, large);
  passBytes(1002, userd, large);
  EXPECT_THAT(texts(), ElementsAre("(too long to be shown)", hidden));
}

// A login, as the tunnel asks for it, and what it is answered.
TEST_F(ConsoleTest, LoginsAreNotShown) {
  EXPECT_EQ(shown(1002, userd, "{Uff0001:[4],uff0007:1,s1:'admin',s3:'secret',uff0020:7}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{Uff0001:[100],uff0020:7,bff0021:1,ub:0x43d0}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{Uff0001:[4],uff0007:1,s1:'admin',s3:'secret',uff0020:7}", FrameKind::bounced), hidden);
}

TEST_F(ConsoleTest, NeitherAreOtherCommandsThatCouldHoldAPassword) {
  for (const char* command : {"0x20001", "0xfe0109", "0xfe0106", "0xfe0103", "0xfe010a", "0", "2", "0xfe0102"}) {
    const std::string text = std::string("{uff0007:") + command + ",s3:'secret'}";
    EXPECT_EQ(shown(1002, userd, text), hidden) << text;
  }
  EXPECT_EQ(shown(1002, userd, "{uff0007:0xfe0107,s4:'secret'}"), hidden);
  // In a field where nobody looks for it.
  EXPECT_EQ(shown(1002, userd, "{uff0007:0x20001,s7:'secret'}"), hidden);
  EXPECT_EQ(shown(1002, userd, "{uff0007:0xfe0109,m1:{s3:'secret'}}"), hidden);
  EXPECT_EQ(shown(1002, userd, "{s3:'secret'}"), hidden);
  EXPECT_EQ(shown(1002, userd, "{}"), hidden);
}

TEST_F(ConsoleTest, QuestionsToTheUserServiceAndTheirAnswersAreShown) {
  EXPECT_EQ(shown(1002, userd, "{Uff0001:[2],uff0007:16646407,uff0020:9}"), "{Uff0001:[2],uff0007:16646407,uff0020:9}");
  // The number of another asker, another number, and once more.
  EXPECT_EQ(shown(userd, 1001, "{uff0020:9,bff0021:1,u1:1}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{uff0020:8,bff0021:1,u1:1}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{uff0020:9,bff0021:1,u1:1}"), "{uff0020:9,bff0021:1,u1:1}");
  EXPECT_EQ(shown(userd, 1002, "{uff0020:9,bff0021:1,u1:1}"), hidden);
  // What the watchdog asks.
  EXPECT_EQ(shown(2, userd, "{uff0007:16646401}"), "{uff0007:16646401}");
}

TEST_F(ConsoleTest, ANumberThatIsUsedAgainForASecret) {
  shown(1002, userd, "{uff0007:0xfe0107,uff0020:9}");
  EXPECT_EQ(shown(1002, userd, "{uff0007:1,s3:'secret',uff0020:9}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{uff0020:9,bff0021:1}"), hidden);
}

TEST_F(ConsoleTest, ANumberThatIsUsedAgainWhileNobodyLooks) {
  shown(1002, userd, "{uff0007:0xfe0107,uff0020:9}");
  bus.unlink();
  bus.link();
  EXPECT_EQ(shown(userd, 1002, "{uff0020:9,bff0021:1}"), hidden);
  shown(1002, userd, "{uff0007:0xfe0107,uff0020:10}");
  loop.advance(ConsoleHandler::watchMs);
  EXPECT_EQ(shown(userd, 1002, "{uff0020:10,bff0021:1}"), hidden);
}

TEST_F(ConsoleTest, WhatTheUserServiceSaysOfItsOwnAccord) {
  EXPECT_EQ(shown(userd, 0xff0001, "{uff0007:16646164}"), "{uff0007:16646164}");
  EXPECT_EQ(shown(userd, 1002, "{uff0007:77,s3:'secret'}"), hidden);
}

TEST_F(ConsoleTest, PrivateKeysAreNotShown) {
  EXPECT_EQ(shown(1002, tlsd, "{Uff0001:[1],uff0007:0xfe0103,s1:'certificate',s2:'key'}"), hidden);
  EXPECT_EQ(shown(tlsd, 1002, "{Uff0001:[1],uff0007:0xfe0103,s1:'certificate',s2:'key'}", FrameKind::bounced), hidden);
  EXPECT_EQ(shown(1002, tlsd, "{uff0007:16646402}"), "{uff0007:16646402}");
  EXPECT_EQ(shown(tlsd, 1002, "{s2:'fingerprint'}"), "{s2:'fingerprint'}");
}

TEST_F(ConsoleTest, ManyQuestionsAreNotRememberedForEver) {
  request();
  for (std::uint32_t i = 1; i <= 1025; ++i)
    pass(1002, userd, "{uff0007:0xfe0107,uff0020:" + std::to_string(i) + "}");
  EXPECT_EQ(shown(userd, 1002, "{uff0020:1,bff0021:1}"), hidden);
  EXPECT_EQ(shown(userd, 1002, "{uff0020:2,bff0021:1}"), "{uff0020:2,bff0021:1}");
}

TEST_F(ConsoleTest, ControlFramesAreShown) {
  EXPECT_EQ(shown(1002, 0, "{u1:4}", FrameKind::control), "{u1:4}");
}

}  // namespace
}  // namespace sysd
