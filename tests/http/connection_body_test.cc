#include "tests/http/connection_fixture.h"

namespace {

struct Piece {
  std::string bytes;
  bool last;
  friend bool operator==(const Piece&, const Piece&) = default;
};

void PrintTo(const Piece& piece, std::ostream* out) {
  *out << piece.bytes.size() << " bytes \"" << piece.bytes.substr(0, 20) << "\"" << (piece.last ? " last" : "");
}

using Pieces = std::vector<Piece>;

class ConnectionBodyTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    addServlet("/", [this](Request& request, Response& response) {
      response_ = &response;
      request.bodyChunk = chunk;
      request.bodyConsumer = [this](std::string_view bytes, bool last) {
        pieces.push_back({std::string(bytes), last});
        if (pieces.size() == answerAt) response_->send("thanks");
      };
    });
  }

  static std::string head(const std::string& length) {
    return "POST / HTTP/1.1\r\nHost: a\r\nContent-Length: " + length + "\r\n\r\n";
  }
  static std::string post(const std::string& body) { return head(std::to_string(body.size())) + body; }
  [[nodiscard]] std::string received() const {
    std::string all;
    for (const Piece& piece : pieces)
      all += piece.bytes;
    return all;
  }
  void complete(const std::string& text) {
    response_->send(text);
    const auto done = std::move(response_->onComplete);
    done();
    turn();
  }

  int chunk = 0;
  std::size_t answerAt = 0;  // after which piece the servlet answers
  Pieces pieces;
  Response* response_ = nullptr;
};

TEST_F(ConnectionBodyTest, DeliversTheBodyThatCameWithTheHead) {
  answerAt = 1;
  open();
  const Answer answer = exchange(post("hello"));
  EXPECT_EQ(answer.body, "thanks");
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  EXPECT_EQ(pieces, (Pieces{{"hello", true}}));
  EXPECT_EQ(connection->state(), State::ReadRequestLine);
}

TEST_F(ConnectionBodyTest, DeliversTheBodyAsItComes) {
  answerAt = 3;
  open();
  EXPECT_EQ(exchangeText(head("9")), "");
  EXPECT_EQ(connection->state(), State::ReadBody);
  for (const char* part : {"abc", "def"})
    EXPECT_EQ(exchangeText(part), "");
  EXPECT_EQ(exchange("ghi").body, "thanks");
  EXPECT_EQ(pieces, (Pieces{{"abc", false}, {"def", false}, {"ghi", true}}));
}

TEST_F(ConnectionBodyTest, DeliversAtMost4096BytesAtOnceOfABodyTakenAsItComes) {
  open();
  exchangeText(head("10000"));
  exchangeText(std::string(10000, 'b'));
  ASSERT_EQ(pieces.size(), 3U);
  EXPECT_EQ(pieces[0].bytes.size(), 4096U);
  EXPECT_EQ(pieces[1].bytes.size(), 4096U);
  EXPECT_EQ(pieces[2], (Piece{std::string(1808, 'b'), true}));
  complete("done");
  EXPECT_EQ(parseAnswer(peer.receive()).body, "done");
}

TEST_F(ConnectionBodyTest, TheBodyIsTheSameWhereverTheRequestIsCut) {
  const std::string body = sampleBytes(300);
  const std::string request = post(body);
  for (const int size : {0, 1, 7, 300}) {
    chunk = size;
    open();
    for (std::size_t cut = 1; cut < request.size(); ++cut) {
      pieces.clear();
      exchangeText(request.substr(0, cut));
      exchangeText(request.substr(cut));
      ASSERT_EQ(received(), size == 7 ? body.substr(0, 294) : body) << size << " " << cut;
      if (size == 7) {
        endAllConnections();
        open();
        continue;
      }
      EXPECT_TRUE(pieces.back().last);
      ASSERT_EQ(connection->state(), State::Dispatched);
      complete("done");
      ASSERT_EQ(parseAnswer(peer.receive()).body, "done");
    }
    peer.close();
    endAllConnections();
  }
}

TEST_F(ConnectionBodyTest, DeliversPiecesOfTheWantedSizeAlsoWhenMoreIsHeld) {
  chunk = 4;
  open();
  exchangeText(post("aaaabbbbccccdddd"));
  EXPECT_EQ(pieces, (Pieces{{"aaaa", false}, {"bbbb", false}, {"cccc", false}, {"dddd", true}}));
  complete("done");
  EXPECT_EQ(parseAnswer(peer.receive()).field("connection"), "Keep-Alive");
}

TEST_F(ConnectionBodyTest, StopsDeliveringWhenTheServletAnswers) {
  chunk = 4;
  answerAt = 2;
  open();
  const Answer answer = exchange(post("aaaabbbbccccdddd"));
  EXPECT_EQ(answer.body, "thanks");
  EXPECT_EQ(answer.field("connection"), "close");
  EXPECT_EQ(pieces.size(), 2U);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionBodyTest, WaitsForAWholePieceUntilTheTimeIsOver) {
  chunk = 4;
  open();
  EXPECT_EQ(exchangeText(post("aaaabb")), "");
  EXPECT_EQ(pieces, (Pieces{{"aaaa", false}}));
  runner.advance(1999);
  EXPECT_TRUE(live());
  runner.advance(1);
  EXPECT_FALSE(live());
  EXPECT_EQ(pieces, (Pieces{{"aaaa", false}, {"", true}}));
  EXPECT_EQ(peer.receive(), "");
}

TEST_F(ConnectionBodyTest, DeliversOnePieceFarLargerThanTheBuffer) {
  const std::string body = sampleBytes(300000);
  chunk = static_cast<int>(body.size());
  answerAt = 1;
  open();
  std::string request = post(body);
  while (!request.empty()) {
    peer.send(request.substr(0, 20000));
    request.erase(0, std::min<std::size_t>(20000, request.size()));
    turn();
  }
  EXPECT_EQ(pieces, (Pieces{{body, true}}));
  EXPECT_EQ(parseAnswer(peer.receive()).body, "thanks");
}

TEST_F(ConnectionBodyTest, AnAnnouncedLengthAloneCostsNoMemory) {
  chunk = 0x7FFFFFFF;
  open();
  EXPECT_EQ(exchangeText(head("2147483647") + "few"), "");
  EXPECT_EQ(connection->state(), State::ReadBody);
  EXPECT_TRUE(pieces.empty());
}

TEST_F(ConnectionBodyTest, ExcessBytesReachNobody) {
  for (const int size : {0, 5}) {
    chunk = size;
    answerAt = 1;
    pieces.clear();
    open();
    const Answer answer = exchange(post("hello").append("EXCESS"));
    EXPECT_EQ(answer.body, "thanks");
    EXPECT_EQ(answer.field("connection"), "Keep-Alive");
    EXPECT_EQ(pieces, (Pieces{{"hello", true}}));
    peer.close();
    endAllConnections();
  }
}

TEST_F(ConnectionBodyTest, ExcessBytesDoNotFillAPiece) {
  chunk = 8;
  open();
  EXPECT_EQ(exchangeText(post("hello") + "EXCESS"), "");
  EXPECT_EQ(exchangeText("MORE"), "");
  EXPECT_TRUE(pieces.empty());
  runner.advance(2000);
  EXPECT_FALSE(live());
  EXPECT_EQ(pieces, (Pieces{{"", true}}));
}

TEST_F(ConnectionBodyTest, ExcessBytesOfALaterReadReachNobodyEither) {
  open();
  exchangeText(head("6") + "abc");
  exchangeText("defEXCESS");
  EXPECT_EQ(pieces, (Pieces{{"abc", false}, {"def", true}}));
  EXPECT_EQ(connection->state(), State::Dispatched);
}

// A buffer is never wider than the piece that is wanted: what follows the last piece stays in the socket.
TEST_F(ConnectionBodyTest, ReadsNoFurtherThanThePiece) {
  const std::string next = "FETCH / HTTP/1.1\r\n\r\n";
  for (const std::size_t size : {std::size_t{600}, std::size_t{5000}, std::size_t{9000}}) {
    chunk = static_cast<int>(size);
    answerAt = 1;
    pieces.clear();
    dropSpares();
    open();
    exchangeText(head(std::to_string(size)));
    EXPECT_NE(exchangeText(std::string(size, 'b') + next).find("Error 503: unknown method"), std::string::npos) << size;
    peer.close();
    endAllConnections();
  }
}

TEST_F(ConnectionBodyTest, ReadsNoFurtherThanThePieceAlsoWhenMuchCameWithTheHead) {
  for (const int size : {0, 4}) {
    const std::size_t most = size == 0 ? 4096 : 4;
    chunk = size;
    pieces.clear();
    open();
    EXPECT_EQ(exchangeText("POST / HTTP/1.1\r\nContent-Length: 99999\r\nA: " + std::string(3950, 'v')), "");
    EXPECT_EQ(exchangeText("\r\n\r\n" + std::string(4150, 'b')), "");  // more than a piece of either kind
    for (int reads = 0; reads < 3; ++reads) {
      peer.send(std::string(5000, 'b'));
      const std::size_t before = received().size();
      EXPECT_TRUE(step());
      EXPECT_LE(received().size() - before, most);
    }
    peer.close();
    endAllConnections();
  }
}

TEST_F(ConnectionBodyTest, AnEmptyBodyIsWaitedForUntilTheTimeIsOver) {
  for (const int size : {0, 10}) {
    chunk = size;
    pieces.clear();
    open();
    EXPECT_EQ(exchangeText(post("")), "");
    EXPECT_TRUE(pieces.empty());
    runner.advance(1999);
    EXPECT_TRUE(live());
    runner.advance(1);
    EXPECT_FALSE(live());
    EXPECT_EQ(pieces, (Pieces{{"", true}}));
    EXPECT_EQ(peer.receive(), "");
  }
}

TEST_F(ConnectionBodyTest, ABodyWithoutLengthEndsWithTheConnection) {
  open();
  EXPECT_EQ(exchangeText("POST / HTTP/1.1\r\nHost: a\r\n\r\nabc"), "");
  EXPECT_EQ(exchangeText("def"), "");
  peer.endSending();
  turn();
  EXPECT_FALSE(live());
  EXPECT_EQ(pieces, (Pieces{{"abc", false}, {"def", false}, {"", true}}));
  EXPECT_EQ(peer.receive(), "");
}

TEST_F(ConnectionBodyTest, AnAnswerToABodyWithoutLengthEndsTheConnection) {
  answerAt = 1;
  open();
  EXPECT_EQ(exchange("POST / HTTP/1.1\r\nHost: a\r\n\r\nabc").field("connection"), "close");
  EXPECT_FALSE(live());
}

TEST_F(ConnectionBodyTest, TheConsumerLearnsThatThePeerWentAway) {
  open();
  exchangeText(head("10") + "abc");
  peer.endSending();
  turn();
  EXPECT_FALSE(live());
  EXPECT_EQ(pieces, (Pieces{{"abc", false}, {"", true}}));
}

TEST_F(ConnectionBodyTest, AnAnswerToTheEndOfABrokenBodyIsIgnored) {
  answerAt = 2;
  open();
  exchangeText(head("10") + "abc");
  EXPECT_TRUE(runner.ready(fd, tn::hangUp));
  EXPECT_FALSE(live());
  EXPECT_EQ(peer.receive(), "");
}

TEST_F(ConnectionBodyTest, ParksWhenTheBodyIsCompleteWithoutAnAnswer) {
  open();
  exchangeText(post("hello"));
  EXPECT_EQ(connection->state(), State::Dispatched);
  EXPECT_FALSE(runner.watched(fd));
  runner.advance(3600000);
  EXPECT_TRUE(live());
  complete("late");
  const Answer answer = parseAnswer(peer.receive());
  EXPECT_EQ(answer.body, "late");
  EXPECT_EQ(answer.field("connection"), "Keep-Alive");
  pieces.clear();
  answerAt = 1;
  EXPECT_EQ(exchange(post("again")).body, "thanks");
}

TEST_F(ConnectionBodyTest, TheIdleTimerStartsAnewWithEveryPiece) {
  open();
  exchangeText(head("100"));
  for (int i = 0; i < 10; ++i) {
    runner.advance(1999);
    exchangeText("x");
  }
  EXPECT_EQ(pieces.size(), 10U);
  runner.advance(2000);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionBodyTest, AServletThatWantsNoBodyIsParkedAtOnce) {
  chunk = -1;
  open();
  EXPECT_EQ(exchangeText(head("10")), "");
  EXPECT_EQ(connection->state(), State::Dispatched);
  complete("unread");
  const Answer answer = parseAnswer(peer.receive());
  EXPECT_EQ(answer.body, "unread");
  EXPECT_EQ(answer.field("connection"), "close");
  EXPECT_TRUE(pieces.empty());
  EXPECT_FALSE(live());
}

TEST_F(ConnectionBodyTest, APieceSizeThatCannotBeIsRefused) {
  chunk = -2;
  open();
  EXPECT_EQ(exchange(head("10")).status, 413);
  EXPECT_FALSE(live());
}

TEST_F(ConnectionBodyTest, AConsumerMayPutAnotherInItsPlace) {
  site.servlets.clear();
  std::string first;
  std::string second;
  addServlet("/", [&](Request& request, Response&) {
    request.bodyChunk = 2;
    request.bodyConsumer = [&](std::string_view bytes, bool) {
      request.bodyConsumer = [&](std::string_view more, bool) { second += more; };
      first += bytes;
    };
  });
  open();
  exchangeText(post("aabbcc"));
  EXPECT_EQ(first, "aa");
  EXPECT_EQ(second, "bbcc");
}

TEST_F(ConnectionBodyTest, ABodyWithoutConsumerIsReadAndDropped) {
  site.servlets.clear();
  Response* parked = nullptr;
  addServlet("/", [&](Request& request, Response& response) {
    request.bodyChunk = 0;
    parked = &response;
  });
  open();
  exchangeText(post("hello"));
  EXPECT_EQ(connection->state(), State::Dispatched);
  parked->send("fine");
  const auto done = std::move(parked->onComplete);
  done();
  turn();
  EXPECT_EQ(parseAnswer(peer.receive()).body, "fine");
}

TEST_F(ConnectionBodyTest, OnlyAPostHasABody) {
  open();
  EXPECT_EQ(exchangeText("PUT / HTTP/1.1\r\nContent-Length: 5\r\n\r\nhello"), "");
  EXPECT_EQ(connection->state(), State::Dispatched);
  EXPECT_TRUE(pieces.empty());
}

}  // namespace
