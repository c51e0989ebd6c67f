#include "tools/password.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <termios.h>
#include <unistd.h>

namespace tool {

namespace {

constexpr std::size_t mostBytes = 1024;

volatile std::sig_atomic_t wasStopped = 0;

void onStop(int) {
  wasStopped = 1;
}

constexpr int stopSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

// Turns the echo of a terminal off while it lives. Signals that would end the program end the question instead, so that
// the terminal is never left without an echo.
class NoEcho {
 public:
  explicit NoEcho(int fd) : fd_(fd) {
    if (::tcgetattr(fd, &before_) != 0) return;
    struct sigaction noted {};
    noted.sa_handler = onStop;  // without SA_RESTART: the read comes back
    for (const int number : stopSignals)
      ::sigaction(number, &noted, nullptr);
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    isOff_ = ::tcsetattr(fd, TCSAFLUSH, &silent) == 0;
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;
  ~NoEcho() {
    if (isOff_) ::tcsetattr(fd_, TCSAFLUSH, &before_);
    struct sigaction usual {};
    usual.sa_handler = SIG_DFL;
    for (const int number : stopSignals)
      ::sigaction(number, &usual, nullptr);
  }
  [[nodiscard]] bool isOff() const { return isOff_; }

 private:
  int fd_;
  termios before_{};
  bool isOff_ = false;
};

// A line without its end; nothing, and `error` set, when there is none.
std::optional<std::string> readLine(int fd, std::string& error) {
  std::string line;
  for (;;) {
    char c = 0;
    const ssize_t count = ::read(fd, &c, 1);
    if (count < 0 && errno == EINTR && wasStopped == 0) continue;
    if (count < 0) error = std::string("cannot read the password: ").append(std::strerror(errno));
    if (count == 0 && line.empty()) error = "no password was given";
    if (!error.empty()) return std::nullopt;
    if (count == 0 || c == '\n') return line;
    if (line.size() == mostBytes) {
      error = "the password is too long";
      return std::nullopt;
    }
    line += c;
  }
}

std::optional<std::string> askOnce(int fd, const char* question, std::string& error) {
  std::fputs(question, stderr);
  auto line = readLine(fd, error);
  std::fputc('\n', stderr);
  return line;
}

}  // namespace

std::optional<std::string> askPassword(int fd, std::string& error) {
  if (::isatty(fd) != 1) return readLine(fd, error);
  const NoEcho noEcho(fd);
  if (!noEcho.isOff()) {
    error = "the terminal would show the password";
    return std::nullopt;
  }
  auto password = askOnce(fd, "new password: ", error);
  if (!password) return std::nullopt;
  const auto again = askOnce(fd, "once more: ", error);
  if (!again) return std::nullopt;
  if (*again == *password) return password;
  error = "the passwords differ";
  return std::nullopt;
}

}  // namespace tool
