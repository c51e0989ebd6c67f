#include "services/userd/throttle.h"

#include <gtest/gtest.h>
#include <vector>

namespace userd {
namespace {

using namespace std::chrono_literals;
using Milliseconds = Throttle::Milliseconds;

tn::Addr6 ipv4(std::uint32_t number) {
  tn::Addr6 address{};
  address[10] = address[11] = 0xff;
  for (unsigned i = 0; i < 4; ++i)
    address[12 + i] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
  return address;
}

tn::Addr6 ipv6(std::uint8_t subnet, std::uint8_t host) {
  tn::Addr6 address{0x20, 0x01, 0x0d, 0xb8};
  address[7] = subnet;
  address[15] = host;
  return address;
}

class ThrottleTest : public ::testing::Test {
 protected:
  // Begins an attempt now; how long it waits, or -1 when it is refused.
  long begin(const tn::Addr6& address, std::string_view name = "admin") {
    last_ = throttle_.examine(Client::at(address), name, now_);
    const auto wait = throttle_.begin(last_, now_);
    return wait ? static_cast<long>(wait->count()) : -1;
  }
  void forgive() { throttle_.forgive(last_, now_); }

  Throttle throttle_{{1, 2, 3}};
  tn::Clock::time_point now_ = tn::Clock::time_point() + 1000h;
  Throttle::Attempt last_{};
};

TEST_F(ThrottleTest, LetsEachClientWaitLongerEachTime) {
  const std::vector<long> expected = {0, 0, 0, 250, 500, 1000, 2000, 4000, 4000, 4000};
  for (const long wait : expected) {
    EXPECT_EQ(begin(ipv4(1), "bob"), wait);
    now_ += Milliseconds(wait);
  }
}

TEST_F(ThrottleTest, GainsNothingByTryingAllAtOnce) {
  std::vector<long> waits;
  for (int i = 0; i < 10; ++i)
    waits.push_back(begin(ipv4(1), "bob"));
  EXPECT_EQ(waits, (std::vector<long>{0, 0, 0, 250, 750, 1750, 3750, -1, -1, -1}));
}

TEST_F(ThrottleTest, SaysInHowLongARefusedOneMayComeAgain) {
  while (begin(ipv4(1), "bob") >= 0) {
  }
  const auto refused = throttle_.begin(throttle_.examine(Client::at(ipv4(1)), "bob", now_), now_);
  ASSERT_FALSE(refused.has_value());
  now_ += refused.error();
  EXPECT_GE(begin(ipv4(1), "bob"), 0);
}

TEST_F(ThrottleTest, NeverHasAnybodyWaitLongerThanTheLongest) {
  for (std::uint32_t stranger = 0; stranger < 100; ++stranger)
    begin(ipv4(stranger));
  for (int i = 0; i < 50; ++i) {
    const long wait = begin(ipv4(1));
    EXPECT_LE(wait, Throttle::longestWait.count());
    now_ += 10s;
  }
}

TEST_F(ThrottleTest, ForgetsAfterAWhile) {
  for (int i = 0; i < 3; ++i)
    begin(ipv4(1), "bob");
  now_ += 59s;
  EXPECT_EQ(begin(ipv4(1), "bob"), 250);
  now_ += 2min;
  EXPECT_EQ(begin(ipv4(1), "bob"), 0);
}

TEST_F(ThrottleTest, TakesTheHostsOfOneIpv6NetworkForOneClient) {
  for (std::uint8_t host = 0; host < 3; ++host)
    EXPECT_EQ(begin(ipv6(1, host), "bob"), 0);
  EXPECT_EQ(begin(ipv6(1, 77), "bob"), 250);
  EXPECT_EQ(begin(ipv6(2, 77), "bob"), 0);
}

TEST_F(ThrottleTest, TellsIpv4ClientsApart) {
  for (std::uint32_t client = 0; client < 9; ++client)
    EXPECT_EQ(begin(ipv4(0x0a000000 + client), "bob"), 0);
}

TEST_F(ThrottleTest, LetsAllWaitForANameThatManyGotWrong) {
  for (std::uint32_t stranger = 0; stranger < 10; ++stranger)
    EXPECT_EQ(begin(ipv4(stranger)), 0);
  EXPECT_EQ(begin(ipv4(10)), 100);
  EXPECT_EQ(begin(ipv4(11)), 200);
  for (std::uint32_t stranger = 12; stranger < 1000; ++stranger)
    begin(ipv4(stranger));
  EXPECT_EQ(begin(ipv4(5000)), 2000);
  EXPECT_EQ(begin(ipv4(5001), "bob"), 0);
  now_ += 10min;
  EXPECT_EQ(begin(ipv4(5002)), 0);
}

// What nobody knows is counted just the same, or the wait would tell which names there are.
TEST_F(ThrottleTest, HasNoIdeaWhoIsThere) {
  for (std::uint32_t stranger = 0; stranger < 30; ++stranger)
    EXPECT_EQ(begin(ipv4(stranger), "admin"), begin(ipv4(1000 + stranger), "nobody at all"));
}

TEST_F(ThrottleTest, DoesNotMakeAUserWaitWhereHeLoggedIn) {
  begin(ipv4(77));
  forgive();
  for (std::uint32_t stranger = 1000; stranger < 2000; ++stranger)
    begin(ipv4(stranger));
  EXPECT_EQ(begin(ipv4(78)), 2000);
  EXPECT_EQ(begin(ipv4(77)), 0);
  EXPECT_TRUE(last_.trusted);
  now_ += 24h * 29;
  EXPECT_TRUE(throttle_.examine(Client::at(ipv4(77)), "admin", now_).trusted);
  EXPECT_FALSE(throttle_.examine(Client::at(ipv4(77)), "bob", now_).trusted);
}

TEST_F(ThrottleTest, ForgivesNoMoreThanTheRightAttemptItself) {
  for (int i = 0; i < 4; ++i)
    begin(ipv4(1), "bob");
  now_ += 1s;
  EXPECT_EQ(begin(ipv4(1), "own account"), 500);
  forgive();
  now_ += 1s;
  EXPECT_EQ(begin(ipv4(1), "bob"), 500);
}

TEST_F(ThrottleTest, KeepsTheCountsOfTheFewInAFloodOfStrangers) {
  for (int i = 0; i < 5; ++i) {
    begin(ipv4(1), "bob");
    now_ += 1s;
  }
  for (std::uint32_t stranger = 0; stranger < 100'000; ++stranger)
    begin(ipv4(0x0a000000 + stranger), "name " + std::to_string(stranger));
  EXPECT_EQ(begin(ipv4(1), "bob"), 1000);
}

TEST_F(ThrottleTest, TellsSessionsAndAddressesApart) {
  const auto session = throttle_.examine(Client::sessionOf("bob"), "bob", now_);
  const auto address = throttle_.examine(Client::at(ipv4(1)), "bob", now_);
  EXPECT_NE(session.client, address.client);
  EXPECT_EQ(session.name, address.name);
}

}  // namespace
}  // namespace userd
