#include "services/hotspotd/visitors.h"

#include <gtest/gtest.h>

namespace {

using hotspot::Visitor;
using hotspot::Visitors;
using std::chrono::minutes;
using std::chrono::seconds;
using Verdict = Visitors::Verdict;

Visitor ipv4(std::uint32_t number, std::uint32_t tag = 0) {
  Visitor visitor{{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff}, tag};
  for (int i = 0; i < 4; ++i)
    visitor.address[static_cast<std::size_t>(12 + i)] = static_cast<std::uint8_t>(number >> (24 - 8 * i));
  return visitor;
}

Visitor ipv6(std::uint8_t network, std::uint8_t host) {
  Visitor visitor;
  visitor.address[0] = 0x20;
  visitor.address[7] = network;
  visitor.address[8] = host;
  visitor.address[15] = host;
  return visitor;
}

class HotspotVisitorsTest : public testing::Test {
 protected:
  Verdict logIn(const Visitor& visitor, bool right = true) { return visitors.logIn(visitor, right, minutes(60), now); }
  [[nodiscard]] bool isIn(const Visitor& visitor) const { return visitors.remaining(visitor, now).has_value(); }

  Visitors visitors;
  tn::Clock::time_point now = tn::Clock::time_point() + minutes(100);
};

TEST_F(HotspotVisitorsTest, LogsInAndOut) {
  EXPECT_FALSE(isIn(ipv4(1)));
  EXPECT_FALSE(visitors.logOut(ipv4(1)));
  EXPECT_EQ(logIn(ipv4(1)), Verdict::admitted);
  EXPECT_EQ(visitors.remaining(ipv4(1), now), seconds(3600));
  EXPECT_TRUE(visitors.logOut(ipv4(1)));
  EXPECT_FALSE(isIn(ipv4(1)));
}

TEST_F(HotspotVisitorsTest, EachAddressAndTagIsAnother) {
  logIn(ipv4(1, 7));
  EXPECT_TRUE(isIn(ipv4(1, 7)));
  EXPECT_FALSE(isIn(ipv4(1, 8)));
  EXPECT_FALSE(isIn(ipv4(1)));
  EXPECT_FALSE(isIn(ipv4(2, 7)));
  logIn(ipv6(1, 1));
  EXPECT_FALSE(isIn(ipv6(1, 2)));
}

TEST_F(HotspotVisitorsTest, ALoginEnds) {
  logIn(ipv4(1));
  now += minutes(60) - std::chrono::milliseconds(1);
  EXPECT_EQ(visitors.remaining(ipv4(1), now), seconds(1));
  EXPECT_EQ(visitors.loggedIn(now), 1U);
  now += std::chrono::milliseconds(1);
  EXPECT_FALSE(isIn(ipv4(1)));
  EXPECT_EQ(visitors.loggedIn(now), 0U);
}

TEST_F(HotspotVisitorsTest, ALoginBeginsAnew) {
  logIn(ipv4(1));
  now += minutes(59);
  EXPECT_EQ(logIn(ipv4(1)), Verdict::admitted);
  EXPECT_EQ(visitors.remaining(ipv4(1), now), seconds(3600));
  EXPECT_EQ(visitors.loggedIn(now), 1U);
}

TEST_F(HotspotVisitorsTest, AWrongCodeDoesNotLogOut) {
  logIn(ipv4(1));
  EXPECT_EQ(logIn(ipv4(1), false), Verdict::wrongCode);
  EXPECT_TRUE(isIn(ipv4(1)));
}

TEST_F(HotspotVisitorsTest, FiveWrongCodesAMinute) {
  for (unsigned i = 0; i < Visitors::maxTries; ++i)
    EXPECT_EQ(logIn(ipv4(1), false), Verdict::wrongCode);
  EXPECT_EQ(logIn(ipv4(1), false), Verdict::tooManyTries);
  EXPECT_EQ(logIn(ipv4(1), true), Verdict::tooManyTries);
  EXPECT_FALSE(isIn(ipv4(1)));
  EXPECT_EQ(logIn(ipv4(2)), Verdict::admitted);
  EXPECT_EQ(logIn(ipv4(1, 5)), Verdict::admitted);
  now += Visitors::triesFor - std::chrono::milliseconds(1);
  EXPECT_EQ(logIn(ipv4(1)), Verdict::tooManyTries);
  now += std::chrono::milliseconds(1);
  EXPECT_EQ(logIn(ipv4(1), false), Verdict::wrongCode);
  EXPECT_EQ(logIn(ipv4(1)), Verdict::admitted);
}

TEST_F(HotspotVisitorsTest, ARightCodeForgetsWrongOnes) {
  for (int round = 0; round < 5; ++round) {
    for (unsigned i = 1; i < Visitors::maxTries; ++i)
      EXPECT_EQ(logIn(ipv4(1), false), Verdict::wrongCode);
    EXPECT_EQ(logIn(ipv4(1)), Verdict::admitted);
  }
  EXPECT_EQ(visitors.suspects(), 0U);
}

TEST_F(HotspotVisitorsTest, TriesCountForAnIPv6Network) {
  for (unsigned i = 0; i < Visitors::maxTries; ++i)
    EXPECT_EQ(logIn(ipv6(1, static_cast<std::uint8_t>(i)), false), Verdict::wrongCode);
  EXPECT_EQ(logIn(ipv6(1, 200)), Verdict::tooManyTries);
  EXPECT_EQ(logIn(ipv6(2, 200)), Verdict::admitted);
  EXPECT_EQ(visitors.suspects(), 1U);
}

TEST_F(HotspotVisitorsTest, OnlySoManyAreLoggedIn) {
  for (std::uint32_t i = 0; i < Visitors::maxLoggedIn; ++i)
    ASSERT_EQ(logIn(ipv4(i)), Verdict::admitted);
  EXPECT_EQ(logIn(ipv4(1 << 20)), Verdict::full);
  EXPECT_EQ(logIn(ipv4(5)), Verdict::admitted);
  now += minutes(30);
  EXPECT_EQ(logIn(ipv4(5)), Verdict::admitted);
  now += minutes(30);
  EXPECT_EQ(logIn(ipv4(1 << 20)), Verdict::admitted);
  EXPECT_EQ(visitors.loggedIn(now), 2U);
}

TEST_F(HotspotVisitorsTest, OnlySoManySuspectsAreRemembered) {
  for (unsigned i = 0; i < Visitors::maxTries; ++i)
    logIn(ipv4(1 << 20), false);
  now += seconds(1);
  for (std::uint32_t i = 1; i < Visitors::maxSuspects; ++i)
    logIn(ipv4(i), false);
  EXPECT_EQ(visitors.suspects(), Visitors::maxSuspects);
  EXPECT_EQ(logIn(ipv4(1 << 20), false), Verdict::tooManyTries);
  // One more, and the oldest is forgotten.
  logIn(ipv4(1 << 21), false);
  EXPECT_EQ(visitors.suspects(), Visitors::maxSuspects);
  EXPECT_EQ(logIn(ipv4(1 << 20), false), Verdict::wrongCode);
  now += Visitors::triesFor;
  logIn(ipv4(1 << 22), false);
  EXPECT_EQ(visitors.suspects(), 1U);
}

}  // namespace
