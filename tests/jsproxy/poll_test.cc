// Messages of services on their way to a browser: waiting polls and the queue.
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::json;
using jsproxy_test::msg;
using jsproxy_test::TunnelTest;
using testing::HasSubstr;

class PollTest : public TunnelTest {
 protected:
  Browser browser = logIn();
};

TEST_F(PollTest, AMessageWaitsForAPoll) {
  tell(browser, "{u1:1}");
  tell(browser, "{u1:2}");
  EXPECT_EQ(sessionOf(browser)->queue.size(), 2U);
  jsproxy_test::clockSeconds += 9;
  const CallPtr first = send(browser, "{}");
  EXPECT_FALSE(first->parked);
  EXPECT_EQ(answerOf(browser, *first), "{u1:1,Uff0001:[],Uff0002:[24]}");
  EXPECT_EQ(sessionOf(browser)->lastActivity, 1000009U);
  const CallPtr second = send(browser, "{}");
  EXPECT_THAT(answerOf(browser, *second), HasSubstr("u1:2"));
  EXPECT_TRUE(send(browser, "{}")->parked);
}

TEST_F(PollTest, PollsWaitForMessagesInOrder) {
  const CallPtr first = send(browser, "{}");
  const CallPtr second = sendBinary(browser, {});
  EXPECT_EQ(sessionOf(browser)->waiters.size(), 2U);
  jsproxy_test::clockSeconds += 9;
  tell(browser, "{u1:1}");
  EXPECT_EQ(sessionOf(browser)->lastActivity, 1000009U);
  EXPECT_EQ(first->completions, 1);
  EXPECT_FALSE(second->answered());
  tell(browser, "{u1:2}");
  EXPECT_EQ(second->completions, 1);
  EXPECT_EQ(first->type(), "text/plain");
  EXPECT_THAT(answerOf(browser, *first), HasSubstr("u1:1"));
  EXPECT_EQ(second->type(), "msg");
  tn::message message;
  ASSERT_TRUE(message.unflatten(asBytes(browser.open(second->response.body))));
  EXPECT_EQ(message.get(tn::u32_id(1)), 2U);
  EXPECT_TRUE(sessionOf(browser)->queue.empty());
}

TEST_F(PollTest, AQueuedMessageIsNoActivity) {
  jsproxy_test::clockSeconds += 9;
  tell(browser, "{u1:1}");
  EXPECT_EQ(sessionOf(browser)->lastActivity, 1000000U);
}

TEST_F(PollTest, APollHasNoTimeLimit) {
  const CallPtr call = send(browser, "{}");
  jsproxy_test::clockSeconds += 100000;
  loop.advance(100000);
  EXPECT_FALSE(call->answered());
  EXPECT_NE(sessionOf(browser), nullptr);
}

TEST_F(PollTest, AnyMessageWithoutAPathIsAPoll) {
  const CallPtr call = send(browser, "{u1:5,uff0007:0xfe0102,Uff0002:[1,2]}");
  EXPECT_TRUE(call->parked);
  EXPECT_EQ(sessionOf(browser)->waiters.size(), 1U);
  EXPECT_TRUE(bus.sent.empty());
}

TEST_F(PollTest, AConnectionThatIsGoneTakesItsOwnPollAlong) {
  const CallPtr first = send(browser, "{}");
  CallPtr second = send(browser, "{}");
  const CallPtr third = send(browser, "{}");
  second->end();
  EXPECT_EQ(sessionOf(browser)->waiters.size(), 2U);
  tell(browser, "{u1:1}");
  tell(browser, "{u1:2}");
  EXPECT_EQ(first->completions, 1);
  EXPECT_FALSE(second->answered());
  EXPECT_EQ(third->completions, 1);
}

TEST_F(PollTest, TheEndOfAnAnsweredPollTakesNobodyElsesPlace) {
  const CallPtr first = send(browser, "{}");
  tell(browser, "{u1:1}");
  const CallPtr second = send(browser, "{}");
  first->end();
  EXPECT_EQ(sessionOf(browser)->waiters.size(), 1U);
  tell(browser, "{u1:2}");
  EXPECT_EQ(second->completions, 1);
}

TEST_F(PollTest, TheEndOfAPollAfterItsSession) {
  const CallPtr call = send(browser, "{}");
  send(browser, "{uff0007:0xfe0014}");
  EXPECT_EQ(call->response.status, 410);
  call->end();
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(PollTest, TheEndOfTheSessionAnswersAllPolls) {
  const CallPtr first = send(browser, "{}");
  const CallPtr second = sendBinary(browser, {});
  // The connection of one goes away as soon as the other is answered.
  first->response.onComplete = [&] { second->end(); };
  const CallPtr end = send(browser, "{uff0007:0xfe0014}");
  EXPECT_EQ(first->response.status, 410);
  EXPECT_EQ(second->response.status, 410);
  EXPECT_EQ(second->completions, 1);
  EXPECT_EQ(first->response.body, "");
  EXPECT_EQ(first->type(), "none");
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(PollTest, SessionsDoNotSeeEachOthersMessages) {
  Browser other = logIn();
  const CallPtr mine = send(browser, "{}");
  const CallPtr theirs = send(other, "{}");
  tell(other, "{u1:2}");
  EXPECT_FALSE(mine->answered());
  EXPECT_THAT(answerOf(other, *theirs), HasSubstr("u1:2"));
}

// ---- handle

TEST_F(PollTest, WhatLiesBelowTheSessionStaysInThePath) {
  tn::message message;
  message.insert_vector(tn::field::destination, std::array{100U, browser.id, 68U, 1U});
  bus.deliver(24, message);
  EXPECT_EQ(answerOf(browser, *send(browser, "{}")), "{Uff0001:[68,1],Uff0002:[24]}");
}

TEST_F(PollTest, UnknownSessionsAndEmptyPathsAreIgnored) {
  tn::message message;
  message.insert_vector(tn::field::destination, std::array{100U, 4711U});
  message.insert(tn::field::requestNumber, 5U);
  bus.deliver(24, message);
  message.insert_vector(tn::field::destination, std::array{100U});
  bus.deliver(24, message);
  EXPECT_TRUE(bus.sent.empty());
  EXPECT_TRUE(sessionOf(browser)->queue.empty());
}

TEST_F(PollTest, MessagesOfUsersWithoutPoliciesAreRefused) {
  const auto to = std::array{100U, browser.id};
  const auto number = bus.request(24, to, 1, msg("{uff000b:0}"));
  const auto* reply = bus.replyTo(number);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->content.get(tn::field::errorCode), 0xfe0009U);
  EXPECT_FALSE(reply->content.has(tn::field::errorText));
  EXPECT_TRUE(sessionOf(browser)->queue.empty());
  // With one, or without a word of it, they are let through; nobody answers in the browser's name.
  bus.request(24, to, 1, msg("{uff000b:1}"));
  bus.request(24, to, 1, {});
  EXPECT_EQ(sessionOf(browser)->queue.size(), 2U);
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(PollTest, AQueuedMessageKeepsNoDescriptor) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  const UniqueFd reading(ends[0]);
  tn::message message;
  message.insert_vector(tn::field::destination, std::array{100U, browser.id});
  bus.deliver(24, message, UniqueFd(ends[1]));
  char byte = 0;
  EXPECT_EQ(read(reading.get(), &byte, 1), 0);
  EXPECT_EQ(sessionOf(browser)->queue.size(), 1U);
}

TEST_F(PollTest, AMessageForASessionThatIsNotLoggedInWaitsForIt) {
  const Browser other = meet();
  tell(other, "{u1:1}");
  EXPECT_EQ(sessionOf(other)->queue.size(), 1U);
}

TEST_F(PollTest, ALongMessageEndsABinaryPollWithNothing) {
  const CallPtr call = sendBinary(browser, {});
  tn::message large;
  const std::vector<std::string> texts(2, std::string(40000, 'x'));
  large.insert_vector(tn::string_array_id(1), texts);
  large.insert_vector(tn::field::destination, std::array{100U, browser.id});
  bus.deliver(24, large);
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(call->response.status, 200);
  EXPECT_EQ(call->response.body, "");
}

}  // namespace
