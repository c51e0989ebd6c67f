#include "services/userd/worker_hasher.h"

#include <csignal>
#include <gtest/gtest.h>

#include "platform/bus/epoll_runner.h"
#include "services/userd/password.h"

namespace userd {
namespace {

class WorkerHasherTest : public ::testing::Test {
 protected:
  void SetUp() override {
    hasher_ = WorkerHasher::make(runner_);
    ASSERT_NE(hasher_, nullptr);
  }

  HashResult run(HashJob job) {
    std::optional<HashResult> result;
    hasher_->start(std::move(job), [&result](HashResult came) { result = std::move(came); });
    EXPECT_FALSE(result.has_value());
    while (!result)
      EXPECT_TRUE(runner_.turn(true));
    return *result;
  }

  tn::EpollRunner runner_;
  std::unique_ptr<WorkerHasher> hasher_;
};

TEST_F(WorkerHasherTest, MakesAndComparesHashes) {
  const HashResult made = run({Secret("correct horse"), std::nullopt});
  EXPECT_TRUE(isPasswordHash(made.made));
  EXPECT_TRUE(run({Secret("correct horse"), made.made}).right);
  EXPECT_FALSE(run({Secret("wrong horse"), made.made}).right);
}

TEST_F(WorkerHasherTest, DoesTheNextJobFromWithinTheLast) {
  unsigned left = 5;
  std::function<void(HashResult)> next = [&](const HashResult&) {
    if (--left > 0) hasher_->start({Secret("x"), "no hash"}, next);
  };
  hasher_->start({Secret("x"), "no hash"}, next);
  while (left > 0)
    ASSERT_TRUE(runner_.turn(true));
}

TEST_F(WorkerHasherTest, EndsWithAJobUnderWay) {
  hasher_->start({Secret("correct horse"), std::nullopt}, [](const HashResult&) { ADD_FAILURE(); });
  hasher_.reset();
}

// A signal that ended the process while the loop is not looking would leave no time for an orderly end.
TEST_F(WorkerHasherTest, LeavesSignalsToTheLoop) {
  sigset_t mine{};
  sigset_t before{};
  sigemptyset(&mine);
  sigaddset(&mine, SIGUSR1);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &mine, &before), 0);
  ASSERT_EQ(kill(getpid(), SIGUSR1), 0);
  run({Secret("correct horse"), std::nullopt});
  sigset_t pending{};
  ASSERT_EQ(sigpending(&pending), 0);
  EXPECT_EQ(sigismember(&pending, SIGUSR1), 1);
  int number = 0;
  EXPECT_EQ(sigwait(&mine, &number), 0);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace
}  // namespace userd
