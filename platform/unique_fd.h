#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

// Owns one file descriptor and closes it at the end of its life; -1 is "none".
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] explicit operator bool() const { return fd_ >= 0; }

  // Gives the descriptor away: the caller closes it.
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }

  // Closes what is held and takes `fd` instead. errno is left as it was, so a failure can be reported after it.
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

inline void UniqueFd::reset(int fd) {
  const int old = std::exchange(fd_, fd);
  if (old < 0) return;
  const int saved = errno;
  ::close(old);
  errno = saved;
}
