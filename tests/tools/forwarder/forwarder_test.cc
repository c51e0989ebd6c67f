#include "tools/forwarder/forwarder.h"

#include <cstring>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

#include "platform/bus/epoll_runner.h"

namespace {

using forwarder::Address;

// No server has such a port, so the name is nobody else's.
std::uint32_t ownPort() {
  static std::uint32_t last = 100000U + static_cast<std::uint32_t>(getpid()) * 100;
  return ++last;
}

// One forwarder under the real runner, with the server's listener and its clients in the hand of the test.
class ForwarderTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(forwarder.listen(forwarder::parseAddress("127.0.0.1:0").value_or(Address()))); }

  void listenAsServer(int backlog = 10) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = "www-unix" + std::to_string(port);
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    server.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(server.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(server.get(), backlog), 0);
  }
  UniqueFd connect() {
    // The listener is the only socket of this process that listens on TCP: found by asking each.
    UniqueFd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Address address = listenerAddress();
    EXPECT_EQ(::connect(client.get(), address.data(), address.length()), 0);
    turn();
    return client;
  }
  static Address listenerAddress() {
    for (int fd = 3; fd < 64; ++fd) {
      int listening = 0;
      socklen_t length = sizeof listening;
      Address address;
      socklen_t room = forwarder::addressBytes;
      if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening == 1 &&
          getsockname(fd, address.data(), &room) == 0 && address.family() == AF_INET) {
        return address;
      }
    }
    ADD_FAILURE() << "nothing listens";
    return {};
  }
  // Lets the forwarder do all that there is to do.
  void turn() {
    for (int i = 0; i < 50; ++i)
      ASSERT_TRUE(runner.turn(false));
  }
  void send(const UniqueFd& to, const std::string& bytes) {
    ASSERT_EQ(::send(to.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    turn();
  }
  // What is there to be read; "<end>" behind it when that is all, "<reset>" when the connection was cut.
  std::string receive(const UniqueFd& from) {
    turn();
    std::string all;
    std::vector<char> part(65536);
    while (true) {
      const ssize_t count = recv(from.get(), part.data(), part.size(), MSG_DONTWAIT);
      if (count == 0) return all + "<end>";
      if (count < 0) return errno == EAGAIN ? all : all + "<reset>";
      all.append(part.data(), static_cast<std::size_t>(count));
      turn();
    }
  }
  UniqueFd accept() {
    turn();
    return UniqueFd(accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  }

  const std::uint32_t port = ownPort();
  tn::EpollRunner runner;
  forwarder::Forwarder forwarder{port, 7, runner};
  UniqueFd server;
};

constexpr const char* request = "GET / HTTP/1.1\r\nHost: a\r\nConnection: keep-alive\r\n\r\n";
constexpr const char* passedOn = "GET / HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n";

TEST_F(ForwarderTest, PassesARequestOnAndTheResponseBack) {
  listenAsServer();
  const UniqueFd client = connect();
  Address peer;
  socklen_t room = forwarder::addressBytes;
  ASSERT_EQ(getsockname(client.get(), peer.data(), &room), 0);
  send(client, "GET / HTTP/1.1\r\nHost: a\r\n");
  EXPECT_FALSE(accept());
  send(client, "Connection: keep-alive\r\n\r\n");
  UniqueFd got = accept();
  const std::string bytes = receive(got);
  ASSERT_EQ(bytes.size(), 88 + std::strlen(passedOn));
  const Address local = listenerAddress();
  const auto header = forwarder::forwardingHeader(peer, local, local, 7);
  EXPECT_EQ(bytes.substr(0, 88), std::string(header.begin(), header.end()));
  EXPECT_EQ(bytes.substr(88), passedOn);
  send(got, "HTTP/1.1 200 OK\r\n\r\nhello");
  EXPECT_EQ(receive(client), "HTTP/1.1 200 OK\r\n\r\nhello");
  got.reset();
  EXPECT_EQ(receive(client), "<end>");
}

TEST_F(ForwarderTest, ABodyGoesAlong) {
  listenAsServer();
  const UniqueFd client = connect();
  send(client, "POST / HTTP/1.1\r\nContent-Length: 6\r\n\r\nabc");
  const UniqueFd got = accept();
  EXPECT_EQ(receive(got).substr(88), "POST / HTTP/1.1\r\nContent-Length: 6\r\nConnection: close\r\n\r\nabc");
  send(client, "def");
  EXPECT_EQ(receive(got), "def");
}

// What looks like a further request is a body to the server, and no second header is ever sent.
TEST_F(ForwarderTest, ASecondRequestGetsNoHeaderOfItsOwn) {
  listenAsServer();
  const UniqueFd client = connect();
  send(client, std::string(request) + request);
  const UniqueFd got = accept();
  EXPECT_EQ(receive(got).substr(88), std::string(passedOn) + request);
}

TEST_F(ForwarderTest, LargeBodiesAndResponsesAreHeldBackNotLost) {
  listenAsServer();
  const UniqueFd client = connect();
  send(client, "POST / HTTP/1.1\r\n\r\n");
  UniqueFd got = accept();
  receive(got);
  std::string sent;
  std::string received;
  const std::string block(50000, 'x');
  // Neither side reads what the other sends for a while.
  for (int i = 0; i < 200; ++i) {
    const ssize_t count = ::send(got.get(), block.data(), block.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (count > 0) sent.append(block, 0, static_cast<std::size_t>(count));
    turn();
  }
  EXPECT_GT(sent.size(), block.size());
  got.reset();
  received = receive(client);
  EXPECT_EQ(received, sent + "<end>");
}

TEST_F(ForwarderTest, WithoutAServerItIs502) {
  const UniqueFd client = connect();
  testing::internal::CaptureStderr();
  send(client, request);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "connect: Connection refused\n");
  EXPECT_EQ(receive(client), "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\nConnection: close\r\n\r\n<end>");
}

TEST_F(ForwarderTest, AServerThatIsBusyIsTriedAgain) {
  listenAsServer(0);
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 3; ++i) {
    clients.push_back(connect());
    send(clients.back(), request);
  }
  std::vector<UniqueFd> taken;
  for (int i = 0; i < 100 && taken.size() < clients.size(); ++i) {
    usleep(10'000);
    UniqueFd got = accept();
    if (got) taken.push_back(std::move(got));
  }
  EXPECT_EQ(taken.size(), clients.size());
}

TEST_F(ForwarderTest, AServerThatAnswersEarlyIsHeard) {
  listenAsServer();
  const UniqueFd client = connect();
  send(client, "POST / HTTP/1.1\r\nContent-Length: 100000\r\n\r\nabc");
  UniqueFd got = accept();
  send(got, "HTTP/1.1 500 No\r\n\r\n");
  got.reset();
  turn();
  EXPECT_EQ(receive(client), "HTTP/1.1 500 No\r\n\r\n<end>");
  // The rest of the body, which nobody wants, does not take the response away.
  send(client, std::string(1000, 'x'));
  EXPECT_EQ(receive(client), "<end>");
}

TEST_F(ForwarderTest, TheEndOfAClientIsPassedOn) {
  listenAsServer();
  UniqueFd client = connect();
  send(client, "POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc");
  UniqueFd got = accept();
  client.reset();
  EXPECT_NE(receive(got).find("<end>"), std::string::npos);
  got.reset();
  turn();
}

TEST_F(ForwarderTest, AClientWithoutAWholeHeadIsLeft) {
  listenAsServer();
  UniqueFd half = connect();
  send(half, "GET / HT");
  shutdown(half.get(), SHUT_WR);
  EXPECT_EQ(receive(half), "<end>");
  const UniqueFd large = connect();
  send(large, "GET / HTTP/1.1\r\n" + std::string(40000, 'x'));
  turn();
  const std::string end = receive(large);
  EXPECT_TRUE(end == "<end>" || end == "<reset>");
  EXPECT_FALSE(accept());
}

TEST_F(ForwarderTest, ManyClientsAtOnce) {
  listenAsServer(64);
  std::vector<UniqueFd> clients;
  for (int i = 0; i < 20; ++i)
    clients.push_back(connect());
  for (std::size_t i = 0; i < clients.size(); ++i) {
    send(clients[i], "GET /" + std::to_string(i) + "\r\n");
    const UniqueFd got = accept();
    EXPECT_EQ(receive(got).substr(88), "GET /" + std::to_string(i) + "\r\n");
    send(got, std::to_string(i));
    EXPECT_EQ(receive(clients[i]), std::to_string(i));
  }
}

TEST_F(ForwarderTest, AnAddressInUseIsToldOf) {
  forwarder::Forwarder other{port, 7, runner};
  EXPECT_FALSE(other.listen(listenerAddress()));
  EXPECT_EQ(errno, EADDRINUSE);
}

}  // namespace
