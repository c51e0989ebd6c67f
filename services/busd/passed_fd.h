#pragma once

#include <utility>

#include "platform/unique_fd.h"
#include "services/busd/impatience.h"

namespace busd {

// A descriptor on its way from one program to another; the broker's own copy of it.
//
// Whoever sent it may have closed theirs, and so may the receiver: then the broker's close is the last, and would wait
// for a socket that lingers. It never does for longer than Impatience allows, and one that is not delivered does not
// even do that: it lingers no more when it is closed. One that was delivered is left as it is, since it is the
// receiver's.
class PassedFd {
 public:
  PassedFd() = default;
  explicit PassedFd(UniqueFd fd) : fd_(std::move(fd)) {}
  PassedFd(PassedFd&& other) noexcept = default;
  PassedFd& operator=(PassedFd&& other) noexcept {
    if (this == &other) return *this;
    drop();
    fd_ = std::move(other.fd_);
    return *this;
  }
  PassedFd(const PassedFd&) = delete;
  PassedFd& operator=(const PassedFd&) = delete;
  ~PassedFd() { drop(); }

  [[nodiscard]] int get() const { return fd_.get(); }
  [[nodiscard]] explicit operator bool() const { return static_cast<bool>(fd_); }

  // Closes it, undelivered.
  void drop() {
    if (fd_) dropOpen();
  }
  // Closes it when the kernel has another copy for the receiver.
  void delivered() {
    const Impatience impatience;
    fd_.reset();
  }

 private:
  void dropOpen();

  UniqueFd fd_;
};

}  // namespace busd
