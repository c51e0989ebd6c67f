#include "http/connection.h"

#include "tests/http/connection_fixture.h"

namespace {

const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

class ConnectionLifeTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    servlet = &addServlet("/", [this](Request& request, Response& response) {
      parkedRequest = &request;
      parked = &response;
    });
  }
  void answerAtOnce() {
    servlet->setScript([](Request&, Response& response) { response.send("served"); });
  }
  // As servlets do: out of its slot first, since the response may be gone when it returns.
  void complete() {
    const auto done = std::move(parked->onComplete);
    done();
  }

  ScriptedServlet* servlet = nullptr;
  Request* parkedRequest = nullptr;
  Response* parked = nullptr;
};

TEST_F(ConnectionLifeTest, CountsConnections) {
  EXPECT_EQ(openConnections, 0U);
  open();
  EXPECT_EQ(openConnections, 1U);
  openOthers(3);
  EXPECT_EQ(openConnections, 4U);
  connection->close();
  EXPECT_EQ(openConnections, 3U);
}

TEST_F(ConnectionLifeTest, IsClosedAfterTwoSilentSeconds) {
  open();
  runner.advance(1999);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
  EXPECT_TRUE(peer.ended());
}

TEST_F(ConnectionLifeTest, AnyEventStartsTheIdleTimeAnew) {
  open();
  runner.advance(1500);
  exchangeText("G");
  runner.advance(1400);
  EXPECT_TRUE(live());
}

TEST_F(ConnectionLifeTest, TheHeaderBlockMustEndWithinThreeSeconds) {
  open();
  for (const char* part : {"GET / HT", "TP/1.1\r\n"}) {
    exchangeText(part);
    runner.advance(1000);
  }
  exchangeText("Host: a\r\n");
  runner.advance(999);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
  EXPECT_EQ(servlet->calls, 0);
}

TEST_F(ConnectionLifeTest, TheHeaderTimeEndsWithTheBlock) {
  open();
  runner.advance(1999);
  exchangeText(get);
  runner.advance(10000);
  EXPECT_EQ(connection->state(), State::Dispatched);
}

TEST_F(ConnectionLifeTest, TheHeaderTimeBeginsAnewWithEveryRequest) {
  answerAtOnce();
  open();
  for (int i = 0; i < 4; ++i) {
    runner.advance(1500);
    EXPECT_EQ(exchange(get).status, 200);
  }
  exchangeText("GET / HTTP/1.1\r\n");
  runner.advance(1900);
  exchangeText("Host: a\r\n");
  runner.advance(1099);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, AKeptConnectionIsClosedTwoSecondsAfterItsLastResponse) {
  answerAtOnce();
  open();
  runner.advance(1000);
  EXPECT_EQ(exchange(get).status, 200);
  runner.advance(1999);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, AParkedConnectionIsNotWatchedAndHasAllTheTime) {
  open();
  exchangeText(get);
  EXPECT_EQ(connection->state(), State::Dispatched);
  EXPECT_FALSE(runner.watched(fd));
  runner.advance(86400000);
  EXPECT_EQ(connection->state(), State::Dispatched);
  parked->send("late");
  complete();
  EXPECT_EQ(connection->state(), State::Writing);
  EXPECT_EQ(runner.mask(fd), tn::writable);
  EXPECT_EQ(runner.trigger(fd), tn::Trigger::cached);
  turn();
  EXPECT_EQ(parseAnswer(peer.receive()).body, "late");
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
  EXPECT_EQ(runner.mask(fd), tn::readable);
}

TEST_F(ConnectionLifeTest, ACompletionWithoutAnAnswerIsAnEmptyDocument) {
  open();
  exchangeText(get);
  complete();
  turn();
  const Answer answer = parseAnswer(peer.receive());
  EXPECT_EQ(answer.status, 200);
  EXPECT_EQ(answer.field("content-length"), "0");
}

TEST_F(ConnectionLifeTest, ACompletionFromWithinItsSlotIsSafe) {
  open();
  exchangeText("GET /\r\n");
  connection->close();
  parked->onComplete();
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, ASecondCompletionDoesNothing) {
  open();
  exchangeText(get);
  const auto done = parked->onComplete;
  parked->send("once");
  done();
  done();
  turn();
  done();
  turn();
  EXPECT_EQ(parseAnswer(peer.receive()).body, "once");
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_F(ConnectionLifeTest, ThePeerOfAParkedConnectionIsMissedWhenTheAnswerIsWritten) {
  captureErrors();
  open();
  exchangeText(get);
  peer.close();
  parked->send("to nobody");
  complete();
  EXPECT_TRUE(runner.ready(fd, tn::writable));
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "write: Broken pipe\n");
}

TEST_F(ConnectionLifeTest, ClosingAParkedConnectionLeavesTheFreeingToItsServlet) {
  int ended = 0;
  open();
  exchangeText(get);
  parkedRequest->onRequestEnd = [&] { ++ended; };
  connection->close();
  EXPECT_EQ(connection->state(), State::Closed);
  connection->close();
  EXPECT_EQ(connection->state(), State::Closed);
  EXPECT_EQ(ended, 0);
  parked->send("for nobody");
  complete();
  EXPECT_EQ(ended, 1);
  EXPECT_FALSE(live());
  EXPECT_EQ(peer.receive(), "");
}

TEST_F(ConnectionLifeTest, IsClosedWhenTheRunnerDoesNotTakeItBack) {
  open();
  exchangeText(get);
  runner.refuseAdds = true;
  parked->send("late");
  complete();
  EXPECT_EQ(connection->state(), State::Writing);
  runner.advance(2000);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, RequestEndRunsOnceBeforeTheNextRequest) {
  int ended = 0;
  servlet->setScript([&](Request& request, Response& response) {
    request.onRequestEnd = [&] { ++ended; };
    response.send("served");
  });
  open();
  EXPECT_EQ(exchange(get).status, 200);
  EXPECT_EQ(ended, 1);
  answerAtOnce();
  EXPECT_EQ(exchange(get).status, 200);
  EXPECT_EQ(ended, 1);
}

TEST_F(ConnectionLifeTest, RequestEndRunsWhenTheConnectionEnds) {
  int ended = 0;
  servlet->setScript([&](Request& request, Response&) {
    request.bodyChunk = 0;
    request.onRequestEnd = [&] {
      EXPECT_EQ(openConnections, 1U);
      ++ended;
    };
  });
  open();
  exchangeText("POST / HTTP/1.1\r\nContent-Length: 3\r\n\r\n");
  runner.advance(2000);
  EXPECT_EQ(ended, 1);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, RequestEndMaySetAnother) {
  int ended = 0;
  servlet->setScript([&](Request& request, Response& response) {
    request.onRequestEnd = [&ended, &request] {
      ++ended;
      request.onRequestEnd = [&ended] { ended += 10; };
    };
    response.send("served");
  });
  open();
  exchange(get);
  EXPECT_EQ(ended, 1);
  answerAtOnce();
  exchange(get);
  EXPECT_EQ(ended, 11);
}

TEST_F(ConnectionLifeTest, CanBeClosedBeforeItsFirstRequest) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  peer = Peer(UniqueFd(ends[1]));
  createConnection(site, UniqueFd(ends[0]), false, false, runner).close();
  EXPECT_FALSE(live());
  EXPECT_TRUE(peer.ended());
}

TEST_F(ConnectionLifeTest, TheWatchOfASocketThatMayHaveACopyEndsBeforeItIsClosed) {
  open(true);
  const UniqueFd copy(dup(fd));
  connection->close();
  EXPECT_FALSE(live());
  EXPECT_FALSE(runner.watched(fd));
  EXPECT_EQ(runner.calls[runner.calls.size() - 2],
            (tn::fakes::FakeRunner::Call{tn::fakes::FakeRunner::Operation::remove, fd, 0, true}));
}

TEST_F(ConnectionLifeTest, AllConnectionsCanBeEndedInAnyState) {
  int ended = 0;
  open();
  openOthers(2);
  exchangeText(get);
  parkedRequest->onRequestEnd = [&] { ++ended; };
  endAllConnections();
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(ended, 1);
  EXPECT_TRUE(peer.ended());
}

TEST_F(ConnectionLifeTest, ABodyConsumerRunsToTheEndAfterItHasAnswered) {
  std::string after;
  servlet->setScript([&](Request& request, Response& response) {
    request.bodyChunk = 0;
    request.bodyConsumer = [&, text = std::string("still here")](std::string_view, bool) {
      response.sendError(403, "");
      after = text;
    };
  });
  open();
  EXPECT_EQ(exchange("POST / HTTP/1.1\r\nContent-Length: 5\r\n\r\nab").status, 403);
  EXPECT_EQ(after, "still here");
  EXPECT_FALSE(live());
}

TEST_F(ConnectionLifeTest, KeepsConnectionsWhileAtMostHundredAreOpen) {
  answerAtOnce();
  open();
  openOthers(99);
  EXPECT_EQ(exchange(get).field("connection"), "Keep-Alive");
  openOthers(1);
  EXPECT_EQ(exchange(get).field("connection"), "close");
  EXPECT_EQ(openConnections, 100U);
}

struct KeepAliveCase {
  const char* request;
  const char* connection;
};

class KeepAliveTest : public ConnectionLifeTest, public testing::WithParamInterface<KeepAliveCase> {};

TEST_P(KeepAliveTest, DecidesByVersionAndField) {
  answerAtOnce();
  open();
  EXPECT_EQ(exchange(std::string(GetParam().request) + "\r\n\r\n").field("connection"), GetParam().connection);
  EXPECT_EQ(live(), std::string(GetParam().connection) == "Keep-Alive");
}

INSTANTIATE_TEST_SUITE_P(All, KeepAliveTest,
                         testing::Values(KeepAliveCase{"GET / HTTP/1.1", "Keep-Alive"},
                                         KeepAliveCase{"GET / HTTP/1.0", "close"}, KeepAliveCase{"GET /", "close"},
                                         KeepAliveCase{"GET / HTTP/1.0\r\nConnection: keep-alive", "Keep-Alive"},
                                         KeepAliveCase{"GET / HTTP/1.0\r\nConnection: x, Keep-Alive", "Keep-Alive"},
                                         KeepAliveCase{"GET / HTTP/1.0\r\nConnection: keep-alives", "close"},
                                         KeepAliveCase{"GET / HTTP/1.1\r\nConnection: close", "close"},
                                         KeepAliveCase{"GET / HTTP/1.1\r\nConnection: x, CLOSE", "close"},
                                         KeepAliveCase{"GET / HTTP/1.1\r\nConnection: closed", "Keep-Alive"}));

}  // namespace
