// tn: the bus of the system from a command line.

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

#include "platform/standard_streams.h"
#include "platform/unique_fd.h"
#include "tools/context.h"

namespace {

using tool::Arguments;
using tool::ExitStatus;

int exitCode(ExitStatus status) {
  return static_cast<int>(status);
}

// Standard output for the program alone: what the bus library logs there, a person is told in other words.
std::FILE* takeOutput() {
  UniqueFd own(::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  std::FILE* const out = own ? ::fdopen(own.get(), "w") : nullptr;
  if (out == nullptr) return stdout;
  static_cast<void>(own.release());
  const UniqueFd nowhere(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  ::dup2(nowhere ? nowhere.get() : STDERR_FILENO, STDOUT_FILENO);
  return out;
}

// -h stands for help about the verb that is there, if there is one.
void askForHelp(Arguments& arguments) {
  arguments.operands.clear();
  if (tool::findVerb(tool::allVerbs(), arguments.verb) != nullptr) arguments.operands.push_back(arguments.verb);
  arguments.verb = "help";
}

}  // namespace

int main(int argc, char** argv) {
  holdStandardStreams();
  // A reader who has gone is told by the write that fails.
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
  const std::span<char*> words(argv, static_cast<std::size_t>(argc));
  Arguments arguments;
  if (const auto error = tool::parseArguments(words.subspan(words.empty() ? 0 : 1), tool::allVerbs(), arguments)) {
    tool::printError(*error + " (tn help tells more)");
    return exitCode(ExitStatus::usage);
  }
  const tool::Output::Look look = tool::lookOf(STDOUT_FILENO, arguments);
  tool::Output output(takeOutput(), look);
  if (arguments.version) {
    output.print("tn " TARN_VERSION "\n");
    return exitCode(output.finish(ExitStatus::done));
  }
  if (arguments.help) askForHelp(arguments);
  tool::Context context(arguments, output);
  return exitCode(output.finish(tool::findVerb(tool::allVerbs(), arguments.verb)->run(context)));
}
