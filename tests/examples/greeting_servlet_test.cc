#include "examples/servlet/greeting_servlet.h"

#include <gtest/gtest.h>

#include "platform/bus/looper.h"
#include "tests/fakes/recording_bus.h"

namespace {

class GreetingServletTest : public testing::Test {
 protected:
  GreetingServletTest() {
    response.onComplete = [this] { ++completions; };
  }
  void get(const std::string& query) {
    request.query = query;
    servlet.doGet(request, response);
  }

  tn::fakes::TestLooper loop;
  GreetingServlet servlet;
  Request request{false, false};
  Response response;
  int completions = 0;
};

TEST_F(GreetingServletTest, NobodyIsGreetedWithoutAName) {
  get("");
  EXPECT_EQ(response.status, 400);
  EXPECT_TRUE(loop.bus.sent.empty());
}

TEST_F(GreetingServletTest, AnswersWithTheWordsOfTheService) {
  get("neighbour");
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  const tn::message& sent = loop.bus.sent[0].content;
  EXPECT_EQ(loop.bus.sent[0].peer, 100U);
  EXPECT_EQ(sent.get(tn::u32_array_id(0xff0001)), std::vector<std::uint32_t>{1});
  EXPECT_EQ(sent.get(tn::u32_id(0xff0007)), 0x20001U);
  EXPECT_EQ(sent.get(tn::string_id(1)), "neighbour");
  EXPECT_FALSE(response.answered());

  tn::message reply;
  reply.insert(tn::string_id(1), "Hello, neighbour");
  loop.bus.answer(loop.bus.sent[0], reply);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "Hello, neighbour\n");
  EXPECT_EQ(response.headers.getHeader("content-type"), "text/plain; charset=utf-8");
}

TEST_F(GreetingServletTest, ASilentServiceIs504) {
  get("neighbour");
  loop.advance(GreetingServlet::answerMs - 1);
  EXPECT_EQ(completions, 0);
  loop.advance(1);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 504);
}

TEST_F(GreetingServletTest, AServiceThatIsNotThereOrRefusesIs502) {
  get("neighbour");
  loop.bus.bounce(loop.bus.sent[0]);
  loop.advance(0);
  EXPECT_EQ(response.status, 502);
  EXPECT_EQ(completions, 1);
}

TEST_F(GreetingServletTest, TheEndOfTheRequestTakesItBack) {
  get("neighbour");
  ASSERT_TRUE(request.onRequestEnd);
  request.onRequestEnd();
  loop.advance(10 * GreetingServlet::answerMs);
  EXPECT_EQ(completions, 0);
  EXPECT_FALSE(response.answered());
}

TEST_F(GreetingServletTest, OtherMethodsAreToldWhichThereAre) {
  ASSERT_TRUE(request.parseStatusLine("POST /greeting HTTP/1.1"));
  servlet.doMethod(request, response);
  EXPECT_EQ(response.status, 405);
  EXPECT_EQ(response.headers.getHeader("allow"), "GET, HEAD");
}

}  // namespace
