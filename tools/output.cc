#include "tools/output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "tools/json.h"

namespace tool {

bool Output::print(std::string_view text) {
  if (isBroken()) return false;
  if (look_.quiet) return true;
  if (std::fwrite(text.data(), 1, text.size(), stream_) == text.size() && std::fflush(stream_) == 0) return true;
  error_ = errno != 0 ? errno : EIO;
  return false;
}

bool Output::show(const tn::message& msg, const tn::FieldNames* names) {
  switch (look_.form) {
    case Form::readable:
      return print(tn::writeTree(msg, 0, names));
    case Form::lines:
      return print(tn::writeText(msg) + '\n');
    case Form::json:
      return print(writeJson(msg, names) + '\n');
  }
  return false;
}

ExitStatus Output::finish(ExitStatus status) const {
  if (!isBroken()) return status;
  if (error_ == EPIPE) return ExitStatus::done;
  printError(std::string("cannot write: ").append(std::strerror(error_)));
  return ExitStatus::unreachable;
}

Output::Look lookOf(int fd, const Arguments& arguments) {
  Output::Look look;
  look.form = arguments.form;
  look.quiet = arguments.quiet;
  if (::isatty(fd) != 1) return look;
  winsize size{};
  look.width = ::ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col != 0 ? size.ws_col : 80;
  const char* const unwanted = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  const bool isPlain = terminal == nullptr || std::string_view(terminal) == "dumb";
  look.colours = !isPlain && (unwanted == nullptr || *unwanted == '\0');
  return look;
}

void printError(std::string_view error) {
  std::string line = "tn: ";
  line.append(error).append("\n");
  std::fputs(line.c_str(), stderr);
}

}  // namespace tool
