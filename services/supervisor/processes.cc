#include "services/supervisor/processes.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

#include "platform/unique_fd.h"

namespace tnrun {
namespace {

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};

std::expected<Pipe, int> makePipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return std::unexpected(errno);
  return Pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

// The pipes between this program and one that it starts.
struct Pipes {
  Pipe report;  // what went wrong between fork and exec
  Pipe output;
  Pipe errors;
};

std::expected<Pipes, int> makePipes() {
  auto report = makePipe();
  if (!report) return std::unexpected(report.error());
  auto output = makePipe();
  if (!output) return std::unexpected(output.error());
  auto errors = makePipe();
  if (!errors) return std::unexpected(errors.error());
  fcntl(output->writeEnd.get(), F_SETPIPE_SZ, RealProcesses::pipeBytes);
  return Pipes{std::move(*report), std::move(*output), std::move(*errors)};
}

// What a program cannot be let run without: else it would outlive this one, or write in its name. `dup2` gives the
// pipes in the place of standard output and error to the program; their other numbers end with it.
bool prepareProgram(const Pipes& pipes) {
  return setpgid(0, 0) == 0 && prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 &&
         dup2(pipes.output.writeEnd.get(), STDOUT_FILENO) >= 0 && dup2(pipes.errors.writeEnd.get(), STDERR_FILENO) >= 0;
}

// Between fork and exec: undoes what this program set for itself, and says nothing but what went wrong.
[[noreturn]] void becomeProgram(const char* path, pid_t parent, const Pipes& pipes) {
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  ::signal(SIGPIPE, SIG_DFL);
  ::signal(SIGXFSZ, SIG_DFL);
  if (prepareProgram(pipes)) {
    // The parent may have ended before this was to end with it; nobody would end this process then.
    if (getppid() != parent) _exit(1);
    // What this program has opened itself is closed in any case.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    char* const arguments[] = {const_cast<char*>(path), nullptr};
    execv(path, arguments);
  }
  const int reason = errno;
  static_cast<void>(write(pipes.report.writeEnd.get(), &reason, sizeof reason));
  _exit(127);
}

}  // namespace

std::expected<Started, int> RealProcesses::start(const std::string& path) {
  auto pipes = makePipes();
  if (!pipes) return std::unexpected(pipes.error());

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) return std::unexpected(errno);
  if (pid == 0) becomeProgram(path.c_str(), parent, *pipes);

  // The pipe ends without a word when the program was started.
  pipes->report.writeEnd.reset();
  int reason = 0;
  ssize_t got = 0;
  do {
    got = read(pipes->report.readEnd.get(), &reason, sizeof reason);
  } while (got < 0 && errno == EINTR);
  if (got != static_cast<ssize_t>(sizeof reason)) {
    return Started{pid, std::move(pipes->output.readEnd), std::move(pipes->errors.readEnd)};
  }
  while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
  }
  return std::unexpected(reason);
}

void RealProcesses::signal(pid_t pid, int number) {
  kill(pid, number);
}

}  // namespace tnrun
