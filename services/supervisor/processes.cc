#include "services/supervisor/processes.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace tnrun {
namespace {

// Between fork and exec: undoes what this program set for itself, and says nothing but what went wrong.
[[noreturn]] void becomeProgram(const char* path, pid_t parent, int report) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  setpgid(0, 0);
  // The parent may have ended before this was set; nobody would end this process then.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(1);
  dup2(STDOUT_FILENO, STDERR_FILENO);
  close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);

  char* const arguments[] = {const_cast<char*>(path), nullptr};
  execv(path, arguments);
  const int reason = errno;
  static_cast<void>(write(report, &reason, sizeof reason));
  _exit(127);
}

}  // namespace

std::expected<pid_t, int> RealProcesses::start(const std::string& path) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(errno);
  const UniqueFd readEnd(ends[0]);
  UniqueFd writeEnd(ends[1]);

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) return std::unexpected(errno);
  if (pid == 0) becomeProgram(path.c_str(), parent, writeEnd.get());

  // The pipe ends without a word when the program was started.
  writeEnd.reset();
  int reason = 0;
  ssize_t got = 0;
  do {
    got = read(readEnd.get(), &reason, sizeof reason);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof reason)) return pid;
  waitpid(pid, nullptr, 0);
  return std::unexpected(reason);
}

void RealProcesses::signal(pid_t pid, int number) {
  kill(pid, number);
}

}  // namespace tnrun
