#include "platform/standard_streams.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <initializer_list>
#include <sys/wait.h>

namespace {

// Whether the next file gets none of the three numbers, with some of them closed, and those neither read nor write.
bool areHeld(std::initializer_list<int> closed) {
  const pid_t child = ::fork();
  if (child == 0) {
    for (const int number : closed)
      ::close(number);
    holdStandardStreams();
    char byte = 'x';
    const bool isHeld = std::ranges::all_of(closed, [&](int number) {
      return ::write(number, &byte, 1) < 0 && errno == EBADF && ::read(number, &byte, 1) < 0 && errno == EBADF;
    });
    ::_exit(isHeld && ::open("/dev/null", O_RDONLY | O_CLOEXEC) > STDERR_FILENO ? 0 : 1);
  }
  int status = -1;
  return ::waitpid(child, &status, 0) == child && status == 0;
}

TEST(StandardStreams, AreHeldWhenTheyAreClosed) {
  EXPECT_TRUE(areHeld({STDOUT_FILENO}));
  EXPECT_TRUE(areHeld({STDIN_FILENO, STDERR_FILENO}));
  EXPECT_TRUE(areHeld({STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}));
}

TEST(StandardStreams, StayAsTheyAreWhenTheyAreOpen) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(ends[1], STDOUT_FILENO);
    holdStandardStreams();
    ::_exit(::write(STDOUT_FILENO, "x", 1) == 1 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), 1);
  ::close(ends[0]);
  ::close(ends[1]);
}

}  // namespace
