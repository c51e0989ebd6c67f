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
  if (kept_.size() + lines.size() > maxKeptBytes) flush();
  if (kept_.size() + lines.size() > maxKeptBytes) {
    dropped_ += static_cast<std::uint64_t>(std::count(lines.begin(), lines.end(), '\n'));
    return;
  }
  tellDropped();
  kept_ += lines;
  flush();
}

void Outlet::tellDropped() {
  if (dropped_ == 0) return;
  kept_ += "log: " + std::to_string(dropped_) + " lines dropped\n";
  dropped_ = 0;
}

void Outlet::flush() {
  std::size_t done = 0;
  while (done < kept_.size() && takes()) {
    const long count = writeSome(std::string_view(kept_).substr(done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 && errno == EAGAIN) break;
    // Nobody will ever take it.
    if (count <= 0) done = kept_.size();
    if (count > 0) done += static_cast<std::size_t>(count);
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
