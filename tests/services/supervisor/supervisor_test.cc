#include "services/supervisor/supervisor.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/fake_runner.h"

namespace tnrun {
namespace {

struct Signal {
  pid_t pid;
  int number;
  friend bool operator==(const Signal&, const Signal&) = default;
};

// Hands out process ids from 101 up.
class FakeProcesses : public Processes {
 public:
  std::expected<Started, int> start(const std::string& path) override {
    started.push_back(path);
    if (refuse != 0) return std::unexpected(refuse);
    return Started{++last, UniqueFd(), UniqueFd()};
  }
  void signal(pid_t pid, int number) override { signals.push_back({pid, number}); }

  std::vector<std::string> started;
  std::vector<Signal> signals;
  int refuse = 0;
  pid_t last = 100;
};

// Notes what it is told.
class FakeListener : public Listener {
 public:
  void began(std::size_t program, UniqueFd, UniqueFd) override { told.push_back("began " + std::to_string(program)); }
  void ended(std::size_t program) override { told.push_back("ended " + std::to_string(program)); }
  void say(Stream stream, std::string_view line) override {
    told.push_back((stream == Stream::errors ? "! " : ": ") + std::string(line));
  }

  std::vector<std::string> told;
};

// Everybody answers at once who is in `alive`.
class FakeEnquiry : public Enquiry {
 public:
  void ask(const Answered& answered) override {
    ++asked;
    for (const std::size_t program : alive)
      answered(program);
  }

  std::vector<std::size_t> alive = {0, 1, 2};
  int asked = 0;
};

constexpr pid_t busd = 101;
constexpr pid_t sermgr = 102;
constexpr pid_t www = 103;
constexpr pid_t next = 104;
// Statuses as waitpid gives them.
constexpr int endedWell = 0;
constexpr int crashed = SIGSEGV;

class SupervisorTest : public ::testing::Test {
 protected:
  SupervisorTest() { supervisor.start(); }

  const std::vector<Program> programs = {{"busd", "/bin/busd"}, {"sermgr", "/bin/sermgr"}, {"www", "/bin/www"}};
  tn::fakes::FakeRunner runner;
  FakeProcesses processes;
  FakeEnquiry enquiry;
  FakeListener listener;
  int allStopped = 0;
  Supervisor supervisor{programs, 0, runner, processes, enquiry, listener, [this] { ++allStopped; }};
};

using Paths = std::vector<std::string>;
using Signals = std::vector<Signal>;

TEST_F(SupervisorTest, StartsAllInOrder) {
  EXPECT_EQ(processes.started, (Paths{"/bin/busd", "/bin/sermgr", "/bin/www"}));
}

TEST_F(SupervisorTest, StartsAgainWhatEnded) {
  supervisor.onEnded(www, crashed);
  runner.advance(RestartPause::firstMs - 1);
  EXPECT_EQ(processes.started.size(), 3U);
  runner.advance(1);
  EXPECT_EQ(processes.started.back(), "/bin/www");
  EXPECT_EQ(processes.started.size(), 4U);
}

TEST_F(SupervisorTest, AProgramThatEndsByItselfIsStartedAgainToo) {
  supervisor.onEnded(sermgr, endedWell);
  runner.advance(RestartPause::firstMs);
  EXPECT_EQ(processes.started.back(), "/bin/sermgr");
}

TEST_F(SupervisorTest, ThePauseGrowsWhileAProgramKeepsEnding) {
  supervisor.onEnded(www, crashed);
  runner.advance(RestartPause::firstMs);
  supervisor.onEnded(next, crashed);
  runner.advance(2 * RestartPause::firstMs - 1);
  EXPECT_EQ(processes.started.size(), 4U);
  runner.advance(1);
  EXPECT_EQ(processes.started.size(), 5U);
}

TEST_F(SupervisorTest, AProgramThatCannotBeStartedIsTriedAgain) {
  processes.refuse = ENOENT;
  supervisor.onEnded(www, crashed);
  runner.advance(RestartPause::firstMs);
  EXPECT_EQ(processes.started.size(), 4U);
  processes.refuse = 0;
  runner.advance(2 * RestartPause::firstMs);
  EXPECT_EQ(processes.started.size(), 5U);
  supervisor.stop();
  EXPECT_EQ(processes.signals, (Signals{{next, SIGTERM}}));
}

TEST_F(SupervisorTest, SomebodysOrphanChangesNothing) {
  supervisor.onEnded(999, crashed);
  runner.advance(60'000);
  EXPECT_EQ(processes.started.size(), 3U);
}

TEST_F(SupervisorTest, KillsWhatDoesNotAnswer) {
  enquiry.alive = {0, 1};
  runner.advance(Vigil::patience * Supervisor::roundMs);
  EXPECT_EQ(processes.signals, Signals{});
  runner.advance(Supervisor::roundMs);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGKILL}}));
  enquiry.alive = {0, 1, 2};
  supervisor.onEnded(www, SIGKILL);
  runner.advance(60'000);
  EXPECT_EQ(processes.started.size(), 4U);
  EXPECT_EQ(processes.signals.size(), 1U);
}

TEST_F(SupervisorTest, ASilentBrokerIsKilledAndNobodyElse) {
  enquiry.alive = {};
  runner.advance(Vigil::patience * Supervisor::roundMs);
  EXPECT_EQ(processes.signals, (Signals{{busd, SIGKILL}}));
}

TEST_F(SupervisorTest, AnsweringProgramsAreLeftAlone) {
  runner.advance(600'000);
  EXPECT_EQ(processes.signals, Signals{});
  EXPECT_EQ(enquiry.asked, 300);
}

TEST_F(SupervisorTest, StopsInReverseOrderOneAfterTheOther) {
  supervisor.stop();
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}}));
  supervisor.onEnded(www, endedWell);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}, {sermgr, SIGTERM}}));
  supervisor.onEnded(sermgr, endedWell);
  EXPECT_EQ(allStopped, 0);
  supervisor.onEnded(busd, endedWell);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}, {sermgr, SIGTERM}, {busd, SIGTERM}}));
  EXPECT_EQ(allStopped, 1);
}

TEST_F(SupervisorTest, KillsWhatDoesNotEndInTime) {
  supervisor.stop();
  runner.advance(Supervisor::farewellMs - 1);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}}));
  runner.advance(1);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}, {www, SIGKILL}}));
  supervisor.onEnded(www, SIGKILL);
  EXPECT_EQ(processes.signals.back(), (Signal{sermgr, SIGTERM}));
}

TEST_F(SupervisorTest, WhatEndsOutOfTurnWhileStoppingIsNotStartedAgain) {
  supervisor.stop();
  supervisor.onEnded(sermgr, crashed);
  supervisor.onEnded(www, endedWell);
  EXPECT_EQ(processes.signals.back(), (Signal{busd, SIGTERM}));
  supervisor.onEnded(busd, endedWell);
  EXPECT_EQ(allStopped, 1);
  runner.advance(60'000);
  EXPECT_EQ(processes.started.size(), 3U);
}

TEST_F(SupervisorTest, WhatWaitsForItsRestartIsNotStartedWhileStopping) {
  supervisor.onEnded(www, crashed);
  supervisor.stop();
  EXPECT_EQ(processes.signals, (Signals{{sermgr, SIGTERM}}));
  runner.advance(RestartPause::firstMs);
  EXPECT_EQ(processes.started.size(), 3U);
}

TEST_F(SupervisorTest, ASecondStopChangesNothing) {
  supervisor.stop();
  supervisor.stop();
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}}));
}

TEST_F(SupervisorTest, TheWatchdogIsOffWhileStopping) {
  enquiry.alive = {};
  supervisor.stop();
  const int asked = enquiry.asked;
  runner.advance(60'000);
  EXPECT_EQ(enquiry.asked, asked);
  EXPECT_EQ(processes.signals, (Signals{{www, SIGTERM}, {www, SIGKILL}}));
}

TEST_F(SupervisorTest, TheListenerIsToldInOrder) {
  EXPECT_EQ(listener.told, (std::vector<std::string>{": tnrun: started busd, process 101", "began 0",
                                                     ": tnrun: started sermgr, process 102", "began 1",
                                                     ": tnrun: started www, process 103", "began 2"}));
  listener.told.clear();
  supervisor.onEnded(www, crashed);
  // The last words come first.
  EXPECT_EQ(listener.told,
            (std::vector<std::string>{"ended 2", "! tnrun: www was ended by signal 11, starting again in 200 ms"}));
  listener.told.clear();
  runner.advance(RestartPause::firstMs);
  EXPECT_EQ(listener.told, (std::vector<std::string>{": tnrun: started www, process 104", "began 2"}));
}

TEST_F(SupervisorTest, WhatEndsWhileStoppingHasLastWordsToo) {
  supervisor.stop();
  listener.told.clear();
  supervisor.onEnded(www, endedWell);
  EXPECT_EQ(listener.told, std::vector<std::string>{"ended 2"});
}

TEST_F(SupervisorTest, TheConditionOfAProgram) {
  runner.advance(500);
  EXPECT_EQ(supervisor.condition(2).pid, www);
  EXPECT_EQ(supervisor.condition(2).startedAgain, 0U);
  EXPECT_EQ(supervisor.condition(2).runningMs, 500U);
  EXPECT_FALSE(supervisor.condition(2).answers);
  runner.advance(Supervisor::roundMs);
  EXPECT_TRUE(supervisor.condition(2).answers);

  supervisor.onEnded(www, crashed);
  EXPECT_EQ(supervisor.condition(2).pid, 0);
  EXPECT_EQ(supervisor.condition(2).runningMs, 0U);
  EXPECT_FALSE(supervisor.condition(2).answers);
  runner.advance(RestartPause::firstMs + 7);
  EXPECT_EQ(supervisor.condition(2).pid, next);
  EXPECT_EQ(supervisor.condition(2).startedAgain, 1U);
  EXPECT_EQ(supervisor.condition(2).runningMs, 7U);
  EXPECT_EQ(supervisor.condition(1).startedAgain, 0U);
}

TEST_F(SupervisorTest, SilenceShowsInTheConditionBeforeItIsTooLong) {
  runner.advance(2 * Supervisor::roundMs);
  enquiry.alive = {0, 1};
  runner.advance(2 * Supervisor::roundMs);
  EXPECT_FALSE(supervisor.condition(2).answers);
  EXPECT_TRUE(supervisor.condition(1).answers);
  EXPECT_EQ(processes.signals, Signals{});
}

TEST_F(SupervisorTest, AnAttemptThatFailedIsNoStart) {
  processes.refuse = ENOENT;
  supervisor.onEnded(www, crashed);
  runner.advance(RestartPause::firstMs);
  EXPECT_EQ(supervisor.condition(2).startedAgain, 0U);
  processes.refuse = 0;
  runner.advance(2 * RestartPause::firstMs);
  EXPECT_EQ(supervisor.condition(2).startedAgain, 1U);
}

}  // namespace
}  // namespace tnrun
