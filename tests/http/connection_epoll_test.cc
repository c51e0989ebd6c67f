// Connections under the real runner: what the kernel announces once must neither be missed nor asked for without end.
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/stat.h>

#include "http/connection.h"
#include "http/file_answers.h"
#include "http/file_facts.h"
#include "platform/bus/epoll_runner.h"
#include "tests/http/connection_fixture.h"

// The loop's clock stands still but where a test moves it (the linker puts this in the place of the real one), so that
// no time limit ends a connection here however slow the machine is.
std::chrono::steady_clock::duration timePassed{};
std::chrono::steady_clock::time_point frozenClock() asm("__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
std::chrono::steady_clock::time_point frozenClock() {
  return std::chrono::steady_clock::time_point(timePassed);
}

namespace {

class ConnectionEpollTest : public testing::Test {
 protected:
  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);
    file_ = dir_.write("file", bytes_);
    site_.servlets = {&fileServlet_, &postServlet_, &parkedServlet_, &sizeServlet_, &changeServlet_};
  }
  void TearDown() override {
    peer.close();
    endAllConnections();
    EXPECT_EQ(openConnections, 0U);
  }

  void open() {
    UniqueFd listener(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(listener.get(), 1), 0);
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    UniqueFd client(socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
    UniqueFd server(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    const int fd = server.get();
    peer = Peer(std::move(client));
    Connection& made = createConnection(site_, std::move(server), false, false, runner);
    ASSERT_TRUE(runner.addNonBlocking(fd, tn::readable, [this, &made](int socket, unsigned events) {
      ++calls;
      made.onSocketEvent(socket, events);
    }));
    made.beginRequest();
  }

  // Turns the loop until all that has happened is worked off, then tells how often the connection is called while
  // nothing happens.
  int callsAtRest() {
    turn(100);
    const int before = calls;
    turn(20);
    return calls - before;
  }
  void turn(int times) {
    for (int i = 0; i < times; ++i) {
      if (!runner.turn(false)) ADD_FAILURE();
    }
  }

  // The response that begins with `all`, once `size` bytes of its body have come.
  Answer receive(std::size_t size, std::string all = {}) {
    std::size_t need = std::string::npos;
    for (int i = 0; i < 1000000; ++i) {
      if (need == std::string::npos) {
        if (const std::size_t end = all.find("\r\n\r\n"); end != std::string::npos) need = end + 4 + size;
      }
      if (all.size() >= need) return parseAnswer(all);
      turn(1);
      all += peer.receive();
    }
    ADD_FAILURE() << "nothing more comes after " << all.size() << " bytes";
    return {};
  }

  [[nodiscard]] std::uint64_t sent() const { return site_.counters.bytesWritten; }

  tn::EpollRunner runner;
  Peer peer;
  bool cached_ = false;
  Response* parked = nullptr;
  std::function<void()> onChange;  // what a request for "/change" does
  int calls = 0;                   // of the connection, by the runner
  std::string body;

 private:
  Site site_;

 protected:
  ScratchDir dir_;
  const std::string bytes_ = sampleBytes(8 << 20);

 private:
  std::string file_;
  ScriptedServlet fileServlet_{"/file", [this](Request&, Response& response) {
                                 struct stat status {};
                                 if (cached_ && stat(file_.c_str(), &status) == 0) rememberFile(file_, status);
                                 response.sendFile(file_, "", false);
                               }};
  ScriptedServlet postServlet_{"/post", [this](Request& request, Response& response) {
                                 request.bodyChunk = 0;
                                 request.bodyConsumer = [this, &response](std::string_view piece, bool last) {
                                   body += piece;
                                   if (last) response.send("thanks");
                                 };
                               }};
  ScriptedServlet parkedServlet_{"/parked", [this](Request&, Response& response) { parked = &response; }};
  ScriptedServlet sizeServlet_{"/size", [this](Request&, Response& response) {
                                 const auto look = [this](tn::FileView& view, FileAnswer& answer) {
                                   const auto status = view.status(dir_ / "watched");
                                   if (status) answer.status = *status;
                                   return status.has_value();
                                 };
                                 struct stat status {};
                                 const FileAnswer* known = fileAnswers().find(this, "size");
                                 if (known == nullptr) known = fileAnswers().keep(this, "size", look);
                                 if (known != nullptr) {
                                   status = known->status;
                                 } else {
                                   EXPECT_EQ(stat((dir_ / "watched").c_str(), &status), 0);
                                 }
                                 response.send(std::to_string(status.st_size));
                               }};
  ScriptedServlet changeServlet_{"/change", [this](Request&, Response& response) {
                                   onChange();
                                   response.send("changed");
                                 }};
};

TEST_F(ConnectionEpollTest, SendsALargeFileAgainAndAgain) {
  for (const bool cached : {false, true}) {
    cached_ = cached;
    open();
    for (int i = 0; i < 3; ++i) {
      peer.send("GET /file HTTP/1.1\r\n\r\n");
      EXPECT_TRUE(receive(bytes_.size()).body == bytes_);
    }
    peer.close();
    endAllConnections();
  }
}

TEST_F(ConnectionEpollTest, WaitsForASlowReaderWithoutSpinning) {
  open();
  peer.send("GET /file HTTP/1.1\r\n\r\n");
  EXPECT_EQ(callsAtRest(), 0);
  const std::string part = peer.receive(100000);
  EXPECT_EQ(part.size(), 100000U);
  EXPECT_EQ(callsAtRest(), 0);
  EXPECT_TRUE(receive(bytes_.size(), part).body == bytes_);
}

// However much the kernel could take: who is not told of room for two seconds ends the connection.
TEST_F(ConnectionEpollTest, HearsOfEachBitThatASlowReaderTakes) {
  for (const bool cached : {false, true}) {
    cached_ = cached;
    open();
    peer.send("GET /file HTTP/1.1\r\n\r\n");
    EXPECT_EQ(callsAtRest(), 0);
    std::string all;
    for (int part = 0; part < 10; ++part) {
      timePassed += std::chrono::milliseconds(500);
      const int before = calls;
      const std::size_t wanted = all.size() + 300000;
      while (all.size() < wanted) {
        const std::string more = peer.receive(4096);
        ASSERT_FALSE(more.empty());
        all += more;
        turn(1);
      }
      EXPECT_GT(calls, before) << "with " << all.size() << " bytes taken";
    }
    EXPECT_TRUE(receive(bytes_.size(), all).body == bytes_);
    peer.close();
    endAllConnections();
  }
}

// To the kernel's liking, which saves calls.
TEST_F(ConnectionEpollTest, GivesAFastReaderMuchAtOnce) {
  open();
  for (int i = 0; i < 2; ++i) {
    peer.send("GET /file HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(receive(bytes_.size()).body == bytes_);
  }
  peer.send("GET /file HTTP/1.1\r\n\r\n");
  EXPECT_EQ(callsAtRest(), 0);
  constexpr std::uint64_t moreThanOnce = std::uint64_t{17} << 20;
  EXPECT_GT(sent(), moreThanOnce);
}

TEST_F(ConnectionEpollTest, RestsWhileNothingComes) {
  open();
  EXPECT_EQ(callsAtRest(), 0);
  peer.send("GET /fi");
  EXPECT_EQ(callsAtRest(), 0);
  peer.send("le HTTP/1.1\r\n\r\n");
  EXPECT_TRUE(receive(bytes_.size()).body == bytes_);
  EXPECT_EQ(callsAtRest(), 0);
  peer.send("GET /parked HTTP/1.1\r\n\r\n");
  EXPECT_EQ(callsAtRest(), 0);
  ASSERT_NE(parked, nullptr);
  parked->send("late");
  const auto complete = std::move(parked->onComplete);
  complete();
  EXPECT_EQ(receive(4).body, "late");
}

TEST_F(ConnectionEpollTest, TakesABodyOfAnySize) {
  open();
  for (const std::size_t size : {std::size_t{1}, std::size_t{100}, std::size_t{512}, std::size_t{4096},
                                 std::size_t{4097}, std::size_t{200000}}) {
    body.clear();
    const std::string sent = sampleBytes(size);
    peer.send("POST /post HTTP/1.1\r\nContent-Length: " + std::to_string(size) + "\r\n\r\n" + sent);
    EXPECT_EQ(receive(6).body, "thanks") << size;
    EXPECT_TRUE(body == sent) << size;
  }
}

TEST_F(ConnectionEpollTest, ARequestSeesWhatChangedBeforeItCame) {
  open();
  for (std::size_t i = 1; i < 50; ++i) {
    dir_.write("watched", std::string(i, 'x'));
    for (int again = 0; again < 4; ++again) {
      peer.send("GET /size HTTP/1.1\r\n\r\n");
      turn(again);
      EXPECT_EQ(receive(std::to_string(i).size()).body, std::to_string(i));
    }
  }
}

// One look at the changes serves all requests that were there when the turn began, and no other: here one comes, and is
// read in the same turn, after the file has changed.
TEST_F(ConnectionEpollTest, ARequestThatCameDuringTheTurnSeesWhatChangedInIt) {
  dir_.write("watched", "1");
  open();
  Peer asking = std::move(peer);
  // As long as what is read at once, so that the connection reads on without being told.
  const std::string line = "GET /size HTTP/1.1\r\nPad: ";
  const std::string request = line + std::string(512 - line.size() - 4, 'x') + "\r\n\r\n";
  for (int i = 0; i < 4; ++i) {
    asking.send(request);
    turn(3);
    EXPECT_EQ(parseAnswer(asking.receive()).body, "1");
  }
  open();
  turn(3);
  onChange = [&] {
    EXPECT_EQ(parseAnswer(asking.receive()).body, "1") << "the first is answered";
    dir_.write("watched", "22");
    asking.send(request);
  };
  asking.send(request);
  peer.send("GET /change HTTP/1.1\r\n\r\n");
  turn(1);
  EXPECT_EQ(parseAnswer(asking.receive()).body, "2");
}

TEST_F(ConnectionEpollTest, NoticesAnEndThatComesWithTheLastBytes) {
  for (const char* text :
       {"", "GET /fi", "POST /post HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", "POST /post HTTP/1.1\r\n\r\nabc"}) {
    open();
    if (*text != '\0') peer.send(text);
    peer.endSending();
    turn(10);
    EXPECT_EQ(openConnections, 0U) << text;
  }
}

}  // namespace
