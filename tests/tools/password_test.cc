#include "tools/password.h"

#include <csignal>
#include <gtest/gtest.h>
#include <pty.h>
#include <string_view>
#include <termios.h>
#include <thread>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace {

class Password : public testing::Test {
 protected:
  void SetUp() override {
    int ends[2];
    ASSERT_EQ(::openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr), 0);
    keyboard_.reset(ends[0]);
    terminal_.reset(ends[1]);
  }
  [[nodiscard]] bool echoes() const {
    termios state{};
    EXPECT_EQ(::tcgetattr(terminal_.get(), &state), 0);
    return (state.c_lflag & ECHO) != 0;
  }
  // What is asked for when the person types that once the echo is off.
  std::optional<std::string> typed(std::string_view keys) {
    const std::jthread person([this, keys](const std::stop_token& isOver) {
      while (echoes() && !isOver.stop_requested())
        std::this_thread::yield();
      EXPECT_EQ(::write(keyboard_.get(), keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    });
    return tool::askPassword(terminal_.get(), error_);
  }

  UniqueFd keyboard_;
  UniqueFd terminal_;
  std::string error_;
};

TEST_F(Password, IsAskedForTwice) {
  EXPECT_EQ(typed("battery staple\nbattery staple\n"), "battery staple");
  EXPECT_TRUE(echoes());
  EXPECT_EQ(typed("battery staple\nbattery\n"), std::nullopt);
  EXPECT_EQ(error_, "the passwords differ");
  EXPECT_TRUE(echoes());
}

TEST_F(Password, MayBeNone) {
  EXPECT_EQ(typed("\x04"), std::nullopt);
  EXPECT_EQ(error_, "no password was given");
  EXPECT_TRUE(echoes());
}

TEST_F(Password, LeavesSignalsAsTheyWere) {
  std::signal(SIGHUP, SIG_IGN);
  EXPECT_EQ(typed("battery staple\nbattery staple\n"), "battery staple");
  EXPECT_EQ(std::signal(SIGHUP, SIG_DFL), SIG_IGN);
  EXPECT_EQ(std::signal(SIGTERM, SIG_DFL), SIG_DFL);
}

}  // namespace
