// What a wait of the runner ends with beside sockets: news, and the alarm of its timers.
#include <chrono>
#include <fcntl.h>
#include <string>
#include <vector>

#include "tests/bus/epoll_fixture.h"

namespace tn {
namespace {

// Tells of each call whether all news before what was read had been heard.
class NewsTest : public EpollRunnerTest {
 protected:
  void serve(EpollRunner& by, const Pair& pair) {
    fcntl(pair.here.get(), F_SETFL, O_NONBLOCK);
    EXPECT_TRUE(by.addNonBlocking(pair.here.get(), readable, [this, &by](int fd, unsigned) {
      heard.push_back(by.newsHeard());
      readSome(fd);
      by.drained(fd, readable);
    }));
    turnOf(by);  // to be told of nothing: the socket is taken for ready before the kernel knows it
    heard.clear();
  }
  static void turnOf(EpollRunner& by) { ASSERT_TRUE(by.turn(false)); }

  std::vector<bool> heard;
};

TEST_F(NewsTest, IsHeardBeforeTheSocketsOfItsTurn) {
  const Pair pair;
  const Pair news;
  std::string order;
  ASSERT_TRUE(runner.addSocket(pair.here.get(), readable, [&](int fd, unsigned) { order += readSome(fd); }));
  ASSERT_TRUE(runner.addNews(news.here.get(), false, [&] { order += readSome(news.here.get()); }));
  EXPECT_FALSE(runner.addNews(news.here.get(), false, [] {}));
  pair.feed("socket ");
  news.feed("news ");
  turn();
  EXPECT_EQ(order, "news socket ");
  EXPECT_TRUE(runner.removeSocket(news.here.get()));
  news.feed("more");
  turn();
  EXPECT_EQ(order, "news socket ");
}

TEST_F(NewsTest, OfAFileThatIsAlwaysReadableIsWhatIsUrgentAlone) {
  const UniqueFd mounts(open("/proc/self/mountinfo", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(mounts);
  int news = 0;
  ASSERT_TRUE(runner.addNews(mounts.get(), true, [&] { ++news; }));
  turn();
  EXPECT_EQ(news, 0);
}

TEST_F(NewsTest, IsHeardWhenBytesComeToASocketThatWasAtRestForAWait) {
  const Pair pair;
  serve(runner, pair);
  turn();
  pair.feed("x");
  turn();
  turn();
  pair.feed("x");
  turn();
  EXPECT_EQ(heard, (std::vector<bool>{true, true}));
}

// The kernel may have listed the socket for what was read meanwhile, and so find later bytes while it goes through the
// list.
TEST_F(NewsTest, IsNotKnownToBeHeardAtTheFirstWaitAfterARead) {
  const Pair pair;
  serve(runner, pair);
  turn();
  pair.feed("x");
  turn();
  pair.feed("x");
  turn();
  EXPECT_EQ(heard, (std::vector<bool>{true, false}));
}

TEST_F(NewsTest, IsNotKnownToBeHeardByAWaitWithoutRoomForAll) {
  const Pair first;
  const Pair second;
  EpollRunner narrow{2, 3};
  serve(narrow, first);
  serve(narrow, second);
  turnOf(narrow);
  first.feed("x");
  second.feed("x");
  turnOf(narrow);
  EXPECT_EQ(heard, (std::vector<bool>{false, false}));
  heard.clear();
  turnOf(narrow);
  first.feed("x");
  turnOf(narrow);
  EXPECT_EQ(heard, std::vector<bool>{true});
}

// Room that came free in its buffer lists it as well.
TEST_F(NewsTest, IsNotKnownToBeHeardBySocketsThatWaitedToWrite) {
  const Pair pair;
  serve(runner, pair);
  runner.drained(pair.here.get(), writable);
  turn();
  turn();
  pair.feed("x");
  turn();
  EXPECT_EQ(heard, std::vector<bool>{false});
}

TEST_F(NewsTest, IsNotKnownToBeHeardWhenBytesCameAfterTheWait) {
  const Pair pair;
  const Pair other;
  serve(runner, pair);
  runner.addSocket(other.here.get(), readable, [&](int fd, unsigned) {
    readSome(fd);
    runner.changeSocket(pair.here.get(), readable);
    pair.feed("x");
  });
  turn();
  other.feed("x");
  turn();
  EXPECT_EQ(heard, std::vector<bool>{}) << "the kernel has told of nothing yet";
  turn();
  EXPECT_EQ(heard, std::vector<bool>{true});
}

// The kernel's alarm is set for one deadline while others come and go.
class AlarmTest : public EpollRunnerTest {
 protected:
  // A turn that would wait, but for a socket that is ready.
  void turnAndNoWait() {
    pair.feed("x");
    ASSERT_TRUE(runner.turn(true));
    readSome(pair.here.get());
  }
  void SetUp() override {
    ASSERT_TRUE(runner.addSocket(pair.here.get(), readable, [](int, unsigned) {}));
  }

  const Pair pair;
};

TEST_F(AlarmTest, IsSetAnewForAnEarlierTimer) {
  runner.addTimer(1000000, [] {});
  turnAndNoWait();
  bool ran = false;
  runner.addTimer(5, [&] { ran = true; });
  while (!ran)
    ASSERT_TRUE(runner.turn(true));
}

TEST_F(AlarmTest, RingsForNothingWhenItsTimerWasArmedAnew) {
  bool ran = false;
  Timer timer([&] { ran = true; });
  timer.start(runner.timers(), 10);
  turnAndNoWait();
  timer.start(runner.timers(), 30);
  const Clock::time_point due = runner.timers().now() + std::chrono::milliseconds(30);
  while (!ran)
    ASSERT_TRUE(runner.turn(true));
  EXPECT_GE(Clock::now(), due);
}

TEST_F(AlarmTest, ServesTheNextTimerWhenItsOwnWasCancelled) {
  Timer timer([] { FAIL(); });
  timer.start(runner.timers(), 5);
  turnAndNoWait();
  timer.cancel();
  int ran = 0;
  for (const std::uint32_t ms : {20U, 10U, 20U})
    runner.addTimer(ms, [&] { ++ran; });
  while (ran != 3)
    ASSERT_TRUE(runner.turn(true));
}

TEST_F(AlarmTest, LeavesAWaitWithoutTimersToTheSockets) {
  runner.addTimer(1, [] {});
  while (runner.timers().nextDeadline())
    ASSERT_TRUE(runner.turn(true));
  turnAndNoWait();
  turnAndNoWait();
}

}  // namespace
}  // namespace tn
