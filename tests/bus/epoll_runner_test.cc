#include <array>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <memory>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "tests/bus/epoll_fixture.h"

namespace tn {
namespace {

TEST_F(EpollRunnerTest, MakesSocketsNonBlocking) {
  const Pair level;
  const Pair cached;
  EXPECT_TRUE(runner.addSocket(level.here.get(), readable, note()));
  EXPECT_TRUE(runner.addSocket(cached.here.get(), readable, note(), Trigger::cached));
  EXPECT_NE(fcntl(level.here.get(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_NE(fcntl(cached.here.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(EpollRunnerTest, ALevelSocketIsToldOncePerTurnWhileReady) {
  const Pair pair;
  runner.addSocket(pair.here.get(), readable, note());
  turn();
  EXPECT_EQ(told, nothing);
  pair.feed("x");
  turn();
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{readable, readable}));
  EXPECT_EQ(readSome(pair.here.get()), "x");
  turn();
  EXPECT_EQ(told.size(), 2U);
}

TEST_F(EpollRunnerTest, ALevelSocketIsToldOfItsMaskOnly) {
  const Pair pair;
  pair.feed("x");
  runner.addSocket(pair.here.get(), 0, note());
  turn();
  EXPECT_EQ(told, nothing);
  EXPECT_TRUE(runner.changeSocket(pair.here.get(), writable));
  turn();
  EXPECT_TRUE(runner.changeSocket(pair.here.get(), readable | writable));
  turn();
  EXPECT_TRUE(runner.changeSocket(pair.here.get(), 0));
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{writable, readable | writable}));
}

TEST_F(EpollRunnerTest, AnUnwantedLevelHangUpIsToldOnce) {
  Pair pair;
  runner.addSocket(pair.here.get(), 0, note());
  pair.there.reset();
  turn();
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{hangUp});
}

TEST_F(EpollRunnerTest, ACachedSocketThatDoesNotDrainIsCalledAgainInTheSameTurn) {
  const Pair pair;
  pair.feed("abcde");
  std::string got;
  runner.addSocket(
      pair.here.get(), readable, [&](int fd, unsigned) { got += readSome(fd, 1); }, Trigger::cached);
  turn();
  EXPECT_EQ(got, "abc");           // three rounds
  EXPECT_TRUE(runner.turn(true));  // must not wait: the socket is left over
  EXPECT_EQ(got, "abcde");
}

TEST_F(EpollRunnerTest, ADrainedCachedSocketWaitsForTheKernel) {
  const Pair pair;
  const auto read = [&](int fd, unsigned events) {
    told.push_back(events);
    readSome(fd);
    runner.drained(fd, readable);
  };
  runner.addSocket(pair.here.get(), readable, read, Trigger::cached);
  pair.feed("x");
  turn();
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{readable});
  pair.feed("y");
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{readable, readable}));
}

TEST_F(EpollRunnerTest, AnAnswerIsWrittenInTheTurnOfTheQuestion) {
  const Pair pair;
  const auto serve = [&](int fd, unsigned events) {
    told.push_back(events);
    if ((events & readable) != 0) {
      readSome(fd);
      runner.drained(fd, readable);
      runner.changeSocket(fd, writable);
    } else {
      runner.changeSocket(fd, readable);
    }
  };
  runner.addSocket(pair.here.get(), readable, serve, Trigger::cached);
  turn();
  pair.feed("question");
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{readable, writable}));
}

TEST_F(EpollRunnerTest, WhoHasReadWritesBeforeOthersRead) {
  const Pair first;
  const Pair second;
  std::vector<int> called;
  const auto serve = [&](int fd, unsigned events) {
    called.push_back(fd);
    if ((events & readable) != 0) runner.drained(fd, readable);
    runner.changeSocket(fd, (events & readable) != 0 ? writable : readable);
  };
  const int a = first.here.get();
  const int b = second.here.get();
  runner.addSocket(a, readable, serve, Trigger::cached);
  runner.addSocket(b, readable, serve, Trigger::cached);
  first.feed("x");
  second.feed("x");
  turn();
  EXPECT_EQ(called, (std::vector<int>{a, a, b, b}));
}

TEST_F(EpollRunnerTest, ASocketWhoseInterestAlwaysTurnsDoesNotKeepOthersWaiting) {
  const Pair restless;
  const Pair other;
  std::vector<int> called;
  runner.addSocket(
      restless.here.get(), readable,
      [&](int fd, unsigned events) {
        called.push_back(fd);
        runner.changeSocket(fd, (events & readable) != 0 ? writable : readable);
      },
      Trigger::cached);
  runner.addSocket(
      other.here.get(), readable,
      [&](int fd, unsigned) {
        called.push_back(fd);
        runner.drained(fd, readable);
      },
      Trigger::cached);
  restless.feed("x");
  other.feed("x");
  turn();
  const int a = restless.here.get();
  EXPECT_EQ(called, (std::vector<int>{a, a, other.here.get(), a, a, a, a}));
}

TEST_F(EpollRunnerTest, BytesAreAnnouncedToTheFirstReadAfterTheWaitThatSawThem) {
  const Pair pair;
  std::vector<bool> announced;
  const auto read = [&](int fd, unsigned) {
    announced.push_back(runner.announced());
    if (readSome(fd, 1).empty()) runner.drained(fd, readable);
  };
  ASSERT_TRUE(runner.addNonBlocking(pair.here.get(), readable, read));
  fcntl(pair.here.get(), F_SETFL, O_NONBLOCK);
  pair.feed("x");
  turn();
  EXPECT_EQ(announced, (std::vector<bool>{true, false})) << "what the kernel is asked before";
  EXPECT_FALSE(runner.announced());
  const std::uint64_t waits = runner.waits();
  announced.clear();
  pair.feed("xx");
  turn();
  EXPECT_EQ(announced, (std::vector<bool>{true, false, false}));
  EXPECT_EQ(runner.waits(), waits + 1);
}

TEST_F(EpollRunnerTest, NothingIsAnnouncedToASocketThatTheKernelDoesNotKnowYet) {
  const Pair pair;
  const Pair late;
  std::vector<bool> announced;
  runner.addSocket(pair.here.get(), readable, [&](int fd, unsigned) {
    readSome(fd);
    late.feed("x");
    EXPECT_TRUE(runner.addNonBlocking(late.here.get(), readable, [&](int other, unsigned) {
      announced.push_back(runner.announced());
      readSome(other);
      runner.drained(other, readable);
    }));
  });
  pair.feed("x");
  turn();
  EXPECT_EQ(announced, std::vector<bool>{false});
}

TEST_F(EpollRunnerTest, ASocketThatWasFullIsToldWhenThereIsRoom) {
  const Pair pair;
  const std::string much(65536, 'x');
  std::size_t written = 0;
  bool full = false;
  ASSERT_TRUE(runner.addSocket(
      pair.here.get(), writable,
      [&](int fd, unsigned events) {
        told.push_back(events);
        const ssize_t count = write(fd, much.data(), much.size());
        full = count < 0;
        if (full) runner.drained(fd, writable);
        written += full ? 0 : static_cast<std::size_t>(count);
      },
      Trigger::cached));
  EXPECT_TRUE(runner.isReady(pair.here.get(), writable));
  EXPECT_FALSE(runner.isReady(pair.here.get(), readable | writable));
  while (!full)
    turn();
  EXPECT_FALSE(runner.isReady(pair.here.get(), writable));
  told.clear();
  turn();
  EXPECT_EQ(told, nothing);
  for (std::size_t got = 0; got < written;)
    got += readSome(pair.there.get(), much.size()).size();
  turn();
  EXPECT_FALSE(told.empty());
  EXPECT_TRUE(runner.isReady(pair.here.get(), writable));
}

TEST_F(EpollRunnerTest, NothingIsKnownToBeReadyOfALevelSocket) {
  const Pair pair;
  runner.addSocket(pair.here.get(), writable, note());
  turn();
  EXPECT_FALSE(told.empty());
  EXPECT_FALSE(runner.isReady(pair.here.get(), writable));
  EXPECT_FALSE(runner.isReady(pair.there.get(), writable));
  EXPECT_FALSE(runner.isReady(-1, writable));
}

TEST_F(EpollRunnerTest, InterestThatComesLaterMeetsRememberedReadiness) {
  const Pair pair;
  pair.feed("x");
  runner.addSocket(pair.here.get(), 0, note(), Trigger::cached);
  turn();
  EXPECT_EQ(told, nothing);
  runner.changeSocket(pair.here.get(), readable | writable);
  turn();
  EXPECT_EQ(told.front(), readable | writable);
}

TEST_F(EpollRunnerTest, InterestThatGoesBeforeTheCallSavesTheCall) {
  const Pair first;
  const Pair second;
  runner.addSocket(
      first.here.get(), readable,
      [&](int fd, unsigned) {
        runner.changeSocket(fd, 0);
        runner.changeSocket(second.here.get(), 0);
      },
      Trigger::cached);
  runner.addSocket(second.here.get(), readable, note(), Trigger::cached);
  first.feed("x");
  second.feed("x");
  turn();
  EXPECT_EQ(told, nothing);
}

TEST_F(EpollRunnerTest, ALevelSocketIsNotToldOfWhatWasBefore) {
  const Pair first;
  const Pair second;
  first.feed("x");
  runner.addSocket(
      first.here.get(), 0, [&](int, unsigned) { runner.changeSocket(second.here.get(), 0); }, Trigger::cached);
  runner.addSocket(second.here.get(), readable, note());
  turn();
  runner.changeSocket(first.here.get(), readable);  // known to be ready, so it is called before the other one
  second.feed("x");
  turn();
  EXPECT_EQ(told, nothing);
  EXPECT_EQ(readSome(second.here.get()), "x");
  runner.changeSocket(first.here.get(), 0);
  runner.changeSocket(second.here.get(), readable | writable);
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{writable});
}

TEST_F(EpollRunnerTest, TheEndIsToldAfterAShortReadSaidDrained) {
  Pair pair;
  std::vector<std::string> got;
  const auto read = [&](int fd, unsigned) {
    got.push_back(readSome(fd));
    if (got.back().empty()) {
      runner.removeSocket(fd);
    } else {
      runner.drained(fd, readable);
    }
  };
  runner.addSocket(pair.here.get(), readable, read, Trigger::cached);
  pair.feed("last words");
  ASSERT_EQ(shutdown(pair.there.get(), SHUT_WR), 0);
  turn();
  turn();
  EXPECT_EQ(got, (std::vector<std::string>{"last words", ""}));
}

TEST_F(EpollRunnerTest, AHalfClosedPeerCanStillBeWrittenTo) {
  Pair pair;
  runner.addSocket(pair.here.get(), 0, note(), Trigger::cached);
  ASSERT_EQ(shutdown(pair.there.get(), SHUT_WR), 0);
  turn();
  EXPECT_EQ(told, nothing);
  runner.changeSocket(pair.here.get(), writable);
  turn();
  ASSERT_FALSE(told.empty());
  EXPECT_EQ(told.front(), writable);
}

TEST_F(EpollRunnerTest, AHangUpIsToldOnceWhateverTheMask) {
  Pair pair;
  runner.addSocket(pair.here.get(), 0, note(), Trigger::cached);
  turn();
  pair.there.reset();
  turn();
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{hangUp});
  runner.changeSocket(pair.here.get(), writable);
  turn();
  EXPECT_EQ(told[1], writable | hangUp);  // the write will say so too
}

TEST_F(EpollRunnerTest, AnErrorIsToldAsReadinessOfWhatIsWanted) {
  const UniqueFd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  {  // a port that nobody listens on any more
    const UniqueFd other(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    auto* const any = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(bind(other.get(), any, sizeof address), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(other.get(), any, &length), 0);
  }
  ASSERT_EQ(connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  const auto read = [&](int fd, unsigned events) {
    told.push_back(events);
    char byte = 0;
    EXPECT_EQ(::read(fd, &byte, 1), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    runner.removeSocket(fd);
  };
  runner.addSocket(socket.get(), readable, read, Trigger::cached);
  ASSERT_EQ(write(socket.get(), "x", 1), 1);
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{readable});
}

TEST_F(EpollRunnerTest, UnknownSocketsAreRefused) {
  Pair pair;
  EXPECT_FALSE(runner.changeSocket(-1, readable));
  EXPECT_FALSE(runner.changeSocket(pair.here.get(), readable));
  EXPECT_FALSE(runner.removeSocket(-1));
  EXPECT_FALSE(runner.removeSocket(pair.here.get()));
  EXPECT_FALSE(runner.addSocket(-1, readable, note()));
  runner.drained(-1, readable);
  EXPECT_TRUE(runner.addSocket(pair.here.get(), readable, note()));
  EXPECT_FALSE(runner.addSocket(pair.here.get(), readable, note()));
  EXPECT_TRUE(runner.removeSocket(pair.here.get()));
  const UniqueFd file(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
  EXPECT_FALSE(runner.addSocket(file.get(), readable, note()));
}

TEST_F(EpollRunnerTest, RemovingAfterTheCloseIsHarmless) {
  Pair pair;
  const int number = pair.here.get();
  runner.addSocket(number, readable, note(), Trigger::cached);
  pair.feed("x");
  pair.here.reset();
  EXPECT_TRUE(runner.removeSocket(number));
  turn();
  EXPECT_EQ(told, nothing);
}

TEST_F(EpollRunnerTest, AForgottenSocketLeavesItsNumberFree) {
  Pair pair;
  const int number = pair.here.get();
  runner.addSocket(number, readable, note(), Trigger::cached);
  pair.feed("x");
  EXPECT_TRUE(runner.forgetSocket(number));
  EXPECT_FALSE(runner.forgetSocket(number));
  pair.here.reset();
  Pair next;
  ASSERT_EQ(next.here.get(), number);
  EXPECT_TRUE(runner.addSocket(number, readable, note(), Trigger::cached));
  turn();
  EXPECT_EQ(told, nothing);
  next.feed("y");
  turn();
  EXPECT_EQ(told.front(), readable);
}

TEST_F(EpollRunnerTest, ANewNonBlockingSocketIsTakenForReadyUntilItSaysOtherwise) {
  const Pair pair;
  const auto drain = [this](int fd, unsigned events) {
    told.push_back(events);
    runner.drained(fd, readable);
  };
  EXPECT_TRUE(runner.addNonBlocking(pair.here.get(), readable, drain));
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{readable}));
  turn();
  EXPECT_EQ(told.size(), 1U);
  pair.feed("x");
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{readable, readable}));
}

TEST_F(EpollRunnerTest, ANewNonBlockingSocketMayWantNothingAndIsStillToldOfAHangUp) {
  Pair pair;
  EXPECT_TRUE(runner.addNonBlocking(pair.here.get(), 0, note()));
  turn();
  EXPECT_EQ(told, nothing);
  pair.there.reset();
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{hangUp}));
}

TEST_F(EpollRunnerTest, ANewNonBlockingSocketMayGoBeforeTheKernelKnewIt) {
  Pair pair;
  const int number = pair.here.get();
  EXPECT_TRUE(runner.addNonBlocking(number, readable, note()));
  EXPECT_FALSE(runner.addNonBlocking(number, readable, note()));
  pair.here.reset();
  EXPECT_TRUE(runner.forgetSocket(number));
  turn();
  EXPECT_EQ(told, nothing);
  EXPECT_FALSE(runner.changeSocket(number, writable));
}

TEST_F(EpollRunnerTest, WhatTheKernelDoesNotWatchHasHungUp) {
  const UniqueFd file(open("/proc/self/stat", O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(file);
  EXPECT_TRUE(runner.addNonBlocking(file.get(), 0, note()));
  turn();
  EXPECT_EQ(told, (std::vector<unsigned>{hangUp}));
}

// Both sockets are ready in one batch; whichever is called first replaces the other by a new one of the same number.
TEST_F(EpollRunnerTest, AnEventOfTheOldSocketNeverReachesTheNewOne) {
  for (const Trigger trigger : {Trigger::level, Trigger::cached}) {
    std::array<Pair, 2> pairs;
    Pair fresh;
    int newCalls = 0;
    bool replaced = false;
    for (std::size_t i = 0; i < 2; ++i) {
      const auto replaceOther = [&, i](int, unsigned) {
        if (std::exchange(replaced, true)) return;
        const int number = pairs[1 - i].here.get();
        runner.removeSocket(number);
        pairs[1 - i].here.reset();
        ASSERT_EQ(dup3(fresh.here.get(), number, O_CLOEXEC), number);
        pairs[1 - i].here.reset(number);
        runner.addSocket(
            number, readable, [&](int, unsigned) { ++newCalls; }, trigger);
      };
      runner.addSocket(pairs[i].here.get(), readable, replaceOther, trigger);
      pairs[i].feed("x");
    }
    turn();
    EXPECT_TRUE(replaced);
    EXPECT_EQ(newCalls, 0);
    fresh.feed("y");
    turn();
    EXPECT_GT(newCalls, 0);
    for (const Pair& pair : pairs)
      runner.removeSocket(pair.here.get());
  }
}

TEST_F(EpollRunnerTest, ACallbackMayDestroyWhatItIsBoundTo) {
  struct Owner {
    Owner(EpollRunner& r, std::vector<unsigned>& t) : runner(r), told(t) {}
    ~Owner() { runner.removeSocket(pair.here.get()); }
    EpollRunner& runner;
    std::vector<unsigned>& told;
    Pair pair;
    std::string name = "a name that is longer than any small string";
  };
  auto owner = std::make_unique<Owner>(runner, told);
  owner->pair.feed("x");
  const auto watch = std::make_shared<int>(1);
  runner.addSocket(
      owner->pair.here.get(), readable,
      [&owner, watch](int, unsigned events) {
        owner->told.push_back(events);
        owner.reset();
        EXPECT_EQ(*watch, 1);  // the callable itself lives until it returns
      },
      Trigger::cached);
  turn();
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{readable});
  EXPECT_EQ(watch.use_count(), 1);
}

TEST_F(EpollRunnerTest, ACallbackMayAddManySockets) {
  const Pair pair;
  std::vector<std::unique_ptr<Pair>> more;
  runner.addSocket(
      pair.here.get(), readable,
      [&](int fd, unsigned) {
        readSome(fd);
        runner.drained(fd, readable);
        for (int i = 0; i < 200; ++i) {
          more.push_back(std::make_unique<Pair>());
          more.back()->feed("x");
          EXPECT_TRUE(runner.addSocket(more.back()->here.get(), readable, [&](int other, unsigned events) {
            told.push_back(events);
            readSome(other);
          }));
        }
      },
      Trigger::cached);
  pair.feed("x");
  for (int i = 0; i < 10; ++i)
    turn();
  EXPECT_EQ(told, std::vector<unsigned>(200, readable));
  pair.feed("y");
  for (int i = 0; i < 10; ++i)
    turn();
  EXPECT_EQ(more.size(), 400U);
}

TEST_F(EpollRunnerTest, ASocketThatNeverDrainsDoesNotKeepOthersWaiting) {
  const Pair greedy;
  const Pair modest;
  greedy.feed("x");
  runner.addSocket(
      greedy.here.get(), readable, [](int, unsigned) {}, Trigger::cached);
  for (int i = 0; i < 3; ++i)
    turn();
  runner.addSocket(modest.here.get(), readable, note());
  modest.feed("x");
  turn();
  EXPECT_EQ(told, std::vector<unsigned>{readable});
}

TEST_F(EpollRunnerTest, TheWaitEndsWithTheNextTimer) {
  bool ran = false;
  runner.addTimer(5, [&] { ran = true; });
  while (!ran)
    ASSERT_TRUE(runner.turn(true));
  EXPECT_FALSE(runner.timers().nextDeadline().has_value());
}

TEST_F(EpollRunnerTest, ATimerThatArmsItselfAtOnceLeavesSocketsTheirTurn) {
  const Pair pair;
  runner.addSocket(pair.here.get(), readable, note());
  Timer timer;
  int runs = 0;
  timer.setCallback([&] {
    if (++runs == 2) pair.feed("x");
    timer.start(runner.timers(), 0);
  });
  timer.start(runner.timers(), 0);
  for (int i = 0; i < 3; ++i)
    ASSERT_TRUE(runner.turn(true));
  EXPECT_EQ(runs, 3);
  EXPECT_EQ(told, std::vector<unsigned>{readable});
}

}  // namespace
}  // namespace tn
