#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

struct Observed {
  std::uint32_t from;
  std::uint32_t to;
  tn::FrameKind kind;
  std::string text;
};

class MonitorTest : public BrokerTest {
 protected:
  Peer monitoring(uid_t uid = 0) {
    Peer monitor = joined("monitor", 0, uid);
    EXPECT_FALSE(monitor.ask(tn::control::monitor).has(tn::field::errorCode));
    return monitor;
  }
  static Observed next(Peer& monitor) {
    const Delivered frame = monitor.expectFrame();
    EXPECT_EQ(frame.kind, tn::FrameKind::observed);
    EXPECT_EQ(frame.peer, tn::brokerId);
    if (frame.payload.size() < 12) {
      ADD_FAILURE() << "an observed frame of " << frame.payload.size() << " bytes";
      return {};
    }
    const std::uint8_t* head = frame.payload.data();
    return {loadLe32(head), loadLe32(head + 4), tn::FrameKind{loadLe32(head + 8)}, frame.text().substr(12)};
  }
  static void expectNext(Peer& monitor, const Observed& expected) {
    const Observed got = next(monitor);
    EXPECT_EQ(got.from, expected.from);
    EXPECT_EQ(got.to, expected.to);
    EXPECT_EQ(got.kind, expected.kind);
    EXPECT_EQ(got.text, expected.text);
  }
};

TEST_F(MonitorTest, SeesMessagesBouncesGroupsAndControl) {
  Peer a = joined("a");
  Peer b = joined("b");
  b.ask(tn::control::joinGroup, 0xff0001);
  Peer monitor = monitoring();
  a.send(b.id(), "message");
  EXPECT_EQ(b.expectFrame().text(), "message");
  expectNext(monitor, {a.id(), b.id(), tn::FrameKind::message, "message"});
  a.send(68, "bounced");
  EXPECT_EQ(a.expectFrame().kind, tn::FrameKind::bounced);
  expectNext(monitor, {a.id(), 68, tn::FrameKind::message, "bounced"});
  expectNext(monitor, {68, a.id(), tn::FrameKind::bounced, "bounced"});
  a.send(0xff0001, "group");
  EXPECT_EQ(b.expectFrame().text(), "group");
  expectNext(monitor, {a.id(), 0xff0001, tn::FrameKind::message, "group"});
  a.ask(tn::control::list);
  const Observed question = next(monitor);
  EXPECT_EQ(question.from, a.id());
  EXPECT_EQ(question.to, 0U);
  EXPECT_EQ(question.kind, tn::FrameKind::control);
  const Observed answer = next(monitor);
  EXPECT_EQ(answer.from, 0U);
  EXPECT_EQ(answer.to, a.id());
  EXPECT_EQ(answer.kind, tn::FrameKind::control);
  EXPECT_TRUE(monitor.quiet());
}

// No frame of the broker is larger than one of a program.
TEST_F(MonitorTest, SeesWhatFitsAFrameWithItsAddresses) {
  Peer a = joined("a");
  Peer monitor = monitoring();
  constexpr std::size_t largest = tn::maxPayloadBytes - 12;
  a.send(a.id(), Payload(largest + 1, 's'));
  a.send(a.id(), Payload(largest, 'l'));
  EXPECT_EQ(a.expectFrame().payload.size(), largest + 1);
  EXPECT_EQ(a.expectFrame().payload.size(), largest);
  EXPECT_EQ(next(monitor).text, std::string(largest, 'l'));
  EXPECT_EQ(monitor.ask(tn::control::statistics).get(field::unobserved), 1U);
}

TEST_F(MonitorTest, IsForRootAndTheBrokersUserAlone) {
  Peer own = monitoring(brokerUser);
  Peer other = joined("other", 0, otherUser);
  const tn::message answer = other.ask(tn::control::monitor);
  EXPECT_EQ(answer.get(tn::field::errorCode), tn::error::notAllowed);
  EXPECT_EQ(answer.get(tn::field::errorText), "monitoring is not allowed for this user");
  other.send(other.id(), "unseen by it");
  EXPECT_EQ(other.expectFrame().kind, tn::FrameKind::message);
  EXPECT_TRUE(other.quiet());
}

TEST_F(MonitorTest, EndsWhenAskedToOrWithTheProgram) {
  Peer a = joined("a");
  Peer monitor = monitoring();
  tn::message off;
  off.insert(field::operation, tn::control::monitor);
  off.insert(field::off, true);
  EXPECT_FALSE(monitor.ask(off).has(tn::field::errorCode));
  a.send(a.id(), "private");
  EXPECT_EQ(a.expectFrame().text(), "private");
  EXPECT_TRUE(monitor.quiet());
  { Peer second = monitoring(); }
  a.send(a.id(), "nobody looks");
  EXPECT_EQ(a.expectFrame().text(), "nobody looks");
}

TEST_F(MonitorTest, NeverHoldsUpWhatItWatches) {
  Peer a = joined("a");
  Peer b = joined("b");
  Peer monitor = monitoring();
  const std::string text(100000, 'm');
  for (int i = 0; i < 200; ++i) {
    a.send(b.id(), text);
    ASSERT_EQ(b.expectFrame().text(), text);
  }
  EXPECT_TRUE(a.quiet());
  const tn::message figures = b.ask(tn::control::statistics);
  const std::uint64_t unobserved = figures.get(field::unobserved).value_or(0);
  EXPECT_GT(unobserved, 50U);
  EXPECT_LE(figures.get(field::queued).value_or(0), tn::maxQueueBytes);
  std::uint64_t observed = 0;
  while (auto frame = monitor.receive(std::chrono::milliseconds(0)))
    observed += frame->payload.size() == text.size() + 12 ? 1 : 0;
  EXPECT_GE(observed + unobserved, 200U);
  EXPECT_LE(observed, 200U);
}

}  // namespace
}  // namespace busd
