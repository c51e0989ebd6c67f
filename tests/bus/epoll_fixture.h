#pragma once

#include <gtest/gtest.h>
#include <string>
#include <unistd.h>
#include <vector>

#include "platform/bus/epoll_runner.h"
#include "tests/bus/sockets.h"

namespace tn {

// Two connected sockets: the one of the runner, and that of its peer. Both wait, until the runner has taken the first.
struct Pair : testing_support::SocketPair {
  void feed(const std::string& text) const {
    EXPECT_EQ(write(there.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
};

inline std::string readSome(int fd, std::size_t most = 100) {
  std::string text(most, '\0');
  const ssize_t n = read(fd, text.data(), text.size());
  text.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  return text;
}

class EpollRunnerTest : public testing::Test {
 protected:
  // A turn that does not wait, so a test never hangs.
  void turn() { ASSERT_TRUE(runner.turn(false)); }
  ThinRunner::SocketCallback note() {
    return [this](int, unsigned events) { told.push_back(events); };
  }

  EpollRunner runner{0, 3};
  std::vector<unsigned> told;
  const std::vector<unsigned> nothing;
};

}  // namespace tn
