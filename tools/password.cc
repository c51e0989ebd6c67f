#include "tools/password.h"

#include <array>
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
    struct sigaction noted {};
    noted.sa_handler = onStop;  // without SA_RESTART: the read comes back
    for (std::size_t i = 0; i < before_.signals.size(); ++i) {
      ::sigaction(stopSignals[i], nullptr, &before_.signals[i]);
      if (before_.signals[i].sa_handler != SIG_IGN) ::sigaction(stopSignals[i], &noted, nullptr);
    }
    if (::tcgetattr(fd, &before_.terminal) != 0) return;
    termios silent = before_.terminal;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    isOff_ = ::tcsetattr(fd, TCSAFLUSH, &silent) == 0;
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;
  ~NoEcho() {
    if (isOff_) ::tcsetattr(fd_, TCSAFLUSH, &before_.terminal);
    for (std::size_t i = 0; i < before_.signals.size(); ++i)
      ::sigaction(stopSignals[i], &before_.signals[i], nullptr);
  }
  [[nodiscard]] bool isOff() const { return isOff_; }

 private:
  struct Before {
    termios terminal;
    std::array<struct sigaction, std::size(stopSignals)> signals;
  };

  int fd_;
  Before before_{};
  bool isOff_ = false;
};

// A line without its end; nothing, and `error` set, when there is none.
std::optional<std::string> readLine(int fd, std::string& error) {
  std::string line;
  for (;;) {
    char c = 0;
    const ssize_t count = ::read(fd, &c, 1);
    if (count < 0 && errno == EINTR && wasStopped == 0) continue;
    const bool isStopped = count < 0 && errno == EINTR;
    if (isStopped || (count == 0 && line.empty())) {
      error = "no password was given";
    } else if (count < 0) {
      error = std::string("cannot read the password: ").append(std::strerror(errno));
    }
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
