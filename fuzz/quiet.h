#pragma once

#include <fcntl.h>
#include <unistd.h>

#include "platform/log.h"
#include "platform/unique_fd.h"

// While it lives, the log of all that goes wrong with an input goes nowhere.
class Quiet {
 public:
  Quiet() : saved_(dup(STDOUT_FILENO)) {
    const UniqueFd nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
    dup2(nowhere.get(), STDOUT_FILENO);
  }
  Quiet(const Quiet&) = delete;
  Quiet& operator=(const Quiet&) = delete;
  ~Quiet() {
    flushLog();
    dup2(saved_.get(), STDOUT_FILENO);
  }

 private:
  UniqueFd saved_;
};
