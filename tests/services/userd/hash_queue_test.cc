#include "services/userd/hash_queue.h"

#include <gmock/gmock.h>
#include <vector>

#include "tests/services/userd/fake_hasher.h"

namespace userd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class HashQueueTest : public ::testing::Test {
 protected:
  HashQueue::Ticket put(const std::string& name, unsigned rank) {
    return queue_.put({Secret(name), std::nullopt}, rank, [this, name](const HashResult&) { done_.push_back(name); });
  }

  FakeHasher hasher_;
  HashQueue queue_{hasher_};
  std::vector<std::string> done_;
};

TEST_F(HashQueueTest, GivesTheHasherOneJobAtATime) {
  put("a", 1);
  put("b", 1);
  EXPECT_EQ(hasher_.started, 1U);
  EXPECT_EQ(queue_.waiting(), 1U);
  hasher_.finish();
  EXPECT_EQ(hasher_.started, 2U);
  hasher_.finish();
  EXPECT_FALSE(hasher_.busy());
  EXPECT_THAT(done_, ElementsAre("a", "b"));
}

TEST_F(HashQueueTest, TakesTheLowestRankFirstAndEqualOnesInOrder) {
  put("first", 9);
  put("d", 5);
  put("b", 2);
  put("c", 2);
  put("a", 0);
  hasher_.finishAll();
  EXPECT_THAT(done_, ElementsAre("first", "a", "b", "c", "d"));
}

TEST_F(HashQueueTest, ForgetsWhatIsCancelled) {
  const auto running = put("running", 1);
  const auto waiting = put("waiting", 1);
  put("left", 1);
  EXPECT_TRUE(queue_.cancel(waiting));
  EXPECT_FALSE(queue_.cancel(waiting));
  EXPECT_FALSE(queue_.cancel(running));
  EXPECT_THAT(done_, IsEmpty());
  hasher_.finishAll();
  EXPECT_THAT(done_, ElementsAre("left"));
}

TEST_F(HashQueueTest, MayBeGivenMoreByWhatIsDone) {
  queue_.put({Secret("a"), std::nullopt}, 1, [this](const HashResult& result) {
    EXPECT_EQ(result.made, fakeHash("a"));
    put("b", 1);
  });
  hasher_.finishAll();
  EXPECT_THAT(done_, ElementsAre("b"));
}

}  // namespace
}  // namespace userd
