// tn: the command line of the bus.

#include <cstdio>
#include <fcntl.h>
#include <string>
#include <unistd.h>

#include "platform/bus/frame.h"
#include "tools/arguments.h"
#include "tools/reach.h"
#include "tools/request.h"
#include "tools/session.h"

namespace {

using tool::Arguments;
using tool::ExitStatus;
using tool::Operation;

int exitCode(ExitStatus status) {
  return static_cast<int>(status);
}

int failUsage(std::string_view error) {
  tool::printError(error);
  return exitCode(ExitStatus::usage);
}

std::optional<std::string> makeRequest(const Arguments& arguments, tn::message& request) {
  if (arguments.operation != Operation::call && arguments.operation != Operation::send) return std::nullopt;
  if (arguments.message != "-") return tool::buildRequest(arguments, arguments.message, request);
  std::string text;
  if (auto error = tool::readWholeInput(STDIN_FILENO, text)) return error;
  return tool::buildRequest(arguments, text, request);
}

// Standard output for the program alone: what the bus library logs there goes to standard error from now on.
std::FILE* takeOutput() {
  const int own = ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (own < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return stdout;
  std::FILE* const out = ::fdopen(own, "w");
  return out != nullptr ? out : stdout;
}

int runOnBus(const Arguments& arguments, tn::message request) {
  if (const auto reason = tool::whyUnreachable(tn::busSocketPath)) {
    tool::printError(*reason);
    return exitCode(ExitStatus::unreachable);
  }
  tn::Looper::Tuning tuning{};
  // A monitor is ended by Ctrl-C in good order; the others simply stop.
  tuning.stopSignals = arguments.operation == Operation::monitor ? 0 : 1;
  tn::Looper looper(tuning);
  looper.setName("tn");
  tool::Session session(looper, arguments, std::move(request), takeOutput());
  return exitCode(session.run());
}

}  // namespace

int main(int argc, char** argv) {
  const std::span<char*> words(argv, static_cast<std::size_t>(argc));
  Arguments arguments;
  if (const auto error = tool::parseArguments(words.subspan(words.empty() ? 0 : 1), arguments)) {
    return failUsage(*error + " (tn --help tells more)");
  }
  if (arguments.operation == Operation::help) {
    const std::string_view help = tool::helpText();
    std::fwrite(help.data(), 1, help.size(), stdout);
    return exitCode(ExitStatus::done);
  }
  tn::message request;
  if (const auto error = makeRequest(arguments, request)) return failUsage(*error);
  return runOnBus(arguments, std::move(request));
}
