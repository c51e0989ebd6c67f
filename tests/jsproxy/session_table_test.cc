// Sessions by number, and their end by time.
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::clockSeconds;
using jsproxy_test::json;
using jsproxy_test::msg;
using jsproxy_test::TunnelTest;

class SessionTableTest : public TunnelTest {};

TEST_F(SessionTableTest, NumbersBeginAtOneAndAreNotGivenAgainSoon) {
  EXPECT_EQ(meet().id, 1U);
  Browser second = logIn();
  EXPECT_EQ(second.id, 2U);
  send(second, "{uff0007:0xfe0014}");
  EXPECT_EQ(meet().id, 3U);
  EXPECT_EQ(servlet->sessionCount(), 2U);
}

TEST_F(SessionTableTest, ASessionOfAMinuteEnds) {
  Browser browser = logIn();
  clockSeconds += 59;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  clockSeconds += 1;
  loop.advance(2999);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  loop.advance(1);
  EXPECT_EQ(servlet->sessionCount(), 0U);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].peer, 0xff0001U);
  EXPECT_EQ(json(bus.sent[0].content), "{Uff0002:[100,1],Uff0001:[],uff0007:16646164}");
}

TEST_F(SessionTableTest, TheTimerGoesOn) {
  for (int round = 0; round < 5; ++round) {
    meet();
    clockSeconds += 60;
    loop.advance(3000);
    EXPECT_EQ(servlet->sessionCount(), 0U);
  }
}

TEST_F(SessionTableTest, ASessionThatNeverLoggedInEndsWithoutNotice) {
  meet();
  clockSeconds += 60;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 0U);
  EXPECT_TRUE(bus.sent.empty());
}

TEST_F(SessionTableTest, SessionsEndInTheOrderOfTheirNumbers) {
  for (int i = 0; i < 3; ++i)
    logIn();
  clockSeconds += 60;
  loop.advance(3000);
  ASSERT_EQ(bus.sent.size(), 3U);
  for (std::uint32_t i = 0; i < 3; ++i)
    EXPECT_EQ(bus.sent[i].content.get(tn::field::sender), (std::vector<std::uint32_t>{100, i + 1}));
}

// The loop has turns for others in between.
TEST_F(SessionTableTest, ManySessionsEndInSeveralTurns) {
  constexpr std::size_t perTurn = JsProxyServlet::sessionsPerTurn;
  const std::string hello = bytesToText(asBytes(Browser().hello()));
  for (std::size_t i = 0; i < 2 * perTurn + 10; ++i)
    post(hello);
  clockSeconds += 60;
  auto& timers = loop.runner.timers();
  timers.setNow(timers.now() + std::chrono::milliseconds(3000));
  for (const std::size_t left : {perTurn + 10, std::size_t{10}, std::size_t{0}}) {
    timers.runExpired(timers.now());
    EXPECT_EQ(servlet->sessionCount(), left);
  }
  // The next look is a whole interval later.
  meet();
  clockSeconds += 60;
  loop.advance(2999);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  loop.advance(1);
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(SessionTableTest, APollKeepsASessionAlive) {
  Browser browser = logIn();
  CallPtr call = send(browser, "{}");
  clockSeconds += 600;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  EXPECT_FALSE(call->answered());
  // Without it the session is as old as its last activity.
  call->end();
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(SessionTableTest, ActivityBeginsTheMinuteAnew) {
  Browser browser = logIn();
  clockSeconds += 50;
  const CallPtr relayed = send(browser, "{Uff0001:[24,1]}");
  clockSeconds += 50;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  tell(browser, "{}");
  const CallPtr answered = send(browser, "{}");
  clockSeconds += 59;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  const CallPtr poll = send(browser, "{}");
  tell(browser, "{}");
  clockSeconds += 59;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
  clockSeconds += 1;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(SessionTableTest, ALoginUnderWayDoesNotKeepASessionAlive) {
  Browser browser = meet();
  clockSeconds += 58;
  const CallPtr call = send(browser, "{s1:'admin'}");
  clockSeconds += 2;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 0U);
  bus.answer(bus.sent.back(), msg("{ub:1}"));
  EXPECT_EQ(call->response.status, 500);
  EXPECT_EQ(call->completions, 1);
}

TEST_F(SessionTableTest, AnEarlierClockEndsNothing) {
  logIn();
  clockSeconds -= 500000;
  loop.advance(3000);
  EXPECT_EQ(servlet->sessionCount(), 1U);
}

TEST_F(SessionTableTest, TheServletMayGo) {
  Browser browser = logIn();
  CallPtr relayed = send(browser, "{Uff0001:[24,1]}");
  CallPtr poll = send(browser, "{}");
  bus.sent.clear();
  // Their connections go with it; nobody is told.
  relayed->request.onRequestEnd = nullptr;
  poll->request.onRequestEnd = nullptr;
  servlet.reset();
  clockSeconds += 60;
  loop.advance(10000);
  EXPECT_TRUE(bus.sent.empty());
  EXPECT_FALSE(poll->answered());
  EXPECT_FALSE(relayed->answered());
}

TEST_F(SessionTableTest, ItIsHandlerOneHundred) {
  EXPECT_EQ(servlet->handlerId(), 100U);
}

}  // namespace
