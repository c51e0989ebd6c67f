// Login: what the login service is asked, and everything that can become of it.
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::json;
using jsproxy_test::msg;
using jsproxy_test::TunnelTest;
using testing::ElementsAre;
using testing::IsEmpty;

class LoginTest : public TunnelTest {
 protected:
  static void expectAnswered(const jsproxy_test::Call& call, int status) {
    EXPECT_EQ(call.completions, 1);
    EXPECT_EQ(call.response.status, status);
    EXPECT_EQ(call.response.statusText, "");
    EXPECT_EQ(call.response.body, "");
  }

  Browser browser = meet();
};

TEST_F(LoginTest, TheLoginServiceIsAsked) {
  const CallPtr call = send(browser, "{s1:'admin',s3:'secret',s4:'other',u7:1}");
  EXPECT_TRUE(call->parked);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].peer, 13U);
  tn::message question = bus.sent[0].content;
  EXPECT_TRUE(question.remove(tn::field::requestNumber));
  EXPECT_EQ(json(question),
            "{Uff0002:[100,1],Uff0001:[4],uff0007:1,b8:1,u7:5,"
            "aff0013:[0,0,0,0,0,0,0,0,0,0,255,255,10,0,0,7],s1:'admin',s3:'secret'}");
}

// Of the request that logs in, not of the one that exchanged keys.
TEST_F(LoginTest, TheAddressIsThatOfTheRequest) {
  auto call = std::make_unique<jsproxy_test::Call>();
  const std::string body = bytesToText(asBytes(browser.frame("{}")));
  call->request.method = Method::post;
  call->request.pathInfoSet = true;
  call->request.headers.addHeader("content-length", body.size(), false);
  servlet->doMethod(call->request, call->response);
  finish(*call, body);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].content.get(tn::addr6_id(0xff0013)), IPAddr6().bytes());
  EXPECT_FALSE(bus.sent[0].content.has(tn::string_id(1)));
}

TEST_F(LoginTest, TheFirstMessageIsTheLoginWhateverItHolds) {
  const CallPtr call = send(browser, "{Uff0001:[24,1],uff0007:0xfe0014}");
  EXPECT_TRUE(call->parked);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].peer, 13U);
}

TEST_F(LoginTest, ALoginThatIsGranted) {
  const CallPtr call = send(browser, "{s1:'admin',s3:'secret'}");
  bus.answer(bus.sent.back(),
             msg("{ufe0001:77,ub:0x1ff0,s18:'skin',s11:'eleven',s12:'twelve',s15:'f',s17:'s',s19:'x'}"));
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(call->type(), "text/plain");
  // Field numbers are hexadecimal in this form: 17, 18, 21 and 23 are 11, 12, 15 and 17.
  EXPECT_EQ(answerOf(browser, *call),
            "{Uff0001:[1],sff000a:'admin',uff000b:8176,sfe0009:'skin',s11:'eleven',s12:'twelve',s15:'f',s17:'s'}");
  const JsSession* session = sessionOf(browser);
  EXPECT_TRUE(session->loggedIn);
  EXPECT_EQ(session->user, "admin");
  EXPECT_EQ(session->loginNumber, 77U);
  EXPECT_EQ(session->policies, 0x1ff0U);
  EXPECT_EQ(session->loginText, "skin");
}

TEST_F(LoginTest, WhatTheServiceDoesNotSayIsNothing) {
  const CallPtr call = send(browser, "{}");
  bus.answer(bus.sent.back(), {});
  EXPECT_EQ(answerOf(browser, *call), "{Uff0001:[1],sff000a:'',uff000b:0,sfe0009:''}");
  EXPECT_EQ(sessionOf(browser)->policies, 0U);
}

TEST_F(LoginTest, InTheBinaryFormTheTypeIsTextAllTheSame) {
  const CallPtr call = sendBinary(browser, msg("{s1:'admin'}"));
  EXPECT_EQ(call->type(), "msg");
  bus.answer(bus.sent.back(), msg("{ub:1}"));
  EXPECT_EQ(call->type(), "text/plain");
  tn::message answer;
  ASSERT_TRUE(answer.unflatten(asBytes(browser.open(call->response.body))));
  EXPECT_EQ(json(answer), "{Uff0001:[1],sff000a:'admin',uff000b:1,sfe0009:''}");
}

TEST_F(LoginTest, ALoginDoesNotCountAsActivity) {
  const CallPtr call = send(browser, "{}");
  jsproxy_test::clockSeconds += 5;
  bus.answer(bus.sent.back(), {});
  EXPECT_EQ(sessionOf(browser)->lastActivity, 1000000U);
}

TEST_F(LoginTest, ARefusedLoginEndsTheSession) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  bus.answer(bus.sent.back(), tn::errorMsg(0xfe0009, "no"));
  expectAnswered(*call, 403);
  EXPECT_EQ(call->type(), "none");
  EXPECT_EQ(sessionOf(browser), nullptr);
  // It was never logged in, so nobody is told.
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(LoginTest, SilenceIsARefusal) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  loop.advance(5999);
  EXPECT_FALSE(call->answered());
  loop.advance(1);
  expectAnswered(*call, 403);
  EXPECT_EQ(sessionOf(browser), nullptr);
  bus.answer(bus.sent.back(), msg("{ub:1}"));
  EXPECT_EQ(call->completions, 1);
}

TEST_F(LoginTest, WithoutALoginServiceItIsRefused) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  bus.bounce(bus.sent.back());
  loop.advance(0);
  expectAnswered(*call, 403);
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(LoginTest, WithoutABrokerItIsRefused) {
  bus.unlink();
  const CallPtr call = send(browser, "{s1:'admin'}");
  EXPECT_TRUE(call->parked);
  loop.advance(0);
  expectAnswered(*call, 403);
}

TEST_F(LoginTest, AnAnswerThatComesTwiceCountsOnce) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  bus.answer(bus.sent.back(), msg("{ub:1}"));
  bus.answer(bus.sent.back(), msg("{ub:2}"));
  EXPECT_EQ(call->completions, 1);
  EXPECT_EQ(sessionOf(browser)->policies, 1U);
}

TEST_F(LoginTest, AStrangersAnswerIsNone) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  bus.answerFrom(1234, bus.sent.back(), msg("{ub:0xffffffff}"));
  EXPECT_FALSE(call->answered());
  EXPECT_FALSE(sessionOf(browser)->loggedIn);
}

TEST_F(LoginTest, TheSessionMayBeGoneWhenTheAnswerComes) {
  const CallPtr call = send(browser, "{s1:'admin'}");
  const CallPtr other = send(browser, "{s1:'admin'}");
  ASSERT_EQ(bus.sent.size(), 2U);
  bus.answer(bus.sent[1], tn::errorMsg(0xfe0009, "no"));
  EXPECT_EQ(sessionOf(browser), nullptr);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  bus.answer(bus.sent[0], msg("{ub:1}"));
  expectAnswered(*call, 500);
  EXPECT_THAT(log.takeLines(), ElementsAre("session has disappeared"));
  expectAnswered(*other, 403);
}

TEST_F(LoginTest, AnErrorForASessionThatIsGoneIsARefusal) {
  const CallPtr first = send(browser, "{}");
  const CallPtr second = send(browser, "{}");
  bus.answer(bus.sent[0], tn::errorMsg(1, "no"));
  bus.answer(bus.sent[1], tn::errorMsg(1, "no"));
  expectAnswered(*first, 403);
  expectAnswered(*second, 403);
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(LoginTest, AConnectionThatIsGoneTakesItsLoginAlong) {
  CallPtr call = send(browser, "{s1:'admin'}");
  call->end();
  bus.answer(bus.sent.back(), msg("{ub:1}"));
  EXPECT_EQ(call->completions, 0);
  EXPECT_FALSE(sessionOf(browser)->loggedIn);
  loop.advance(10000);
  EXPECT_FALSE(call->answered());
  EXPECT_EQ(servlet->sessionCount(), 1U);
}

// The last of two logins under way decides.
TEST_F(LoginTest, TwoLoginsAtOnce) {
  const CallPtr first = send(browser, "{s1:'one'}");
  const CallPtr second = send(browser, "{s1:'two'}");
  bus.answer(bus.sent[1], msg("{ub:2}"));
  bus.answer(bus.sent[0], msg("{ub:1}"));
  EXPECT_EQ(sessionOf(browser)->user, "one");
  EXPECT_EQ(sessionOf(browser)->policies, 1U);
  answerOf(browser, *second);
  answerOf(browser, *first);
}

}  // namespace
