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
  std::expected<pid_t, int> start(const std::string& path) override {
    started.push_back(path);
    if (refuse != 0) return std::unexpected(refuse);
    return ++last;
  }
  void signal(pid_t pid, int number) override { signals.push_back({pid, number}); }

  std::vector<std::string> started;
  std::vector<Signal> signals;
  int refuse = 0;
  pid_t last = 100;
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
  int allStopped = 0;
  Supervisor supervisor{programs, 0, runner, processes, enquiry, [this] { ++allStopped; }};
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

}  // namespace
}  // namespace tnrun
