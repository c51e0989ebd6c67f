// What a server counts of its connections.
#include "http/counters.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "http/file_facts.h"
#include "http/forward_header.h"
#include "tests/http/connection_fixture.h"

namespace {

using testing::ElementsAre;

const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";

class CountersTest : public ConnectionTest {
 protected:
  [[nodiscard]] const SiteCounters& counted() const { return site.counters; }
  [[nodiscard]] std::vector<std::uint64_t> timeouts() const {
    return {counted().headTimeouts, counted().bodyTimeouts, counted().writeTimeouts};
  }
  // A servlet that parks what it gets, and the response that it is to complete.
  Response*& addParking() {
    addServlet("/", [this](Request&, Response& response) { parked = &response; });
    return parked;
  }
  // One that asks for a body as it comes.
  void addTaking() {
    addServlet("/", [](Request& request, Response& response) {
      request.bodyChunk = 0;
      request.bodyConsumer = [&response](std::string_view, bool last) {
        if (last) response.send("taken");
      };
    });
  }

  Response* parked = nullptr;
};

TEST_F(CountersTest, NothingHasHappened) {
  EXPECT_EQ(counted().open, 0U);
  EXPECT_THAT(counted().responses, ElementsAre(0, 0, 0, 0));
  EXPECT_THAT(timeouts(), ElementsAre(0, 0, 0));
}

TEST_F(CountersTest, BytesOfBothWaysAreThoseOfTheSocket) {
  addServlet("/", [](Request&, Response& response) { response.send(std::string(10000, 'x')); });
  open();
  const std::string first = exchangeText(get);
  EXPECT_EQ(counted().bytesRead, get.size());
  EXPECT_EQ(counted().bytesWritten, first.size());
  const std::string second = exchangeText(get);
  EXPECT_EQ(counted().bytesRead, 2 * get.size());
  EXPECT_EQ(counted().bytesWritten, first.size() + second.size());
}

TEST_F(CountersTest, AFileCountsHoweverItLeaves) {
  const ScratchDir dir;
  const std::string file = dir.write("file", std::string(300000, 'f'));
  bool remembered = false;
  addServlet("/", [&](Request&, Response& response) {
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    if (remembered) rememberFile(file, status);
    response.sendFile(file, "text/plain", false);
  });
  std::uint64_t all = 0;
  for (const bool known : {false, true, true}) {
    remembered = known;
    open();
    peer.send(get);
    std::string got;
    for (std::string part = "-"; !part.empty(); got += part) {
      turn();
      part = peer.receive(50000);
    }
    EXPECT_GT(got.size(), 300000U);
    all += got.size();
    EXPECT_EQ(counted().bytesWritten, all);
    peer.close();
    turn();
  }
}

TEST_F(CountersTest, OnAUnixListenerTheForwardingHeaderIsRead) {
  addServlet("/", [](Request&, Response& response) { response.send("x"); });
  open(false, true);
  exchangeText(std::string(forwardHeaderBytes, '\0') + get);
  EXPECT_EQ(counted().bytesRead, forwardHeaderBytes + get.size());
}

TEST_F(CountersTest, ResponsesCountByTheClassOfTheirStatus) {
  int status = 200;
  addServlet("/", [&status](Request&, Response& response) {
    if (status >= 300) return response.sendError(status, "");
    response.status = status;
    response.send("x");
  });
  open();
  for (const int each : {200, 206, 299, 304, 404, 499, 500, 599, 100, 199, 600}) {
    status = each;
    exchange(get);
  }
  EXPECT_THAT(counted().responses, ElementsAre(3, 1, 2, 2));
}

TEST_F(CountersTest, WhatBecomesOfTheResponseCounts) {
  addServlet("/", [](Request&, Response& response) { response.sendFile("/nowhere", "text/plain", false); });
  open();
  exchange(get);
  EXPECT_THAT(counted().responses, ElementsAre(0, 0, 1, 0));
}

TEST_F(CountersTest, ARefusedRequestCountsAsItsAnswer) {
  open();
  exchange("FOO / HTTP/1.1\r\n\r\n");
  EXPECT_THAT(counted().responses, ElementsAre(0, 0, 0, 1));
  open();
  exchange("GET / HTTP/1.1\r\n:\r\n\r\n");
  EXPECT_THAT(counted().responses, ElementsAre(0, 0, 1, 1));
}

TEST_F(CountersTest, OpenOnesAreCountedWhileTheyLive) {
  openOthers(3);
  EXPECT_EQ(counted().open, 3U);
  runner.advance(Connection::idleLimitMs);
  EXPECT_EQ(counted().open, 0U);
  EXPECT_THAT(timeouts(), ElementsAre(3, 0, 0));
}

TEST_F(CountersTest, AParkedConnectionStaysOpenUntilItsServletCompletes) {
  addParking();
  open();
  peer.send(get);
  turn();
  ASSERT_NE(parked, nullptr);
  connection->close();
  EXPECT_EQ(counted().open, 1U);
  parked->onComplete();
  EXPECT_EQ(counted().open, 0U);
  EXPECT_THAT(counted().responses, ElementsAre(0, 0, 0, 0));
}

TEST_F(CountersTest, TheTimeForAHeadRunsOut) {
  open();
  peer.send("GET / HT");
  turn();
  runner.advance(Connection::idleLimitMs);
  EXPECT_FALSE(live());
  EXPECT_THAT(timeouts(), ElementsAre(1, 0, 0));
}

TEST_F(CountersTest, AKeptConnectionThatStaysIdleWaitsForAHead) {
  addServlet("/", [](Request&, Response& response) { response.send("x"); });
  open();
  exchange(get);
  runner.advance(Connection::headerLimitMs);
  EXPECT_FALSE(live());
  EXPECT_THAT(timeouts(), ElementsAre(1, 0, 0));
}

TEST_F(CountersTest, ABodyThatDoesNotComeIsAnotherTimeout) {
  addTaking();
  open();
  peer.send("POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\n12345");
  turn();
  runner.advance(Connection::idleLimitMs);
  EXPECT_FALSE(live());
  EXPECT_THAT(timeouts(), ElementsAre(0, 1, 0));
}

TEST_F(CountersTest, ASlowReaderIsAThird) {
  addServlet("/", [](Request&, Response& response) { response.send(std::string(10000000, 'x')); });
  open();
  peer.send(get);
  turn();
  runner.advance(Connection::idleLimitMs);
  EXPECT_FALSE(live());
  EXPECT_THAT(timeouts(), ElementsAre(0, 0, 1));
}

// Such a request has no end of its head; its timer runs on.
TEST_F(CountersTest, ARequestWithoutVersionThatIsParkedTooLong) {
  addParking();
  open();
  peer.send("GET /\r\n");
  turn();
  ASSERT_NE(parked, nullptr);
  runner.advance(Connection::headerLimitMs);
  EXPECT_THAT(timeouts(), ElementsAre(1, 0, 0));
  parked->onComplete();
  EXPECT_FALSE(live());
}

TEST_F(CountersTest, APeerThatGoesIsNoTimeout) {
  open();
  peer.send("GET");
  turn();
  peer.close();
  turn();
  EXPECT_FALSE(live());
  runner.advance(2 * Connection::headerLimitMs);
  EXPECT_THAT(timeouts(), ElementsAre(0, 0, 0));
}

}  // namespace
