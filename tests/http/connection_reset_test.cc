// Peers that break off: at every byte of a request, and at every step of a response, by an end, a reset or a hang-up.
#include <netinet/in.h>

#include "tests/http/connection_fixture.h"

namespace {

const std::string get = "GET / HTTP/1.1\r\nHost: a\r\n\r\n";
const std::string post = "POST /post HTTP/1.1\r\nHost: a\r\nContent-Length: 10\r\n\r\n0123456789";

class ConnectionResetTest : public ConnectionTest {
 protected:
  void SetUp() override {
    ConnectionTest::SetUp();
    listener_.reset(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(listener_.get(), 10), 0);
    file_ = dir_.write("file", sampleBytes(8 << 20));
    addServlet("/", [this](Request&, Response& response) { response.sendFile(file_, "", false); });
    addServlet("/post", [this](Request& request, Response&) {
      request.bodyChunk = 0;
      request.bodyConsumer = [this](std::string_view, bool last) { ended_ += last ? 1 : 0; };
    });
    addServlet("/parked", [this](Request&, Response& response) { parked_ = &response; });
  }
  void TearDown() override {
    listener_.reset();
    ConnectionTest::TearDown();
  }

  void openTcp() {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener_.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    UniqueFd client(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    open(UniqueFd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)), std::move(client));
  }

  UniqueFd listener_;
  ScratchDir dir_;
  std::string file_;
  int ended_ = 0;
  Response* parked_ = nullptr;
};

TEST_F(ConnectionResetTest, AResetIsReportedAndEndsTheConnection) {
  captureErrors();
  openTcp();
  peer.send("GET / HT");
  turn();
  peer.reset();
  turn();
  EXPECT_FALSE(live());
  EXPECT_EQ(takeErrors(), "read: Connection reset by peer\n");
}

TEST_F(ConnectionResetTest, SurvivesAResetAtEveryByteOfARequest) {
  captureErrors();
  for (const std::string& request : {get, post}) {
    for (std::size_t cut = 0; cut < request.size(); ++cut) {
      openTcp();
      peer.send(request.substr(0, cut));
      turn();
      peer.reset();
      turn();
      ASSERT_FALSE(live()) << cut;
    }
  }
  takeErrors();
}

TEST_F(ConnectionResetTest, SurvivesAnEndAtEveryByteOfARequest) {
  captureErrors();
  for (const std::string& request : {get, post}) {
    for (std::size_t cut = 0; cut < request.size(); ++cut) {
      openTcp();
      peer.send(request.substr(0, cut));
      peer.endSending();
      turn();
      ASSERT_FALSE(live()) << cut;
    }
  }
  EXPECT_EQ(takeErrors(), "");
}

TEST_F(ConnectionResetTest, TheBodyConsumerIsToldOnce) {
  captureErrors();
  openTcp();
  peer.send(post.substr(0, post.size() - 3));
  turn();
  peer.reset();
  turn();
  EXPECT_FALSE(live());
  EXPECT_EQ(ended_, 1);
  takeErrors();
}

TEST_F(ConnectionResetTest, SurvivesAResetDuringTheResponse) {
  captureErrors();
  for (const std::size_t taken : {std::size_t{0}, std::size_t{10}, std::size_t{1000}, std::size_t{100000}}) {
    openTcp();
    peer.send(get);
    turn();
    ASSERT_EQ(connection->state(), State::Writing);
    EXPECT_EQ(peer.receive(taken).size(), taken);
    peer.reset();
    turn();
    ASSERT_FALSE(live());
  }
  takeErrors();
}

TEST_F(ConnectionResetTest, SurvivesAResetWhileParked) {
  captureErrors();
  openTcp();
  peer.send("GET /parked HTTP/1.1\r\n\r\n");
  turn();
  peer.reset();
  EXPECT_TRUE(live());
  parked_->send("to nobody");
  const auto done = std::move(parked_->onComplete);
  done();
  turn();
  EXPECT_FALSE(live());
  takeErrors();
}

TEST_F(ConnectionResetTest, AClientThatOnlyEndsItsSideGetsItsResponse) {
  openTcp();
  peer.send(get);
  peer.endSending();
  std::string all;
  for (int i = 0; i < 10000 && live(); ++i) {
    turn();
    all += peer.receive();
  }
  EXPECT_FALSE(live());
  all += peer.receive();
  EXPECT_EQ(parseAnswer(all).body.size(), std::size_t{8} << 20);
}

TEST_F(ConnectionResetTest, SurvivesAHangUpInEveryState) {
  for (const char* begin : {"", "GET / HT", "GET / HTTP/1.1\r\nHo",
                            "POST /post HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "GET / HTTP/1.1\r\n\r\n"}) {
    openTcp();
    peer.send(begin);
    turn();
    EXPECT_TRUE(runner.ready(fd, tn::hangUp)) << begin;
    EXPECT_FALSE(live()) << begin;
  }
}

}  // namespace
