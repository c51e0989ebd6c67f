#include "services/supervisor/processes.h"

#include <cerrno>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace tnrun {
namespace {

// A script as a program, since programs are started without arguments.
class ProcessesTest : public ::testing::Test {
 protected:
  ProcessesTest() {
    char name[] = "/tmp/tnprocXXXXXX";
    folder = mkdtemp(name);
  }
  ~ProcessesTest() override {
    unlink(script().c_str());
    rmdir(folder.c_str());
  }

  [[nodiscard]] std::string script() const { return folder + "/program"; }
  std::expected<pid_t, int> startScript(const std::string& text) {
    std::ofstream(script()) << "#!/bin/sh\n" << text << "\n";
    chmod(script().c_str(), 0755);
    return processes.start(script());
  }
  static int statusOf(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    return status;
  }
  // Runs the script and gives its exit status.
  int run(const std::string& text) {
    const auto pid = startScript(text);
    EXPECT_TRUE(pid.has_value());
    return pid ? WEXITSTATUS(statusOf(*pid)) : -1;
  }

  std::string folder;
  RealProcesses processes;
};

TEST_F(ProcessesTest, StartsAProgram) {
  EXPECT_EQ(run("exit 7"), 7);
}

TEST_F(ProcessesTest, AProgramThatIsNotThereIsToldAndLeavesNoChild) {
  const auto pid = processes.start("/nowhere/program");
  ASSERT_FALSE(pid.has_value());
  EXPECT_EQ(pid.error(), ENOENT);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ProcessesTest, AFileThatIsNoProgramIsTold) {
  const auto pid = processes.start(folder);
  ASSERT_FALSE(pid.has_value());
  EXPECT_EQ(pid.error(), EACCES);
}

TEST_F(ProcessesTest, AProgramHasAGroupOfItsOwn) {
  const auto pid = startScript("exec sleep 60");
  ASSERT_TRUE(pid.has_value());
  EXPECT_EQ(getpgid(*pid), *pid);
  processes.signal(*pid, SIGTERM);
  const int status = statusOf(*pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(ProcessesTest, AProgramInheritsNoDescriptorButTheFirstThree) {
  const int extra = dup(STDOUT_FILENO);
  ASSERT_GE(extra, 3);
  EXPECT_EQ(run("test ! -e /proc/self/fd/" + std::to_string(extra)), 0);
  close(extra);
}

TEST_F(ProcessesTest, StandardErrorGoesWhereTheLogGoes) {
  EXPECT_EQ(run("test \"$(readlink /proc/$$/fd/1)\" = \"$(readlink /proc/$$/fd/2)\""), 0);
}

TEST_F(ProcessesTest, ASignalThatIsBlockedOrIgnoredHereIsNotThere) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGTERM, SIGPIPE}) {
    const auto pid = startScript("exec sleep 60");
    ASSERT_TRUE(pid.has_value());
    processes.signal(*pid, number);
    const int status = statusOf(*pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), number);
  }
  ::signal(SIGPIPE, SIG_DFL);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace
}  // namespace tnrun
