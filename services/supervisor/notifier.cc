#include "services/supervisor/notifier.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

#include "platform/log.h"

namespace tnrun {
namespace {

constexpr std::uint64_t usPerMs = 1000;

std::optional<std::string> take(const char* name) {
  const char* const value = getenv(name);
  if (value == nullptr) return std::nullopt;
  std::string kept(value);
  unsetenv(name);
  return kept;
}

std::optional<std::uint64_t> number(const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  std::uint64_t value = 0;
  const char* const end = text->data() + text->size();
  const auto [stop, error] = std::from_chars(text->data(), end, value);
  if (error != std::errc() || stop != end) return std::nullopt;
  return value;
}

std::uint32_t intervalOf(const Notifier::Wishes& wishes) {
  const auto allowed = number(wishes.interval);
  if (!allowed || *allowed == 0) return 0;
  if (wishes.process && number(wishes.process) != static_cast<std::uint64_t>(getpid())) return 0;
  constexpr std::uint64_t longest = std::numeric_limits<std::uint32_t>::max();
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(*allowed / usPerMs / 2, 1, longest));
}

UniqueFd connectTo(const std::string& name) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (name.size() < 2 || name.size() >= sizeof address.sun_path || (name[0] != '/' && name[0] != '@')) {
    logLine("tnrun: no socket to notify: ", name);
    return UniqueFd();
  }
  std::memcpy(address.sun_path, name.data(), name.size());
  if (name[0] == '@') address.sun_path[0] = '\0';
  // The length says where a name without a file ends; a path ends at its NUL.
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + (name[0] == '/' ? 1 : 0));
  UniqueFd made(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made || connect(made.get(), reinterpret_cast<const sockaddr*>(&address), length) != 0) {
    logSystemError("NOTIFY_SOCKET");
    return UniqueFd();
  }
  return made;
}

}  // namespace

Notifier::Wishes Notifier::takeWishes() {
  return {take("NOTIFY_SOCKET"), take("WATCHDOG_USEC"), take("WATCHDOG_PID")};
}

Notifier::Notifier(const Wishes& wishes, tn::TimerQueue& timers)
    : intervalMs_(intervalOf(wishes)), timers_(timers), timer_([this] { beat(); }) {
  if (wishes.socket) socket_ = connectTo(*wishes.socket);
}

void Notifier::linked() {
  if (!socket_ || std::exchange(linked_, true)) return;
  beat();
}

void Notifier::stopping() {
  tell("STOPPING=1");
}

void Notifier::beat() {
  if (!ready_ && !tell("READY=1")) return timer_.start(timers_, retryMs);
  ready_ = true;
  if (intervalMs_ == 0) return;
  tell("WATCHDOG=1");
  timer_.start(timers_, intervalMs_);
}

// False: it is worth telling again.
bool Notifier::tell(std::string_view state) {
  if (!socket_ || send(socket_.get(), state.data(), state.size(), MSG_NOSIGNAL) >= 0) return true;
  logSystemError("notifying");
  return errno != EAGAIN && errno != EINTR && errno != ENOBUFS && errno != ENOMEM;
}

}  // namespace tnrun
