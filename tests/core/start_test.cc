// The start as a whole: what it leaves behind before the loop turns.

#include <chrono>
#include <gmock/gmock.h>

#include "tests/core/core_test.h"

namespace {

using core_test::CoreTest;
using std::chrono::milliseconds;

constexpr char noDirectory[] = "/nonexistent/configuration";

class StartTest : public CoreTest {};

// The loop's time stands still until it turns, however long the documents take to read.
TEST_F(StartTest, TheTimeToAskCountsFromTheEndOfTheReading) {
  const tn::Clock::time_point before = tn::Clock::now();
  server.start(noDirectory);
  const auto deadline = runner.timers().nextDeadline();
  ASSERT_TRUE(deadline.has_value());
  EXPECT_GE(*deadline, before + milliseconds(200));
}

}  // namespace
