#include "services/userd/doorkeeper.h"

#include <gmock/gmock.h>
#include <vector>

#include "tests/services/userd/fake_hasher.h"
#include "tests/services/userd/scratch.h"

namespace userd {
namespace {

using Verdict = Doorkeeper::Verdict;
using ::testing::ElementsAre;

const std::string dummy = fakeHash("what nobody knows");

Client address(std::uint32_t number) {
  tn::Addr6 bytes{};
  bytes[10] = bytes[11] = 0xff;
  for (unsigned i = 0; i < 4; ++i)
    bytes[12 + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
  return Client::at(bytes);
}

class DoorkeeperTest : public ScratchTest {
 protected:
  void SetUp() override {
    ASSERT_EQ(accounts_.open([] { return fakeHash("right"); }), std::nullopt);
  }

  // Makes an attempt; what came of it stands at the index that is returned, once it came.
  std::size_t attempt(std::uint32_t from, std::string_view name, std::string_view password) {
    const std::size_t index = answers_.size();
    answers_.emplace_back();
    doorkeeper_.attempt(address(from), name, Secret(password),
                        [this, index](const Doorkeeper::Answer& came) { answers_[index] = came; });
    return index;
  }
  std::size_t attemptAndLook(std::uint32_t from, std::string_view name, std::string_view password) {
    const std::size_t index = attempt(from, name, password);
    hasher_.finishAll();
    return index;
  }
  [[nodiscard]] bool isAnswered(std::size_t index) const { return answers_[index].has_value(); }
  [[nodiscard]] Verdict verdict(std::size_t index) const { return answers_[index]->verdict; }
  void pass(std::chrono::milliseconds time) { timers_.runExpired(timers_.now() + time); }
  // Time passes while the hasher works as fast as it likes.
  void passWorking(std::chrono::milliseconds time) {
    for (; time.count() > 0; time -= std::chrono::milliseconds(10)) {
      pass(std::chrono::milliseconds(10));
      hasher_.finishAll();
    }
  }

  tn::TimerQueue timers_;
  FakeHasher hasher_;
  HashQueue queue_{hasher_};
  Throttle throttle_{{1, 2, 3}};
  std::vector<std::optional<Doorkeeper::Answer>> answers_;
  Store store_{path("users.db")};
  Accounts accounts_{store_};
  Doorkeeper doorkeeper_{accounts_, queue_, throttle_, timers_, dummy};
};

TEST_F(DoorkeeperTest, LetsTheRightPasswordIn) {
  const std::size_t index = attempt(1, "admin", "right");
  EXPECT_FALSE(isAnswered(index));
  hasher_.finish();
  ASSERT_TRUE(isAnswered(index));
  EXPECT_EQ(verdict(index), Verdict::right);
  EXPECT_EQ(answers_[index]->user, 1U);
}

// The same work, so the same time.
TEST_F(DoorkeeperTest, LooksAtAnUnknownUserAsAtAWrongPassword) {
  attempt(1, "admin", "wrong");
  EXPECT_EQ(hasher_.comparedWith(), fakeHash("right"));
  hasher_.finish();
  attempt(2, "nobody", "wrong");
  EXPECT_EQ(hasher_.comparedWith(), dummy);
  hasher_.finish();
  EXPECT_EQ(verdict(0), Verdict::wrong);
  EXPECT_EQ(verdict(1), Verdict::wrong);
}

TEST_F(DoorkeeperTest, LetsNobodyInWithTheDummysPassword) {
  EXPECT_EQ(verdict(attemptAndLook(1, "nobody", "what nobody knows")), Verdict::wrong);
}

TEST_F(DoorkeeperTest, LooksAtADisabledUserAndRefusesHim) {
  User bob{0, "bob", "", 2, true, true, fakeHash("right")};
  ASSERT_TRUE(accounts_.addUser(bob).has_value());
  attempt(1, "bob", "right");
  EXPECT_EQ(hasher_.comparedWith(), fakeHash("right"));
  hasher_.finish();
  EXPECT_EQ(verdict(0), Verdict::wrong);
}

TEST_F(DoorkeeperTest, RefusesAUserWhoWasChangedMeanwhile) {
  attempt(1, "admin", "right");
  User admin = *accounts_.user(1);
  admin.hash = fakeHash("another");
  ASSERT_EQ(accounts_.changeUser(admin), std::nullopt);
  hasher_.finish();
  EXPECT_EQ(verdict(0), Verdict::wrong);
}

TEST_F(DoorkeeperTest, HasTheRightPasswordWaitAsWell) {
  for (int i = 0; i < 4; ++i) {
    attemptAndLook(1, "admin", "wrong");
    passWorking(std::chrono::milliseconds(250));
  }
  const std::size_t index = attempt(1, "admin", "right");
  passWorking(std::chrono::milliseconds(490));
  EXPECT_FALSE(isAnswered(index));
  passWorking(std::chrono::milliseconds(20));
  EXPECT_EQ(verdict(index), Verdict::right);
}

TEST_F(DoorkeeperTest, RefusesAtOnceWhatWouldWaitTooLong) {
  std::vector<std::size_t> refused;
  for (int i = 0; i < 20; ++i) {
    const std::size_t index = attempt(1, "admin", "wrong");
    if (isAnswered(index)) refused.push_back(index);
  }
  ASSERT_EQ(refused.size(), 13U);
  EXPECT_EQ(verdict(refused[0]), Verdict::tooMany);
  EXPECT_EQ(answers_[refused[0]]->retryAfterSeconds, 4U);
  EXPECT_EQ(notLookedAt(*answers_[refused[0]]).text, "too many attempts, try again in 4 s");
  passWorking(std::chrono::seconds(5));
  for (std::size_t i = 0; i < 7; ++i)
    EXPECT_EQ(verdict(i), Verdict::wrong);
}

TEST_F(DoorkeeperTest, AnswersInTimeWhenTheHasherDoesNot) {
  const std::size_t running = attempt(1, "admin", "right");
  const std::size_t waiting = attempt(2, "admin", "right");
  pass(std::chrono::milliseconds(Doorkeeper::answerMs - 1));
  EXPECT_FALSE(isAnswered(running));
  pass(std::chrono::milliseconds(1));
  EXPECT_EQ(verdict(running), Verdict::busy);
  EXPECT_EQ(verdict(waiting), Verdict::busy);
  EXPECT_EQ(notLookedAt(*answers_[waiting]).text, "too busy, try again");
  hasher_.finishAll();
  EXPECT_EQ(hasher_.started, 1U);
  EXPECT_EQ(verdict(attemptAndLook(1, "admin", "right")), Verdict::right);
}

TEST_F(DoorkeeperTest, DoesNotCountWhatItDidNotLookAt) {
  attempt(1, "x", "wrong");
  for (int i = 0; i < 5; ++i) {
    attempt(2, "y", "wrong");
    pass(std::chrono::milliseconds(Doorkeeper::answerMs));
  }
  hasher_.finishAll();
  EXPECT_EQ(throttle_.examine(address(2), "y", timers_.now()).failures, 0U);
  EXPECT_EQ(throttle_.examine(address(1), "x", timers_.now()).failures, 1U);
}

TEST_F(DoorkeeperTest, BoundsWhatWaits) {
  for (std::uint32_t stranger = 0; stranger < Doorkeeper::maxAttempts; ++stranger)
    EXPECT_FALSE(isAnswered(attempt(100 + stranger, "admin", "wrong")));
  EXPECT_EQ(verdict(attempt(1, "admin", "right")), Verdict::busy);
}

TEST_F(DoorkeeperTest, HasThoseGiveWayWhoWereWrongBefore) {
  for (std::uint32_t stranger = 0; stranger < Doorkeeper::maxAttempts; ++stranger)
    attemptAndLook(100 + stranger, "x", "wrong");
  passWorking(std::chrono::seconds(6));
  std::vector<std::size_t> strangers;
  for (std::uint32_t stranger = 0; stranger < Doorkeeper::maxAttempts; ++stranger)
    strangers.push_back(attempt(100 + stranger, "admin", "wrong"));
  const std::size_t owner = attempt(1, "admin", "right");
  EXPECT_FALSE(isAnswered(owner));
  EXPECT_EQ(verdict(strangers.back()), Verdict::busy);
  passWorking(std::chrono::milliseconds(2100));
  EXPECT_EQ(verdict(owner), Verdict::right);
}

TEST_F(DoorkeeperTest, LetsTheOwnerInWhereHeWasBefore) {
  EXPECT_EQ(verdict(attemptAndLook(1, "admin", "right")), Verdict::right);
  for (std::uint32_t stranger = 0; stranger < 5000; ++stranger)
    attempt(100 + stranger, "admin", "wrong");
  const std::size_t owner = attempt(1, "admin", "right");
  hasher_.finish();  // the one that was under way
  hasher_.finish();
  ASSERT_TRUE(isAnswered(owner));
  EXPECT_EQ(verdict(owner), Verdict::right);
}

// A burst is over when what it left waiting has had its time.
TEST_F(DoorkeeperTest, LetsTheOwnerInFromAnotherAddressSoonAfterABurst) {
  for (std::uint32_t stranger = 0; stranger < 20'000; ++stranger)
    attempt(100 + stranger, "admin", "wrong");
  passWorking(std::chrono::milliseconds(Doorkeeper::answerMs));
  const std::size_t owner = attempt(1, "admin", "right");
  passWorking(std::chrono::milliseconds(2100));
  ASSERT_TRUE(isAnswered(owner));
  EXPECT_EQ(verdict(owner), Verdict::right);
}

TEST_F(DoorkeeperTest, MayBeAskedAgainByAnAnswer) {
  std::vector<Verdict> verdicts;
  doorkeeper_.attempt(address(1), "admin", Secret("wrong"), [&](const Doorkeeper::Answer& first) {
    verdicts.push_back(first.verdict);
    doorkeeper_.attempt(address(1), "admin", Secret("right"),
                        [&](const Doorkeeper::Answer& second) { verdicts.push_back(second.verdict); });
  });
  hasher_.finishAll();
  EXPECT_THAT(verdicts, ElementsAre(Verdict::wrong, Verdict::right));
}

TEST_F(DoorkeeperTest, EndsWithAttemptsUnderWay) {
  {
    Doorkeeper passing(accounts_, queue_, throttle_, timers_, dummy);
    for (int i = 0; i < 6; ++i)
      passing.attempt(address(1), "admin", Secret("right"), [](const Doorkeeper::Answer&) { ADD_FAILURE(); });
  }
  hasher_.finishAll();
  pass(std::chrono::seconds(10));
}

}  // namespace
}  // namespace userd
