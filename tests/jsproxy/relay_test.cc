// The relay of a browser's message, and how its session ends.
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::json;
using jsproxy_test::msg;
using jsproxy_test::TunnelTest;
using testing::ElementsAre;
using testing::IsEmpty;

class RelayTest : public TunnelTest {
 protected:
  // The message as the service gets it, but for its request number.
  [[nodiscard]] std::string relayed(std::size_t index = 0) const {
    if (bus.sent.size() <= index) return "nothing";
    tn::message message = bus.sent[index].content;
    EXPECT_TRUE(message.remove(tn::field::requestNumber));
    return json(message);
  }

  Browser browser = logIn();
};

TEST_F(RelayTest, TheServiceIsToldWhoAsks) {
  jsproxy_test::clockSeconds += 7;
  const CallPtr call = send(browser, "{Uff0001:[24,1],uff0007:5,s1:'x'}");
  EXPECT_TRUE(call->parked);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].peer, 24U);
  EXPECT_EQ(relayed(), "{Uff0001:[1],uff0007:5,s1:'x',Uff0002:[100,1],sff000a:'admin',uff0010:3,uff000b:80}");
  EXPECT_EQ(sessionOf(browser)->lastActivity, 1000007U);
}

TEST_F(RelayTest, TheReplyIsTheAnswer) {
  const CallPtr call = send(browser, "{Uff0001:[24,1]}");
  bus.answer(bus.sent.back(), msg("{u1:5}"));
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(call->type(), "text/plain");
  EXPECT_TRUE(answerOf(browser, *call).starts_with("{u1:5,"));
}

TEST_F(RelayTest, InTheFormOfTheRequest) {
  const CallPtr call = sendBinary(browser, msg("{Uff0001:[24,1]}"));
  bus.answer(bus.sent.back(), msg("{u1:5}"));
  EXPECT_EQ(call->type(), "msg");
  tn::message answer;
  ASSERT_TRUE(answer.unflatten(asBytes(browser.open(call->response.body))));
  EXPECT_EQ(answer.get(tn::u32_id(1)), 5U);
}

TEST_F(RelayTest, WhatABrowserForgesIsReplaced) {
  const CallPtr call = send(browser,
                            "{Uff0001:[24,1],Uff0002:[68,1],sff000a:'root',uff000b:0xffffffff,uff0010:9,uff0015:3,"
                            "uff0020:7,bff0021:1,uff0022:8,sff0023:'text'}");
  EXPECT_EQ(relayed(), "{Uff0001:[1],Uff0002:[100,1,68,1],sff000a:'admin',uff000b:80,uff0010:3}");
  EXPECT_FALSE(bus.sent[0].descriptor);
  bus.answer(bus.sent.back(), msg("{}"));
  EXPECT_EQ(call->completions, 1);
}

// A field is known by its type as well: these are nobody's header fields.
TEST_F(RelayTest, FieldsOfOtherTypesAreLeftAlone) {
  const CallPtr call = send(browser, "{Uff0001:[24],bff0015:1,sff000b:'x',uff000a:1}");
  EXPECT_EQ(relayed(),
            "{Uff0001:[],bff0015:1,sff000b:'x',uff000a:1,Uff0002:[100,1],sff000a:'admin',uff0010:3,uff000b:80}");
}

TEST_F(RelayTest, AnEmptyPathIsRelayedToo) {
  const CallPtr call = send(browser, "{Uff0001:[]}");
  EXPECT_TRUE(call->parked);
  EXPECT_TRUE(sessionOf(browser)->waiters.empty());
  loop.advance(0);
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(answerOf(browser, *call), "{uff0022:16646158,sff0023:'unreachable'}");
}

TEST_F(RelayTest, ErrorsAreAnswersLikeOthers) {
  const CallPtr refused = send(browser, "{Uff0001:[24,1]}");
  const CallPtr silent = send(browser, "{Uff0001:[24,1]}");
  const CallPtr lost = send(browser, "{Uff0001:[25,1]}");
  bus.answer(bus.sent[0], tn::errorMsg(0xfe0006, "no such service"));
  bus.bounce(bus.sent[2]);
  loop.advance(0);
  EXPECT_THAT(answerOf(browser, *refused), testing::HasSubstr("sff0023:'no such service'"));
  EXPECT_THAT(answerOf(browser, *lost), testing::HasSubstr("sff0023:'unreachable'"));
  loop.advance(5999);
  EXPECT_FALSE(silent->answered());
  loop.advance(1);
  EXPECT_EQ(answerOf(browser, *silent), "{uff0022:16646157,sff0023:'timeout'}");
  EXPECT_NE(sessionOf(browser), nullptr);
  // What comes now is late.
  bus.answer(bus.sent[1], msg("{u1:1}"));
  EXPECT_EQ(silent->completions, 1);
}

TEST_F(RelayTest, TheSecondReplyIsDropped) {
  const CallPtr call = send(browser, "{Uff0001:[24,1]}");
  bus.answer(bus.sent.back(), msg("{u1:1}"));
  bus.answer(bus.sent.back(), msg("{u1:2}"));
  EXPECT_EQ(call->completions, 1);
  EXPECT_THAT(answerOf(browser, *call), testing::StartsWith("{u1:1,"));
  EXPECT_TRUE(sessionOf(browser)->queue.empty());
}

// The policies of a message stand before the question whether it is a reply.
TEST_F(RelayTest, AReplyWithoutPoliciesIsNoneAtAll) {
  const CallPtr call = send(browser, "{Uff0001:[24,1]}");
  bus.answer(bus.sent.back(), msg("{u1:1,uff000b:0}"));
  EXPECT_FALSE(call->answered());
  EXPECT_EQ(bus.sent.size(), 1U);
  bus.answer(bus.sent.back(), msg("{u1:1,uff000b:1}"));
  EXPECT_EQ(call->completions, 1);
}

TEST_F(RelayTest, AReplyOfMegabytes) {
  tn::message large;
  std::vector<std::string> texts(60, std::string(65000, '\''));
  ASSERT_TRUE(large.insert_vector(tn::string_array_id(1), texts));
  const CallPtr text = send(browser, "{Uff0001:[24,1]}");
  const CallPtr binary = sendBinary(browser, msg("{Uff0001:[24,1]}"));
  bus.answer(bus.sent[0], large);
  EXPECT_GT(answerOf(browser, *text).size(), 60U * 130000);
  bus.answer(bus.sent[1], large);
  EXPECT_EQ(binary->completions, 1);
  EXPECT_EQ(binary->response.status, 200);
  EXPECT_EQ(binary->response.body, "");
  const auto lines = log.takeLines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_TRUE(lines[0].starts_with("putEncrypted too long msg 39"));
}

TEST_F(RelayTest, ADescriptorInAReplyIsClosed) {
  const CallPtr call = send(browser, "{Uff0001:[24,1]}");
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const UniqueFd reading(ends[0]);
  bus.answer(bus.sent.back(), msg("{u1:1}"), UniqueFd(ends[1]));
  EXPECT_EQ(call->completions, 1);
  char byte = 0;
  EXPECT_EQ(read(reading.get(), &byte, 1), 0);
}

TEST_F(RelayTest, AConnectionThatIsGoneTakesItsRelayAlong) {
  CallPtr call = send(browser, "{Uff0001:[24,1]}");
  call->end();
  bus.answer(bus.sent.back(), msg("{}"));
  loop.advance(10000);
  EXPECT_EQ(call->completions, 0);
  EXPECT_FALSE(call->answered());
}

TEST_F(RelayTest, TheSessionMayBeGoneWhenTheReplyComes) {
  const CallPtr call = send(browser, "{Uff0001:[24,1]}");
  const CallPtr end = send(browser, "{uff0007:0xfe0014}");
  EXPECT_EQ(sessionOf(browser), nullptr);
  bus.answer(bus.sent[0], msg("{}"));
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(call->response.status, 500);
  EXPECT_EQ(call->response.body, "");
  EXPECT_EQ(call->type(), "none");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

// ---- The end of a session

TEST_F(RelayTest, ABrowserEndsItsSession) {
  const CallPtr call = send(browser, "{uff0007:0xfe0014}");
  EXPECT_FALSE(call->parked);
  EXPECT_EQ(answerOf(browser, *call), "{}");
  EXPECT_EQ(sessionOf(browser), nullptr);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].peer, 0xff0001U);
  EXPECT_EQ(json(bus.sent[0].content), "{Uff0002:[100,1],Uff0001:[],uff0007:16646164}");
}

TEST_F(RelayTest, InTheBinaryFormToo) {
  const CallPtr call = sendBinary(browser, msg("{uff0007:0xfe0014}"));
  EXPECT_EQ(browser.open(call->response.body), std::string("\0\2", 2));
  EXPECT_EQ(sessionOf(browser), nullptr);
}

TEST_F(RelayTest, WithAPathItIsRelayed) {
  const CallPtr call = send(browser, "{Uff0001:[24,1],uff0007:0xfe0014}");
  EXPECT_TRUE(call->parked);
  EXPECT_NE(sessionOf(browser), nullptr);
}

}  // namespace
