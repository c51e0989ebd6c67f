#pragma once

#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

#include "http/connection.h"
#include "http/workspace.h"
#include "platform/log.h"
#include "tests/fakes/fake_runner.h"
#include "tests/http/answer.h"
#include "tests/http/scratch_dir.h"

// A servlet that does what the test says.
class ScriptedServlet : public Servlet {
 public:
  using Script = std::function<void(Request&, Response&)>;

  explicit ScriptedServlet(std::string path, Script script = nullptr, bool directory = false)
      : script_(std::move(script)), directory_(directory) {
    setPath(std::move(path));
  }
  void setScript(Script script) { script_ = std::move(script); }

  bool isDirectory() override { return directory_; }
  void doMethod(Request& request, Response& response) override {
    ++calls;
    if (script_) script_(request, response);
  }

  int calls = 0;

 private:
  Script script_;
  bool directory_;
};

// The client's end of a connection. It never waits.
class Peer {
 public:
  Peer() = default;
  explicit Peer(UniqueFd fd) : fd_(std::move(fd)) {}

  [[nodiscard]] int fd() const { return fd_.get(); }

  void send(const std::string& bytes) const {
    EXPECT_EQ(::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT),
              static_cast<ssize_t>(bytes.size()));
  }
  // Takes what is there, at most `limit` bytes.
  std::string receive(std::size_t limit = SIZE_MAX) {
    std::string all;
    std::string part(65536, '\0');
    while (all.size() < limit) {
      const ssize_t count = recv(fd_.get(), part.data(), std::min(part.size(), limit - all.size()), MSG_DONTWAIT);
      if (count == 0) ended_ = true;
      if (count <= 0) break;
      all.append(part, 0, static_cast<std::size_t>(count));
    }
    return all;
  }
  // Whether the server has closed; what it sent before is gone.
  [[nodiscard]] bool ended() {
    receive();
    return ended_;
  }
  void endSending() const { shutdown(fd_.get(), SHUT_WR); }
  // Ends a TCP connection with a reset, any other by closing.
  void reset() {
    const linger now{1, 0};
    setsockopt(fd_.get(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    fd_.reset();
  }
  void close() { fd_.reset(); }

 private:
  UniqueFd fd_;
  bool ended_ = false;
};

// A server's end under a runner turned by hand, and a client's end. Every test ends with no connection and no
// descriptor more than it began with.
class ConnectionTest : public testing::Test {
 protected:
  using State = Connection::State;

  void SetUp() override {
    signal(SIGPIPE, SIG_IGN);  // as the server does
    descriptors_ = openDescriptors();
  }
  void TearDown() override {
    peer.close();
    others.clear();
    endAllConnections();
    EXPECT_EQ(openConnections, 0U);
    EXPECT_EQ(runner.watchedCount(), 0U);
    EXPECT_EQ(openDescriptors(), descriptors_);
  }

  // Standard error between the two, for tests of what is reported.
  static void captureErrors() { testing::internal::CaptureStderr(); }
  static std::string takeErrors() { return testing::internal::GetCapturedStderr(); }

  ScriptedServlet& addServlet(const std::string& path, ScriptedServlet::Script script = nullptr,
                              bool directory = false) {
    servlets_.push_back(std::make_unique<ScriptedServlet>(path, std::move(script), directory));
    site.servlets.push_back(servlets_.back().get());
    return *servlets_.back();
  }

  // A connection over two local sockets, or the given ones; it is kept in `connection`, its client in `peer`.
  void open(bool tls = false, bool unixListener = false) {
    int ends[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    open(UniqueFd(ends[0]), UniqueFd(ends[1]), tls, unixListener);
  }
  void open(UniqueFd server, UniqueFd client, bool tls = false, bool unixListener = false) {
    peer = Peer(std::move(client));
    fd = server.get();
    Connection& made = createConnection(site, std::move(server), tls, unixListener, runner);
    connection = &made;
    ASSERT_TRUE(runner.addSocket(
        fd, tn::readable, [&made](int socket, unsigned events) { made.onSocketEvent(socket, events); },
        tn::Trigger::cached));
    made.beginRequest();
  }
  // Leaves no memory of earlier connections to those that come.
  static void dropSpares() {
    for (std::size_t i = 0; i < Workspace::maxSpare; ++i)
      takeWorkspace().reset();
  }
  // Further connections, which only count.
  void openOthers(unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
      int ends[2];
      ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
      others.emplace_back(ends[1]);
      createConnection(site, UniqueFd(ends[0]), false, false, runner).beginRequest();
    }
  }

  // Tells the server's end what the kernel says of it, once. False: nothing that it waits for.
  bool step() {
    const auto mask = runner.mask(fd);
    if (!mask) return false;
    pollfd entry{fd, 0, 0};
    if ((*mask & tn::readable) != 0) entry.events |= POLLIN;
    if ((*mask & tn::writable) != 0) entry.events |= POLLOUT;
    poll(&entry, 1, 0);
    unsigned bits = 0;
    if ((entry.revents & (POLLIN | POLLERR)) != 0) bits |= tn::readable;
    if ((entry.revents & (POLLOUT | POLLERR)) != 0) bits |= tn::writable;
    return bits != 0 && runner.ready(fd, bits);
  }
  // Steps until nothing is left to be told.
  void turn() {
    for (int steps = 0; steps < 100000; ++steps) {
      if (!step()) return;
    }
    FAIL() << "the connection does not come to rest";
  }

  std::string exchangeText(const std::string& request) {
    peer.send(request);
    turn();
    return peer.receive();
  }
  Answer exchange(const std::string& request) { return parseAnswer(exchangeText(request)); }

  [[nodiscard]] static bool live() { return openConnections != 0; }

  tn::fakes::FakeRunner runner;
  Site site;
  Peer peer;
  std::vector<UniqueFd> others;
  Connection* connection = nullptr;  // dangles once the connection has ended
  int fd = -1;

 private:
  std::vector<std::unique_ptr<ScriptedServlet>> servlets_;
  int descriptors_ = 0;
};
