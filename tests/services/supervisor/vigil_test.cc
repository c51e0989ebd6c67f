#include "services/supervisor/vigil.h"

#include <gtest/gtest.h>
#include <vector>

#include "services/supervisor/restart_pause.h"

namespace tnrun {
namespace {

using Hung = std::vector<std::size_t>;

constexpr std::size_t broker = 0;
constexpr std::size_t server = 1;
constexpr std::size_t keeper = 2;

class VigilTest : public ::testing::Test {
 protected:
  Hung round(const std::vector<std::size_t>& answered) {
    for (const std::size_t program : answered)
      vigil.answered(program);
    return vigil.closeRound();
  }
  Hung rounds(unsigned count, const std::vector<std::size_t>& answered) {
    Hung last;
    for (unsigned i = 0; i < count; ++i)
      last = round(answered);
    return last;
  }

  Vigil vigil{3, broker};
};

TEST_F(VigilTest, WhoAnswersIsNeverHung) {
  EXPECT_EQ(rounds(100, {broker, server, keeper}), Hung{});
}

TEST_F(VigilTest, SilenceForTheWholePatienceIsHung) {
  EXPECT_EQ(rounds(Vigil::patience - 1, {broker, keeper}), Hung{});
  EXPECT_EQ(round({broker, keeper}), Hung{server});
}

TEST_F(VigilTest, OneAnswerMendsAll) {
  rounds(Vigil::patience - 1, {broker, keeper});
  EXPECT_EQ(round({broker, server, keeper}), Hung{});
  EXPECT_EQ(rounds(Vigil::patience - 1, {broker, keeper}), Hung{});
}

TEST_F(VigilTest, ASilentBrokerIsBlamedAlone) {
  EXPECT_EQ(rounds(Vigil::patience, {}), Hung{broker});
  vigil.forgive(broker);
  EXPECT_EQ(round({broker, server, keeper}), Hung{});
}

TEST_F(VigilTest, RoundsWithoutTheBrokerDoNotCountAgainstOthers) {
  rounds(Vigil::patience - 1, {broker, keeper});
  EXPECT_EQ(rounds(2, {}), Hung{});
  EXPECT_EQ(round({broker, keeper}), Hung{server});
}

TEST_F(VigilTest, WhoIsForgivenBeginsAnew) {
  rounds(Vigil::patience, {broker, keeper});
  vigil.forgive(server);
  EXPECT_EQ(rounds(Vigil::patience - 1, {broker, keeper}), Hung{});
  EXPECT_EQ(round({broker, keeper}), Hung{server});
}

TEST_F(VigilTest, WhoIsNotForgivenIsNamedAgain) {
  EXPECT_EQ(rounds(Vigil::patience, {broker}), (Hung{server, keeper}));
  EXPECT_EQ(round({broker}), (Hung{server, keeper}));
}

TEST(RestartPause, GrowsUpToTheLongest) {
  RestartPause pause;
  std::uint32_t last = pause.after(0);
  EXPECT_EQ(last, RestartPause::firstMs);
  EXPECT_EQ(pause.after(0), 2 * RestartPause::firstMs);
  for (int i = 0; i < 20; ++i)
    last = pause.after(RestartPause::wellMs - 1);
  EXPECT_EQ(last, RestartPause::longestMs);
}

TEST(RestartPause, BeginsAnewAfterAGoodRun) {
  RestartPause pause;
  for (int i = 0; i < 5; ++i)
    static_cast<void>(pause.after(0));
  EXPECT_EQ(pause.after(RestartPause::wellMs), RestartPause::firstMs);
  EXPECT_EQ(pause.after(0), 2 * RestartPause::firstMs);
}

}  // namespace
}  // namespace tnrun
