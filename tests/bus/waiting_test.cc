// Callbacks that wait for something themselves: what becomes of the time, and of the others' turn.

#include <array>
#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/bus/epoll_runner.h"
#include "platform/bus/socket_link.h"
#include "tests/bus/small_broker.h"
#include "tests/fakes/fake_runner.h"

namespace tn {
namespace {

using std::chrono::milliseconds;
using testing_support::SocketFolder;
using Events = std::vector<std::string>;

class WaitingTest : public testing::Test {
 protected:
  // A pipe with a byte in it, watched for `callback`.
  class Ready {
   public:
    Ready(EpollRunner& runner, ThinRunner::SocketCallback callback) {
      std::array<int, 2> ends{};
      EXPECT_EQ(pipe2(ends.data(), O_CLOEXEC), 0);
      reader_.reset(ends[0]);
      writer_.reset(ends[1]);
      EXPECT_EQ(write(ends[1], "x", 1), 1);
      EXPECT_TRUE(runner.addSocket(ends[0], readable, std::move(callback)));
    }

   private:
    UniqueFd reader_;
    UniqueFd writer_;
  };

  ThinRunner::SocketCallback note(const std::string& name) {
    return [this, name](int fd, unsigned) {
      told.push_back(name);
      runner.removeSocket(fd);
    };
  }
  ThinRunner::SocketCallback wait(const std::string& name) {
    return [this, name](int fd, unsigned) {
      note(name)(fd, readable);
      runner.timers().setNow(runner.timers().now() + milliseconds(6000));
    };
  }
  void turn() { ASSERT_TRUE(runner.turn(false)); }

  EpollRunner runner;
  Events told;
};

// Whoever is ready behind the one that waits comes before the timers: it was not silent, it was not listened to.
TEST_F(WaitingTest, ACallbackThatWaitsEndsTheTurn) {
  runner.addTimer(2000, [this] { told.emplace_back("timer"); });
  const Ready first(runner, note("first"));
  const Ready second(runner, wait("second"));
  const Ready third(runner, wait("third"));
  const Ready fourth(runner, note("fourth"));
  turn();
  EXPECT_EQ(told, (Events{"first", "second"}));
  const Ready late(runner, note("late"));
  turn();
  EXPECT_EQ(told, (Events{"first", "second", "third"}));
  turn();
  EXPECT_EQ(told, (Events{"first", "second", "third", "fourth", "late", "timer"}));
}

TEST_F(WaitingTest, SocketsThatTheKernelHadNoRoomToTellOfComeBeforeTheTimers) {
  runner.addTimer(2000, [this] { told.emplace_back("timer"); });
  const Ready waiting(runner, wait("waited"));
  turn();
  std::vector<Ready> many;
  for (int i = 0; i < 150; ++i)
    many.emplace_back(runner, note("socket"));
  for (int i = 0; i < 3; ++i)
    turn();
  ASSERT_EQ(told.size(), 152U);
  EXPECT_EQ(told.back(), "timer");
}

TEST_F(WaitingTest, SocketsThatAreAlwaysReadyDoNotKeepTheTimersOff) {
  runner.addTimer(0, [this] { told.emplace_back("timer"); });
  std::vector<Ready> many;
  for (int i = 0; i < 150; ++i)
    many.emplace_back(runner, [](int, unsigned) {});
  for (int i = 0; i < 20 && told.empty(); ++i)
    turn();
  EXPECT_EQ(told, Events{"timer"});
}

TEST_F(WaitingTest, ATimerThatIsArmedAfterTheWaitCountsFromItsEnd) {
  const Ready waiting(runner, [this](int fd, unsigned events) {
    wait("waited")(fd, events);
    runner.addTimer(2000, [this] { told.emplace_back("timer"); });
  });
  for (int i = 0; i < 3; ++i)
    turn();
  EXPECT_EQ(told, Events{"waited"});
  runner.timers().setNow(runner.timers().now() + milliseconds(2000));
  turn();
  EXPECT_EQ(told, (Events{"waited", "timer"}));
}

class JoinedSink : public BusLink::Sink {
 public:
  void onLinked(std::uint32_t) override {}
  void onUnlinked() override {}
  void onFrame(BusLink::Arrival) override {}
};

TEST(WaitingLinkTest, TheTimeMovesOnWithTheWait) {
  const SocketFolder folder;
  const UniqueFd listener = testing_support::listenAt(folder.path());
  fakes::FakeRunner runner;
  SocketLink::Settings settings;
  settings.path = folder.path();
  SocketLink link(runner, settings);
  JoinedSink sink;
  link.open(sink);
  runner.advance(0);
  const UniqueFd broker(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  message answer;
  answer.insert(u32_id(1), control::join);
  answer.insert(u32_id(2), 1000U);
  std::vector<std::uint8_t> frame(frameHeaderBytes);
  storeFrameHeader(frame.data(), {static_cast<std::uint32_t>(answer.max_length()), brokerId,
                                  static_cast<std::uint32_t>(FrameKind::control)});
  frame.insert(frame.end(), answer.flattened().begin(), answer.flattened().end());
  ASSERT_EQ(send(broker.get(), frame.data(), frame.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frame.size()));
  ASSERT_TRUE(runner.ready(runner.calls.back().fd, readable));
  ASSERT_EQ(link.id(), 1000U);

  const Clock::time_point deadline = Clock::now() + milliseconds(2);
  EXPECT_EQ(link.waitForFrames(deadline), BusLink::Wait::timedOut);
  EXPECT_GE(runner.timers().now(), deadline);
}

}  // namespace
}  // namespace tn
