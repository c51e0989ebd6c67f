#include <algorithm>
#include <cerrno>
#include <csignal>
#include <expected>
#include <optional>
#include <string>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "platform/bus/looper.h"
#include "platform/log.h"
#include "platform/standard_streams.h"
#include "platform/unique_fd.h"
#include "services/common/file_text.h"
#include "services/supervisor/enquiry.h"
#include "services/supervisor/journal.h"
#include "services/supervisor/log_handler.h"
#include "services/supervisor/log_keeper.h"
#include "services/supervisor/notifier.h"
#include "services/supervisor/outlet.h"
#include "services/supervisor/processes.h"
#include "services/supervisor/program_handler.h"
#include "services/supervisor/program_list.h"
#include "services/supervisor/supervisor.h"

// tnrun, the first program of the image: keeps the programs of /tarn/etc/programs running until SIGTERM or SIGINT.

namespace {

constexpr char listPath[] = "/tarn/etc/programs";
constexpr std::size_t maxListBytes = 64U << 10U;
constexpr std::string_view brokerName = "busd";
constexpr unsigned busId = 2;
constexpr std::uint32_t notifierId = 3;  // its place as a handler; nobody has anything to say to it
// How long the reader of the log may take at the end.
constexpr int drainMs = 1000;

bool isLeftOut(const tnrun::Program& program) {
  if (!program.optional || access(program.path.c_str(), F_OK) == 0 || errno != ENOENT) return false;
  logLine("tnrun: ", program.name, " is not installed");
  return true;
}

std::optional<std::vector<tnrun::Program>> readPrograms() {
  const std::optional<std::string> text = service::readFile(listPath, maxListBytes);
  if (!text) {
    logSystemError(listPath);
    return std::nullopt;
  }
  auto programs = tnrun::parseProgramList(*text);
  if (!programs) {
    logLine(listPath, ":", NumberText(programs.error().line), ": ", programs.error().reason);
    return std::nullopt;
  }
  std::erase_if(*programs, isLeftOut);
  return std::move(*programs);
}

// The signals that the supervisor takes as events, blocked for everything else.
UniqueFd takeSignals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGCHLD, SIGTERM, SIGINT})
    sigaddset(&set, number);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

void reapChildren(tnrun::Supervisor& supervisor) {
  int status = 0;
  for (pid_t pid = waitpid(-1, &status, WNOHANG); pid != 0; pid = waitpid(-1, &status, WNOHANG)) {
    if (pid < 0 && errno == EINTR) continue;
    if (pid < 0) break;
    // Whatever the program had started is of its process group and goes with it.
    kill(-pid, SIGKILL);
    supervisor.onEnded(pid, status);
  }
}

void onSignals(int fd, tnrun::Supervisor& supervisor, tnrun::Notifier& notifier) {
  signalfd_siginfo info{};
  bool stop = false;
  while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
    stop |= info.ssi_signo != SIGCHLD;
  if (stop) {
    notifier.stopping();
    supervisor.stop();
  }
  // One SIGCHLD may stand for many children.
  reapChildren(supervisor);
}

int supervise(const std::vector<tnrun::Program>& programs, std::size_t broker) {
  const UniqueFd signals = takeSignals();
  if (!signals) {
    logSystemError("signalfd");
    return 1;
  }
  tn::Looper::Tuning tuning{};
  tuning.id = busId;
  tuning.stopSignals = 1;
  tn::Looper looper(tuning);
  tnrun::Notifier notifier(tnrun::Notifier::takeWishes(), looper.runner().timers());
  looper.addHandler(notifierId, notifier);
  tnrun::Outlet output(looper.runner().timers(), STDOUT_FILENO);
  tnrun::Outlet errors(looper.runner().timers(), STDERR_FILENO);
  tnrun::Journal journal;
  tnrun::LogKeeper keeper(looper.runner(), programs, journal, output, errors);
  tnrun::RealProcesses processes;
  tnrun::BusEnquiry enquiry(looper, programs, broker);
  bool stopped = false;
  tnrun::Supervisor supervisor(programs, broker, looper.runner(), processes, enquiry, keeper, [&] {
    stopped = true;
    looper.quit();
  });
  tnrun::ProgramHandler programHandler(programs, supervisor, enquiry);
  looper.addHandler(tnrun::ProgramHandler::busHandlerId, programHandler);
  tnrun::LogHandler logHandler(journal);
  looper.addHandler(tnrun::LogHandler::busHandlerId, logHandler);
  const auto onReadable = [&](int fd, unsigned) { onSignals(fd, supervisor, notifier); };
  // Without it nobody would hear that a program has ended, or that all are to end.
  if (!looper.runner().addSocket(signals.get(), tn::readable, onReadable)) {
    logSystemError("signalfd");
    return 1;
  }
  supervisor.start();
  looper.run();
  looper.runner().removeSocket(signals.get());
  output.drain(drainMs);
  errors.drain(drainMs);
  return stopped ? 0 : 1;
}

}  // namespace

int main() {
  holdStandardStreams();
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  // What a program leaves behind when it ends becomes a child of this one, and is reaped here.
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  int status = 1;
  if (const auto programs = readPrograms()) {
    const auto isBroker = [](const tnrun::Program& program) { return program.name == brokerName; };
    const auto broker = std::find_if(programs->begin(), programs->end(), isBroker);
    if (broker != programs->end()) {
      status = supervise(*programs, static_cast<std::size_t>(broker - programs->begin()));
    } else {
      logLine(listPath, ": no program is named ", brokerName);
    }
  }
  drainLog();
  return status;
}
