// From a request to a message: sizes, encodings, forms, and what is logged when something is wrong.
#include "tests/jsproxy/tunnel_test.h"

namespace {

using jsproxy_test::Browser;
using jsproxy_test::CallPtr;
using jsproxy_test::TunnelTest;
using testing::ElementsAre;
using testing::IsEmpty;

class TunnelRequestTest : public TunnelTest {
 protected:
  // The status of a request that is answered before its body is read; 0 when the body is wanted.
  int statusFor(const std::string& length) {
    const CallPtr call = begin("", {{"Content-Length", length}});
    return call->answered() ? call->response.status : 0;
  }
  static void expectRefused(const jsproxy_test::Call& call) {
    EXPECT_EQ(call.response.status, 500);
    EXPECT_EQ(call.response.body, "");
    EXPECT_EQ(call.response.statusText, "");
    EXPECT_EQ(call.type(), "none");
  }
};

TEST_F(TunnelRequestTest, TheLengthDecides) {
  EXPECT_EQ(statusFor("8"), 0);
  EXPECT_EQ(statusFor("131072"), 0);
  EXPECT_EQ(statusFor("131073"), 500);
  EXPECT_EQ(statusFor("4294967294"), 500);
  EXPECT_EQ(begin("", {})->response.status, 500);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  for (const char* length : {"0", "1", "7"}) {
    EXPECT_EQ(statusFor(length), 500);
    EXPECT_THAT(log.takeLines(), ElementsAre("data too small"));
  }
}

TEST_F(TunnelRequestTest, TheWholeBodyIsWantedAtOnce) {
  const CallPtr call = begin("", {{"Content-Length", "1000"}});
  EXPECT_EQ(call->request.bodyChunk, 1000);
  ASSERT_TRUE(call->request.bodyConsumer);
  // The connection ended before it was there.
  call->request.bodyConsumer("", true);
  EXPECT_FALSE(call->answered());
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(TunnelRequestTest, OtherPathsAreNotThere) {
  for (const char* path : {"x", "uploads", "put/x", "upload/"}) {
    const CallPtr call = begin(path, {{"Content-Length", "100"}});
    EXPECT_EQ(call->response.status, 404);
    EXPECT_EQ(call->response.statusText, "");
  }
}

TEST_F(TunnelRequestTest, OtherMethodsAreRefused) {
  for (const Method method : {Method::put, Method::options, Method::del, Method::unknown}) {
    jsproxy_test::Call call;
    call.request.method = method;
    servlet->doMethod(call.request, call.response);
    EXPECT_EQ(call.response.status, 405);
    EXPECT_EQ(call.response.headers.getHeader("allow"), "GET, HEAD, POST");
  }
}

TEST_F(TunnelRequestTest, ItServesWhatLiesBelowItsPath) {
  EXPECT_TRUE(servlet->isDirectory());
}

TEST_F(TunnelRequestTest, AKeyExchangeOfFortyBytes) {
  Browser browser;
  ASSERT_EQ(browser.hello().size(), 40U);
  const CallPtr call = postText(browser.hello());
  EXPECT_EQ(call->response.status, 200);
  EXPECT_EQ(call->type(), "none");
  browser.takeAnswer(call->response.body);
  const JsSession* session = sessionOf(browser);
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->clientAddress.str(true), "10.0.0.7");
  EXPECT_FALSE(session->loggedIn);
  EXPECT_EQ(session->loginNumber, 0xFFFFFFFFU);
  EXPECT_EQ(session->policies, 0U);
  EXPECT_EQ(session->lastActivity, 1000000U);
  EXPECT_EQ(session->sendPosition, 1U);
  EXPECT_EQ(session->receiving.base(), 1U);
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(TunnelRequestTest, ThirtyNineBytesAreTooFewForAKeyExchange) {
  const CallPtr call = postText(Browser().hello().substr(0, 39));
  expectRefused(*call);
  EXPECT_THAT(log.takeLines(), ElementsAre("kex data too small"));
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(TunnelRequestTest, MoreThanFortyBytesAndWhatStandsInTheSecondWordDoNotMatter) {
  Browser browser;
  std::string hello = browser.hello() + "and more";
  hello.replace(4, 4, "\xff\xfe\x01\x02");
  const CallPtr call = postText(hello);
  EXPECT_EQ(call->response.status, 200);
  browser.takeAnswer(call->response.body);
  EXPECT_TRUE(send(browser, "{}")->parked);
}

TEST_F(TunnelRequestTest, TheAnswerToABinaryKeyExchangeIsText) {
  Browser browser;
  const CallPtr call = post(browser.hello(), "msg");
  EXPECT_EQ(call->response.status, 200);
  EXPECT_EQ(call->type(), "none");
  browser.takeAnswer(call->response.body);
  EXPECT_NE(sessionOf(browser), nullptr);
}

TEST_F(TunnelRequestTest, ATextThatDoesNotDecodeIsRefused) {
  expectRefused(*post("\xff\xff\xff\xff\xff\xff\xff\xff\xff"));
  expectRefused(*post(std::string(7, 'a') + "\xc3"));
  EXPECT_EQ(servlet->sessionCount(), 0U);
}

TEST_F(TunnelRequestTest, AnUnknownSessionIsLoggedInHexadecimal) {
  Browser browser = meet();
  browser.id = 0xABCDEF01;
  expectRefused(*send(browser, "{}"));
  EXPECT_THAT(log.takeLines(), ElementsAre("no session abcdef01"));
}

TEST_F(TunnelRequestTest, AShortFrameIsRefused) {
  Browser browser = meet();
  expectRefused(*postText(Browser::header(browser.id, 1)));
  expectRefused(*postText(browser.frameAt(1, "").substr(0, 15)));
  EXPECT_THAT(log.takeLines(), ElementsAre("decrypt failed", "decrypt failed"));
}

TEST_F(TunnelRequestTest, WhatDoesNotDecipherIsRefusedAndMayBeTriedAgain) {
  Browser browser = meet();
  expectRefused(*postText(browser.rawFrame(1, "{}no padding")));
  const auto lines = log.takeLines();
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "bad padding");
  EXPECT_EQ(lines[2], "decrypt failed");
  expectRefused(*postText(Browser::header(browser.id, 0) + "0123456789"));
  EXPECT_THAT(log.takeLines(), ElementsAre("bad seq", "decrypt failed"));
  EXPECT_TRUE(send(browser, "{}")->parked);
}

TEST_F(TunnelRequestTest, TheTextEndsWithItsMessageAndSpaces) {
  Browser browser = logIn();
  for (const char* text : {"{}", "{}   ", "   {}", "}", "{u1:5,} ", "u1:5}"}) {
    const CallPtr call = send(browser, text);
    EXPECT_TRUE(call->parked) << text;
  }
  EXPECT_EQ(send(browser, std::string("{}\0behind the end", 16))->parked, true);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  for (const char* text : {"", "{", "{}\n", "{}}", "{} x", "{,u1:5}", "{u1:x}", " ", "{s1:'}", "\t{}"}) {
    expectRefused(*send(browser, text));
    EXPECT_THAT(log.takeLines(), ElementsAre("bad json")) << text;
  }
}

TEST_F(TunnelRequestTest, ABinaryPayloadIsAFlattenedMessage) {
  Browser browser = logIn();
  EXPECT_TRUE(sendBinary(browser, jsproxy_test::msg("{u1:5}"))->parked);
  // Its first two bytes may be the length instead.
  EXPECT_TRUE(post(browser.frame(std::string("\0\x06\x01\0\0\x01", 6)), "msg")->parked);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  for (const std::string_view payload : {"", "M", "{}", "M2x", "M2\x01\x01\x01\x7f", "M2\x01\x01\x01\x21\x05x"}) {
    expectRefused(*post(browser.frame(payload), "msg"));
    EXPECT_THAT(log.takeLines(), ElementsAre("bad bin msg")) << payload;
  }
}

// Exactly "msg": all else, and nothing at all, is text.
TEST_F(TunnelRequestTest, TheTypeDecidesTheForm) {
  Browser browser = logIn();
  for (const char* type : {"text/plain", "Msg", "msg; x", "msgs", ""}) {
    const CallPtr call = post(bytesToText(asBytes(browser.frame("{}"))), type);
    EXPECT_TRUE(call->parked) << type;
    EXPECT_EQ(call->type(), "text/plain");
  }
  const std::string body = bytesToText(asBytes(browser.frame("{}")));
  const CallPtr call = begin("", {{"content-length", std::to_string(body.size())}});
  finish(*call, body);
  EXPECT_TRUE(call->parked);
  const CallPtr binary = sendBinary(browser, {});
  EXPECT_TRUE(binary->parked);
  EXPECT_EQ(binary->type(), "msg");
}

TEST_F(TunnelRequestTest, ALargeBodyLeavesNoMemoryBehind) {
  Browser browser = logIn();
  const CallPtr call = send(browser, "{s1:'" + std::string(80000, 'x') + "'}");
  EXPECT_EQ(call->response.status, 200);
  EXPECT_TRUE(call->parked);
  EXPECT_EQ(sessionOf(browser)->receiving.buffered(), 0U);
}

TEST_F(TunnelRequestTest, FramesOfParallelRequestsMayCross) {
  Browser browser = logIn();
  const std::string first = browser.frame("{Uff0001:[24,1],u1:1}");
  const std::string second = browser.frame("{Uff0001:[24,1],u1:2}");
  const CallPtr late = postText(second);
  const CallPtr early = postText(first);
  ASSERT_EQ(bus.sent.size(), 2U);
  EXPECT_EQ(bus.sent[0].content.get(tn::u32_id(1)), 2U);
  EXPECT_EQ(bus.sent[1].content.get(tn::u32_id(1)), 1U);
}

}  // namespace
