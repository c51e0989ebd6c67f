#include "servlets/remote_servlet.h"

#include <gmock/gmock.h>

#include "platform/bus/looper.h"
#include "tests/fakes/recording_bus.h"
#include "tests/http/connection_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t service = 63;
using Path = std::vector<std::uint32_t>;

// The servlet alone, with a request and a response of the test's own.
class RemoteServletTest : public testing::Test {
 protected:
  RemoteServletTest() {
    response.onComplete = [this] { ++completions; };
  }

  void perform(const std::string& line, const std::vector<std::string>& headers = {}) {
    ASSERT_TRUE(request.parseStatusLine(line));
    for (const std::string& header : headers)
      ASSERT_TRUE(request.headers.parseHeaderLine(header));
    servlet.doMethod(request, response);
  }
  void endRequest() {
    const auto end = std::exchange(request.onRequestEnd, nullptr);
    ASSERT_TRUE(end);
    end();
  }
  [[nodiscard]] const tn::message& sent() const { return loop.bus.sent.at(0).content; }

  tn::fakes::TestLooper loop;
  RemoteServlet servlet{{service, 15, 2}};
  Request request{false, false};
  Response response;
  int completions = 0;
};

TEST_F(RemoteServletTest, ForwardsAGetWhole) {
  perform("GET /login?x=1 HTTP/1.1", {"Host: router", "Cookie: a"});
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  EXPECT_EQ(loop.bus.sent[0].peer, service);
  EXPECT_EQ(sent().get(tn::u32_array_id(0xff0001)), (Path{15, 2}));
  EXPECT_EQ(sent().get(tn::u32_array_id(0xff0002)), (Path{0}));
  EXPECT_EQ(sent().get(tn::u32_id(0xff0007)), 0x50001U);
  EXPECT_TRUE(sent().has(tn::u32_id(0xff0020)));
  EXPECT_EQ(sent().get(tn::u32_id(1)), 1U);
  EXPECT_EQ(sent().get(tn::string_id(2)), "/login?x=1");
  ASSERT_TRUE(sent().has(tn::string_array_id(5)));
  EXPECT_THAT(*sent().get(tn::string_array_id(5)), ElementsAre("Host: router", "Cookie: a"));
  EXPECT_FALSE(sent().has(tn::string_id(30)));
  EXPECT_FALSE(response.answered());
  EXPECT_EQ(request.bodyChunk, -1);
}

TEST_F(RemoteServletTest, EveryOtherMethodGoesAtOnce) {
  std::size_t count = 0;
  for (const char* line : {"HEAD / HTTP/1.1", "PUT / HTTP/1.1", "DELETE / HTTP/1.1", "OPTIONS * HTTP/1.1",
                           "TRACE / HTTP/1.1", "CONNECT a:1 HTTP/1.1", "GET /"}) {
    Request other(false, false);
    Response answer;
    ASSERT_TRUE(other.parseStatusLine(line));
    ASSERT_TRUE(other.headers.parseHeaderLine("Content-Length: 70000"));
    servlet.doMethod(other, answer);
    EXPECT_EQ(loop.bus.sent.size(), ++count) << line;
    EXPECT_FALSE(loop.bus.sent.back().content.has(tn::string_id(30)));
    EXPECT_EQ(other.bodyChunk, -1);
    std::exchange(other.onRequestEnd, nullptr)();
  }
}

TEST_F(RemoteServletTest, AnEmptyPostGoesAtOnce) {
  perform("POST / HTTP/1.1", {"Content-Length: 0"});
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  EXPECT_EQ(sent().get(tn::u32_id(1)), 3U);
  EXPECT_FALSE(sent().has(tn::string_id(30)));
  EXPECT_EQ(request.bodyChunk, -1);
}

TEST_F(RemoteServletTest, APostWaitsForItsBody) {
  perform("POST / HTTP/1.1", {"Content-Length: 65535"});
  EXPECT_TRUE(loop.bus.sent.empty());
  EXPECT_FALSE(response.answered());
  EXPECT_EQ(request.bodyChunk, 65535);
  const std::string body = sampleBytes(65535);
  request.bodyConsumer(body, true);
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  EXPECT_EQ(sent().get(tn::string_id(30)), body);
  EXPECT_EQ(sent().get(tn::u32_id(0xff0007)), 0x50001U);
}

TEST_F(RemoteServletTest, WhetherAPieceIsTheLastDoesNotMatter) {
  perform("POST / HTTP/1.1", {"Content-Length: 3"});
  request.bodyConsumer("abc", false);
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  EXPECT_EQ(sent().get(tn::string_id(30)), "abc");
}

TEST_F(RemoteServletTest, ABodyThatIsCutShortIsForgotten) {
  perform("POST / HTTP/1.1", {"Content-Length: 10"});
  request.bodyConsumer("", true);
  EXPECT_TRUE(loop.bus.sent.empty());
  EXPECT_FALSE(response.answered());
  EXPECT_FALSE(request.onRequestEnd);
}

TEST_F(RemoteServletTest, APostTooLargeOrWithoutLengthIsRefused) {
  for (const char* header : {"Content-Length: 65536", "Content-Length: 4294967294", "Host: a"}) {
    Request large(false, false);
    Response answer;
    ASSERT_TRUE(large.parseStatusLine("POST / HTTP/1.1"));
    ASSERT_TRUE(large.headers.parseHeaderLine(header));
    servlet.doMethod(large, answer);
    EXPECT_EQ(answer.status, 500) << header;
    EXPECT_EQ(answer.statusText, "");
    EXPECT_EQ(large.bodyChunk, -1);
  }
  EXPECT_TRUE(loop.bus.sent.empty());
}

TEST_F(RemoteServletTest, TheReplyBecomesTheResponse) {
  perform("GET / HTTP/1.1");
  tn::message answer;
  answer.insert(tn::u32_id(1), 201);
  answer.insert(tn::string_id(30), "made");
  loop.bus.answer(loop.bus.sent[0], answer);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 201);
  EXPECT_EQ(response.body, "made");
  // The engine ends the request afterwards, and a second reply comes for nobody.
  endRequest();
  loop.bus.answer(loop.bus.sent[0], tn::errorMsg(1, "late"));
  loop.advance(10000);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 201);
}

TEST_F(RemoteServletTest, NoReplyWithinSixSecondsIs504) {
  perform("GET / HTTP/1.1");
  loop.advance(5999);
  EXPECT_EQ(completions, 0);
  loop.advance(1);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 504);
}

TEST_F(RemoteServletTest, AnErrorIs502) {
  perform("GET / HTTP/1.1");
  loop.bus.answer(loop.bus.sent[0], tn::errorMsg(0xfe0006, "no such service"));
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 502);
}

TEST_F(RemoteServletTest, AServiceThatIsNotThereIs502) {
  perform("GET / HTTP/1.1");
  loop.bus.bounce(loop.bus.sent[0]);
  loop.advance(0);
  EXPECT_EQ(response.status, 502);
  EXPECT_EQ(completions, 1);
}

TEST_F(RemoteServletTest, WithoutABrokerItIs502LaterNotAtOnce) {
  loop.bus.unlink();
  perform("GET / HTTP/1.1");
  EXPECT_FALSE(response.answered());
  loop.advance(0);
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 502);
}

TEST_F(RemoteServletTest, AnEmptyTargetIs502) {
  RemoteServlet nowhere{{}};
  ASSERT_TRUE(request.parseStatusLine("GET / HTTP/1.1"));
  nowhere.doMethod(request, response);
  loop.advance(0);
  EXPECT_TRUE(loop.bus.sent.empty());
  EXPECT_EQ(completions, 1);
  EXPECT_EQ(response.status, 502);
}

TEST_F(RemoteServletTest, TheEndOfTheRequestTakesItBack) {
  perform("GET / HTTP/1.1");
  endRequest();
  loop.bus.answer(loop.bus.sent[0], tn::message());
  loop.advance(10000);
  EXPECT_EQ(completions, 0);
  EXPECT_FALSE(response.answered());
}

TEST_F(RemoteServletTest, AReplyOfAnotherProgramIsNone) {
  perform("GET / HTTP/1.1");
  loop.bus.answerFrom(service + 1, loop.bus.sent[0], tn::message());
  EXPECT_EQ(completions, 0);
}

TEST_F(RemoteServletTest, ServesEverythingBelowItsPath) {
  EXPECT_TRUE(servlet.isDirectory());
  EXPECT_EQ(servlet.target(), (Path{service, 15, 2}));
}

// The servlet under the connection engine.
class RemoteConnectionTest : public ConnectionTest {
 protected:
  RemoteConnectionTest() {
    servlet.setPath("/r");
    site.servlets.push_back(&servlet);
  }
  void TearDown() override {
    ConnectionTest::TearDown();
    EXPECT_EQ(loop.runner.watchedCount(), 0U);
  }
  void perform(const std::string& bytes) {
    peer.send(bytes);
    turn();
  }
  Answer answer(std::size_t index, const tn::message& content) {
    loop.bus.answer(loop.bus.sent.at(index), content);
    turn();
    return parseAnswer(peer.receive());
  }
  static tn::message body(std::string_view text) {
    tn::message content;
    content.insert(tn::string_id(30), text);
    return content;
  }

  tn::fakes::TestLooper loop;
  RemoteServlet servlet{{service, 15}};
};

TEST_F(RemoteConnectionTest, OneRequestAfterTheOther) {
  open();
  perform("GET /r/a?b HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_EQ(loop.bus.sent.size(), 1U);
  EXPECT_EQ(loop.bus.sent[0].content.get(tn::string_id(3)), "b");
  EXPECT_EQ(loop.bus.sent[0].content.get(tn::string_id(15)), "a");
  EXPECT_EQ(peer.receive(), "");
  Answer first = answer(0, body("one"));
  EXPECT_EQ(first.status, 200);
  EXPECT_EQ(first.body, "one");
  EXPECT_EQ(first.field("connection"), "Keep-Alive");
  EXPECT_EQ(first.field("cache-control"), "no-store");
  perform("POST /r HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhel");
  EXPECT_EQ(loop.bus.sent.size(), 1U);
  perform("lo");
  ASSERT_EQ(loop.bus.sent.size(), 2U);
  EXPECT_EQ(loop.bus.sent[1].content.get(tn::string_id(30)), "hello");
  EXPECT_EQ(answer(1, body("two")).body, "two");
}

TEST_F(RemoteConnectionTest, AHeadIsAnsweredWithoutItsBody) {
  open();
  perform("HEAD /r HTTP/1.1\r\nHost: x\r\n\r\n");
  const Answer head = answer(0, body("four"));
  EXPECT_EQ(head.status, 200);
  EXPECT_EQ(head.field("content-length"), "4");
  EXPECT_EQ(head.body, "");
}

TEST_F(RemoteConnectionTest, APostTooLargeIsAnsweredAndClosed) {
  open();
  const Answer refused = exchange("POST /r HTTP/1.1\r\nHost: x\r\nContent-Length: 65536\r\n\r\n");
  EXPECT_EQ(refused.status, 500);
  EXPECT_EQ(refused.field("connection"), "close");
  EXPECT_TRUE(peer.ended());
  EXPECT_THAT(loop.bus.sent, IsEmpty());
}

TEST_F(RemoteConnectionTest, TheClientGoesInTheMiddleOfTheBody) {
  open();
  perform("POST /r HTTP/1.1\r\nHost: x\r\nContent-Length: 5\r\n\r\nhel");
  peer.close();
  turn();
  EXPECT_FALSE(live());
  EXPECT_THAT(loop.bus.sent, IsEmpty());
}

TEST_F(RemoteConnectionTest, TheClientGoesWhileItWaits) {
  open();
  perform("GET /r HTTP/1.1\r\nHost: x\r\n\r\n");
  peer.close();
  turn();
  EXPECT_TRUE(live());
  captureErrors();
  loop.bus.answer(loop.bus.sent[0], body("nobody reads this"));
  turn();
  takeErrors();
  EXPECT_FALSE(live());
}

// Given up by the header limit, which still runs for a request without a version; the reply frees the connection.
TEST_F(RemoteConnectionTest, AReplyForAConnectionThatWasGivenUp) {
  open();
  perform("GET /r\r\n");
  runner.advance(Connection::headerLimitMs);
  EXPECT_TRUE(live());
  loop.bus.answer(loop.bus.sent[0], body("x"));
  EXPECT_FALSE(live());
  EXPECT_TRUE(peer.ended());
}

TEST_F(RemoteConnectionTest, TheEndOfTheProcessTakesTheRequestBack) {
  open();
  perform("GET /r HTTP/1.1\r\nHost: x\r\n\r\n");
  endAllConnections();
  loop.bus.answer(loop.bus.sent[0], body("x"));
  loop.advance(10000);
  EXPECT_FALSE(live());
}

}  // namespace
