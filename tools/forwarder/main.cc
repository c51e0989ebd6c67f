#include <charconv>
#include <csignal>
#include <cstdint>
#include <optional>
#include <string_view>
#include <sys/signalfd.h>
#include <unistd.h>

#include "platform/bus/epoll_runner.h"
#include "platform/log.h"
#include "platform/standard_streams.h"
#include "platform/unique_fd.h"
#include "tools/forwarder/forwarder.h"

// forwarder ADDRESS:PORT SERVER-PORT [TAG]: passes requests on to the local listener of a server, with their real
// addresses. It runs until it is told to end.

namespace {

constexpr std::string_view usage =
    "usage: forwarder ADDRESS:PORT SERVER-PORT [TAG]\n"
    "Takes connections at ADDRESS:PORT (127.0.0.1:8091, [::1]:8091) and passes each request on to the local\n"
    "listener of the server whose record has the port SERVER-PORT, with the addresses of its connection and TAG\n"
    "(a number, 0 when not given).\n";
constexpr std::uint32_t maxPort = 65535;

std::optional<std::uint32_t> numberOf(std::string_view text) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// The signals that end the program, as readiness.
UniqueFd takeSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigprocmask(SIG_BLOCK, &set, nullptr);
  return UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

int explain() {
  static_cast<void>(write(STDERR_FILENO, usage.data(), usage.size()));
  return 2;
}

}  // namespace

int main(int count, char** words) {
  holdStandardStreams();
  if (count != 3 && count != 4) return explain();
  const auto address = forwarder::parseAddress(words[1]);
  const auto serverPort = numberOf(words[2]);
  const auto tag = numberOf(count == 4 ? words[3] : "0");
  if (!address || !serverPort || *serverPort > maxPort || !tag) return explain();
  signal(SIGPIPE, SIG_IGN);
  signal(SIGXFSZ, SIG_IGN);
  tn::EpollRunner runner;
  forwarder::Forwarder forwarder(*serverPort, *tag, runner);
  if (!forwarder.listen(*address)) {
    logSystemError(words[1]);
    return 1;
  }
  const UniqueFd signals = takeSignals();
  bool ending = false;
  runner.addSocket(signals.get(), tn::readable, [&ending](int, unsigned) { ending = true; });
  while (!ending) {
    if (runner.turn(true)) continue;
    logSystemError("epoll_wait");
    return 1;
  }
  return 0;
}
