#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace core_test {

// The process may open no further descriptor while it lives.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    getrlimit(RLIMIT_NOFILE, &saved_);
    const UniqueFd next(dup(STDIN_FILENO));
    rlimit limit = saved_;
    limit.rlim_cur = static_cast<rlim_t>(next.get());
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  NoMoreDescriptors(const NoMoreDescriptors&) = delete;
  NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;
  ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &saved_); }

 private:
  rlimit saved_{};
};

}  // namespace core_test
