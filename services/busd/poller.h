#pragma once

#include <span>
#include <sys/epoll.h>

#include "platform/log.h"
#include "platform/unique_fd.h"

namespace busd {

// The kernel's readiness list. Connections are announced at the edge: once for what has come, and not again until more
// comes. Room in a socket is announced only while it is asked for, since otherwise each read of the peer would wake the
// broker.
class Poller {
 public:
  Poller() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!epoll_) logSystemError("epoll_create1");
  }

  // `tag` comes back in epoll_event::data.ptr. False: errno says why.
  [[nodiscard]] bool addConnection(int fd, void* tag) const {
    return control(EPOLL_CTL_ADD, fd, EPOLLIN | EPOLLRDHUP | EPOLLET, tag);
  }
  void announceRoom(int fd, void* tag, bool wanted) const {
    // An open and registered descriptor is never refused.
    (void)control(EPOLL_CTL_MOD, fd, EPOLLIN | EPOLLRDHUP | EPOLLET | (wanted ? EPOLLOUT : 0U), tag);
  }
  // Announced as long as it is readable.
  [[nodiscard]] bool addLevel(int fd, void* tag) const { return control(EPOLL_CTL_ADD, fd, EPOLLIN, tag); }
  [[nodiscard]] bool pauseLevel(int fd, void* tag, bool paused) const {
    return control(EPOLL_CTL_MOD, fd, paused ? 0U : static_cast<unsigned>(EPOLLIN), tag);
  }

  // Waits at the most `timeoutMs` (-1: for ever); the events lie in `space`.
  [[nodiscard]] std::span<epoll_event> wait(std::span<epoll_event> space, int timeoutMs) const {
    const int n = epoll_wait(epoll_.get(), space.data(), static_cast<int>(space.size()), timeoutMs);
    return space.first(n > 0 ? static_cast<std::size_t>(n) : 0);
  }

 private:
  bool control(int operation, int fd, unsigned events, void* tag) const {
    epoll_event event{};
    event.events = events;
    event.data.ptr = tag;
    return epoll_ctl(epoll_.get(), operation, fd, &event) == 0;
  }

  UniqueFd epoll_;
};

}  // namespace busd
