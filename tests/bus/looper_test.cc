// Whole loops: the epoll runner, the socket link and a small broker in one thread, turned by turn.

#include "platform/bus/looper.h"

#include <algorithm>
#include <csignal>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <utility>
#include <vector>

#include "platform/bus/epoll_runner.h"
#include "platform/bus/socket_link.h"
#include "tests/bus/small_broker.h"
#include "tests/bus/sockets.h"
#include "tests/fakes/fake_runner.h"
#include "tests/fakes/recording_bus.h"

namespace tn {
namespace {

using testing_support::openDescriptors;
using testing_support::Pipe;
using testing_support::sameFile;
using testing_support::SmallBroker;
using testing_support::SocketFolder;
using Path = std::vector<std::uint32_t>;

message addressed(const Path& path, std::uint32_t command) {
  message msg;
  msg.insert_vector(field::destination, path);
  msg.insert(field::command, command);
  return msg;
}

// A looper as a program has it, but for the path of the broker.
std::unique_ptr<Looper> makeLooper(const std::string& path, unsigned id = 0) {
  auto runner = std::make_unique<EpollRunner>();
  SocketLink::Settings settings;
  settings.path = path;
  settings.id = id;
  settings.rejoinFirstMs = 1;
  auto link = std::make_unique<SocketLink>(*runner, settings);
  return std::make_unique<Looper>(std::move(runner), std::move(link));
}

class Echo : public Handler {
 public:
  message cmdGet(message& msg) override {
    ++calls;
    if (const UniqueFd fd = takeDescriptor(msg)) got.reset(dup(fd.get()));
    message answer;
    answer.insert(string_id(1), msg.get(string_id(1)).value_or("nothing"));
    return answer;
  }
  message cmdDisconnected(message& msg) override {
    ++notices;
    return Handler::cmdDisconnected(msg);
  }
  int calls = 0;
  int notices = 0;
  UniqueFd got;
};

class LooperTest : public testing::Test {
 protected:
  LooperTest() {
    broker.emplace(brokerRunner, folder.path());
    server = makeLooper(folder.path(), 68);
    client = makeLooper(folder.path());
    server->addHandler(1, echo);
  }
  static void turn(Looper& looper) {
    looper.finishTurn();
    ASSERT_TRUE(looper.runner().turn(false));
  }
  // Turns everything until something holds; a test that hangs here is ended by its own limit of turns.
  testing::AssertionResult until(const std::function<bool()>& holds) {
    for (int i = 0; i < maxTurns; ++i) {
      if (holds()) return testing::AssertionSuccess();
      (void)brokerRunner.turn(false);
      turn(*server);
      turn(*client);
      if (i > maxTurns / 2) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return testing::AssertionFailure() << "it never came to hold";
  }
  bool bothJoined() const { return server->busId() == 68 && client->busId() != 0; }

  static constexpr int maxTurns = 4000;
  const SocketFolder folder;
  EpollRunner brokerRunner;
  std::optional<SmallBroker> broker;
  Echo echo;
  std::unique_ptr<Looper> server;
  std::unique_ptr<Looper> client;
};

TEST_F(LooperTest, ARequestGoesRound) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  EXPECT_GE(client->busId(), firstFreeId);
  std::optional<message> reply;
  message request = addressed({68, 1}, command::get);
  request.insert(string_id(1), "hello");
  client->postMessage(
      request, [&](const message& msg) { reply = msg; }, 6000);
  ASSERT_TRUE(until([&] { return reply.has_value(); }));
  EXPECT_EQ(reply->get(string_id(1)), "hello");
  EXPECT_EQ(reply->get(field::sender), (Path{68, 1}));
}

TEST_F(LooperTest, ManyRequestsAreAllAnswered) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  int replies = 0;
  const std::string text(3000, 'x');
  for (int i = 0; i < 2000; ++i) {
    message request = addressed({68, 1}, command::get);
    request.insert(string_id(1), text);
    client->postMessage(
        request,
        [&](const message& msg) {
          EXPECT_EQ(msg.get(string_id(1)), text);
          ++replies;
        },
        60000);
  }
  ASSERT_TRUE(until([&] { return replies == 2000; }));
  EXPECT_EQ(echo.calls, 2000);
}

TEST_F(LooperTest, ADescriptorGoesAlongAndIsTheReceivers) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  Pipe pipe;
  const UniqueFd copy(dup(pipe.writer.get()));
  message request = addressed({68, 1}, command::get);
  request.insert(field::descriptor, static_cast<std::uint32_t>(pipe.writer.release()));
  bool answered = false;
  client->postMessage(
      request, [&](const message&) { answered = true; }, 6000);
  ASSERT_TRUE(until([&] { return answered; }));
  EXPECT_TRUE(sameFile(echo.got.get(), copy.get()));
}

TEST_F(LooperTest, NoDescriptorIsLeftBehind) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  const std::size_t before = openDescriptors();
  Pipe pipe;
  int answered = 0;
  for (const Path& path : {Path{68, 1}, Path{68, 9}, Path{68, 1, 5}, Path{77}, Path{68}}) {
    message request = addressed(path, command::set);
    request.insert(field::descriptor, static_cast<std::uint32_t>(dup(pipe.writer.get())));
    client->postMessage(
        request, [&](const message& reply) { answered += isError(reply) ? 1 : 0; }, 6000);
  }
  pipe.writer.reset();
  ASSERT_TRUE(until([&] { return answered == 5 && pipe.allWritersClosed(); }));
  pipe.reader.reset();
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(LooperTest, AProgramThatIsNotThereIsUnreachable) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  std::optional<message> reply;
  client->postMessage(
      addressed({77}, command::get), [&](const message& msg) { reply = msg; }, 60000);
  ASSERT_TRUE(until([&] { return reply.has_value(); }));
  EXPECT_EQ(getError(*reply), "unreachable");
}

TEST_F(LooperTest, ABrokerThatGoesAndComesIsJoinedAgain) {
  server->joinGroup(sessionEndGroup);
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  std::optional<message> reply;
  broker.reset();
  client->postMessage(
      addressed({68, 1}, command::get), [&](const message& msg) { reply = msg; }, 60000);
  ASSERT_TRUE(until([&] { return reply.has_value() && client->busId() == 0 && server->busId() == 0; }));
  EXPECT_EQ(getError(*reply), "unreachable");
  reply.reset();
  client->postMessage(
      addressed({68, 1}, command::get), [&](const message& msg) { reply = msg; }, 60000);
  ASSERT_TRUE(until([&] { return reply.has_value(); }));
  EXPECT_EQ(getError(*reply), "unreachable");

  broker.emplace(brokerRunner, folder.path());
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  reply.reset();
  client->postMessage(
      addressed({68, 1}, command::get), [&](const message& msg) { reply = msg; }, 6000);
  ASSERT_TRUE(until([&] { return reply.has_value(); }));
  EXPECT_FALSE(isError(*reply));
  client->sendMessage(addressed({sessionEndGroup}, command::disconnected));
  ASSERT_TRUE(until([&] { return echo.notices == 1; }));
}

TEST_F(LooperTest, TheBrokerAnswersControlOperations) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  std::optional<message> reply;
  message request;
  request.insert(u32_id(1), control::list);
  client->control(
      request, [&](const message& msg) { reply = msg; }, 6000);
  ASSERT_TRUE(until([&] { return reply.has_value(); }));
  EXPECT_EQ(reply->get(u32_id(1)), control::list);
}

// The broker and the server go on in a thread of their own while the client does nothing but wait.
TEST_F(LooperTest, AnExchangeWaitsForItsReply) {
  ASSERT_TRUE(until([&] { return bothJoined(); }));
  std::jthread others([this](const std::stop_token& stop) {
    while (!stop.stop_requested()) {
      (void)brokerRunner.turn(false);
      turn(*server);
    }
  });
  message request = addressed({68, 1}, command::get);
  request.insert(string_id(1), "hello");
  EXPECT_EQ(client->exchangeMessage(request, 60000).get(string_id(1)), "hello");
  EXPECT_EQ(getError(client->exchangeMessage(addressed({77}, command::get), 60000)), "unreachable");
}

// ---- run()

class LooperRunTest : public testing::Test {
 protected:
  const SocketFolder folder;
  std::unique_ptr<Looper> looper = makeLooper(folder.path());
};

TEST_F(LooperRunTest, RunsUntilItIsToldToQuit) {
  int turns = 0;
  Timer timer;
  timer.setCallback([&] {
    if (++turns == 3) looper->quit();
    timer.start(looper->runner().timers(), 1);
  });
  timer.start(looper->runner().timers(), 0);
  looper->run();
  EXPECT_EQ(turns, 3);
  looper->runner().addTimer(0, [&] { looper->quit(); });
  looper->run();
  EXPECT_EQ(looper->exitStatus(), 0);
}

TEST_F(LooperRunTest, ALoopThatCannotGoOnEndsTheProgramWithAStatus) {
  Looper broken(std::make_unique<fakes::FakeRunner>(), std::make_unique<fakes::RecordingBus>());
  testing::internal::CaptureStderr();
  broken.run();
  EXPECT_NE(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(broken.exitStatus(), 1);
}

TEST_F(LooperRunTest, StopSignalsEndIt) {
  for (const int signal : {SIGTERM, SIGINT}) {
    sigset_t before{};
    sigset_t after{};
    sigprocmask(SIG_BLOCK, nullptr, &before);
    looper->runner().addTimer(0, [&] { raise(signal); });
    looper->run();
    sigprocmask(SIG_BLOCK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal));
  }
}

// As a kernel without memory for one more socket refuses it: the signals must not be blocked with nobody to read them.
TEST(LooperStopSignals, StayAsTheyAreWhenTheyCannotBeWatched) {
  class Refusing : public fakes::FakeRunner {
   public:
    bool turn(bool) override {
      sigset_t mask{};
      sigprocmask(SIG_BLOCK, nullptr, &mask);
      blocked = sigismember(&mask, SIGTERM);
      return false;
    }
    int blocked = -1;
  };
  auto owned = std::make_unique<Refusing>();
  Refusing& runner = *owned;
  runner.refuseAdds = true;
  Looper looper(std::move(owned), std::make_unique<fakes::RecordingBus>());
  looper.run();
  EXPECT_EQ(runner.blocked, 0);
}

TEST_F(LooperRunTest, StopSignalsCanBeLeftAsTheyAre) {
  Looper::Tuning tuning{};
  tuning.stopSignals = 1;
  Looper other(tuning);
  int blocked = -1;
  other.runner().addTimer(0, [&] {
    sigset_t mask{};
    sigprocmask(SIG_BLOCK, nullptr, &mask);
    blocked = sigismember(&mask, SIGTERM);
    other.quit();
  });
  other.run();
  EXPECT_EQ(blocked, 0);
}

TEST_F(LooperRunTest, ATrustedShutdownEndsItWithItsAnswerSent) {
  const UniqueFd listener = testing_support::listenAt(folder.path());
  FrameReader reader{1U << 16};
  UniqueFd peer;
  const auto feed = [&](FrameKind kind, std::uint32_t from, const message& content) {
    FrameQueue queue;
    queue.append(kind, from, content.flattened(), UniqueFd());
    EXPECT_EQ(queue.flush(peer.get()), FrameQueue::Flush::done);
  };
  Timer script;
  script.setCallback([&] {
    if (!peer) {
      peer.reset(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
      if (peer) {
        message joined;
        joined.insert(u32_id(2), 1000U);
        feed(FrameKind::control, brokerId, joined);
        message shutdown;
        shutdown.insert(field::command, command::shutdown);
        shutdown.insert(field::requestNumber, 5U);
        feed(FrameKind::message, 68, shutdown);
      }
    }
    script.start(looper->runner().timers(), 1);
  });
  script.start(looper->runner().timers(), 0);
  looper->run();
  std::vector<std::uint32_t> kinds;
  FrameReader::Frame frame;
  EXPECT_EQ(reader.receive(peer.get()), FrameReader::Receive::bytes);
  while (reader.next(frame) == FrameReader::Next::frame)
    kinds.push_back(frame.header.kind);
  EXPECT_EQ(kinds, (std::vector<std::uint32_t>{2, 0}));  // the join, and the answer
}

TEST(LooperLimitTest, RaisesTheLimitOfDescriptors) {
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlim_t high = std::min<rlim_t>(before.rlim_max, 4096);
  rlimit low = before;
  low.rlim_cur = 256;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  rlimit now{};
  {
    Looper::Tuning tuning{};
    tuning.openFiles = static_cast<unsigned>(high);
    const Looper looper(tuning);
    getrlimit(RLIMIT_NOFILE, &now);
    EXPECT_EQ(now.rlim_cur, high);
  }
  const Looper looper;
  getrlimit(RLIMIT_NOFILE, &now);
  EXPECT_EQ(now.rlim_cur, now.rlim_max);
  setrlimit(RLIMIT_NOFILE, &before);
}

}  // namespace
}  // namespace tn
