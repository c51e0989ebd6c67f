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
  std::expected<Started, int> startScript(const std::string& text) {
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
    const auto started = startScript(text);
    EXPECT_TRUE(started.has_value());
    return started ? WEXITSTATUS(statusOf(started->pid)) : -1;
  }
  // All that comes out of a pipe until it ends.
  static std::string readAll(const UniqueFd& fd) {
    std::string all;
    std::string part(65536, '\0');
    for (ssize_t count = 1; count > 0;) {
      count = read(fd.get(), part.data(), part.size());
      if (count > 0) all.append(part, 0, static_cast<std::size_t>(count));
    }
    return all;
  }

  std::string folder;
  RealProcesses processes;
};

TEST_F(ProcessesTest, StartsAProgram) {
  EXPECT_EQ(run("exit 7"), 7);
}

TEST_F(ProcessesTest, AProgramThatIsNotThereIsToldAndLeavesNoChild) {
  const auto started = processes.start("/nowhere/program");
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), ENOENT);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(ProcessesTest, AFileThatIsNoProgramIsTold) {
  const auto started = processes.start(folder);
  ASSERT_FALSE(started.has_value());
  EXPECT_EQ(started.error(), EACCES);
}

TEST_F(ProcessesTest, AProgramHasAGroupOfItsOwn) {
  const auto started = startScript("exec sleep 60");
  ASSERT_TRUE(started.has_value());
  EXPECT_EQ(getpgid(started->pid), started->pid);
  processes.signal(started->pid, SIGTERM);
  const int status = statusOf(started->pid);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

TEST_F(ProcessesTest, AProgramInheritsNoDescriptorButTheFirstThree) {
  const int extra = dup(STDOUT_FILENO);
  ASSERT_GE(extra, 3);
  EXPECT_EQ(run("test ! -e /proc/self/fd/" + std::to_string(extra)), 0);
  close(extra);
}

TEST_F(ProcessesTest, WhatItWritesComesThroughPipesOfItsOwn) {
  const auto started = startScript("echo log; echo trouble >&2");
  ASSERT_TRUE(started.has_value());
  EXPECT_EQ(readAll(started->output), "log\n");
  EXPECT_EQ(readAll(started->errors), "trouble\n");
  EXPECT_EQ(statusOf(started->pid), 0);
}

TEST_F(ProcessesTest, AFloodLosesNothing) {
  const auto started = startScript("seq 1 100000");
  ASSERT_TRUE(started.has_value());
  std::string expected;
  for (int i = 1; i <= 100000; ++i)
    expected += std::to_string(i) + "\n";
  EXPECT_TRUE(readAll(started->output) == expected);
  EXPECT_EQ(statusOf(started->pid), 0);
}

TEST_F(ProcessesTest, ThePipesEndWithTheProgram) {
  const auto started = startScript("exec sleep 60");
  ASSERT_TRUE(started.has_value());
  processes.signal(started->pid, SIGKILL);
  statusOf(started->pid);
  EXPECT_EQ(readAll(started->output), "");
  EXPECT_EQ(readAll(started->errors), "");
}

TEST_F(ProcessesTest, ASignalThatIsBlockedOrIgnoredHereIsNotThere) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  ::signal(SIGPIPE, SIG_IGN);
  for (const int number : {SIGTERM, SIGPIPE}) {
    const auto started = startScript("exec sleep 60");
    ASSERT_TRUE(started.has_value());
    processes.signal(started->pid, number);
    const int status = statusOf(started->pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), number);
  }
  ::signal(SIGPIPE, SIG_DFL);
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace
}  // namespace tnrun
