#include "services/supervisor/outlet.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tnrun {
namespace {

std::uint64_t linesIn(std::string_view text) {
  return static_cast<std::uint64_t>(std::count(text.begin(), text.end(), '\n'));
}

std::string droppedLine(std::uint64_t lines) {
  return "log: " + std::to_string(lines) + " lines dropped\n";
}

}  // namespace

Outlet::Outlet(tn::TimerQueue& timers, int fd) : timers_(timers), fd_(fd), retry_([this] { flush(); }) {
  struct stat status {};
  if (fstat(fd, &status) != 0) return;
  if (S_ISREG(status.st_mode)) sink_ = Sink::file;
  if (S_ISSOCK(status.st_mode)) sink_ = Sink::socket;
  if (!S_ISFIFO(status.st_mode) && !S_ISCHR(status.st_mode)) return;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  own_.reset(open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!own_) return;
  fd_ = own_.get();
  sink_ = Sink::reopened;
}

void Outlet::write(std::string_view lines) {
  const auto fits = [&] { return kept_.size() + lines.size() <= maxKeptBytes; };
  if (!fits()) flush();
  if (!(failed_ ? takesAgain() : fits())) {
    dropped_ += linesIn(lines);
    return;
  }
  tellDropped();
  kept_ += lines;
  flush();
}

void Outlet::tellDropped() {
  if (dropped_ == 0) return;
  kept_ += droppedLine(dropped_);
  dropped_ = 0;
}

void Outlet::fail(std::size_t done) {
  dropped_ += linesIn(std::string_view(kept_).substr(done));
  failed_ = true;
  kept_.clear();
  retry_.cancel();
}

bool Outlet::takesAgain() {
  const std::string told = (torn_ ? "\n" : "") + droppedLine(dropped_);
  if (!takes() || writeSome(told) != static_cast<long>(told.size())) return false;
  failed_ = torn_ = false;
  dropped_ = 0;
  return true;
}

void Outlet::flush() {
  std::size_t done = 0;
  while (done < kept_.size() && takes()) {
    const long count = writeSome(std::string_view(kept_).substr(done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    if (count <= 0) return fail(done);
    done += static_cast<std::size_t>(count);
    torn_ = kept_[done - 1] != '\n';
  }
  kept_.erase(0, done);
  if (kept_.empty()) tellDropped();
  if (kept_.empty()) {
    retry_.cancel();
  } else {
    retry_.start(timers_, retryMs);
  }
}

void Outlet::drain(int ms) {
  const auto end = tn::Clock::now() + std::chrono::milliseconds(ms);
  for (flush(); !kept_.empty() && tn::Clock::now() < end; flush()) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - tn::Clock::now());
    pollfd entry{fd_, POLLOUT, 0};
    poll(&entry, 1, static_cast<int>(std::max<long long>(left.count(), 0)));
  }
}

// Whether a write of at most PIPE_BUF bytes does not block.
bool Outlet::takes() const {
  if (sink_ != Sink::shared) return true;
  pollfd entry{fd_, POLLOUT, 0};
  return poll(&entry, 1, 0) == 1 && (entry.revents & (POLLOUT | POLLERR | POLLHUP | POLLNVAL)) != 0;
}

long Outlet::writeSome(std::string_view bytes) const {
  switch (sink_) {
    case Sink::file:
    case Sink::reopened:
      break;
    case Sink::socket:
      return send(fd_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case Sink::shared:
      return ::write(fd_, bytes.data(), std::min<std::size_t>(bytes.size(), PIPE_BUF));
  }
  return ::write(fd_, bytes.data(), bytes.size());
}

}  // namespace tnrun
