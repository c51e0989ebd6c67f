#include <random>

#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

class RoutingTest : public BrokerTest {};

TEST_F(RoutingTest, StampsTheSender) {
  Peer from = joined();
  Peer to = joined();
  from.send(to.id(), "hello");
  const Delivered got = to.expectFrame();
  EXPECT_EQ(got.peer, from.id());
  EXPECT_EQ(got.kind, tn::FrameKind::message);
  EXPECT_EQ(got.text(), "hello");
  EXPECT_TRUE(from.quiet());
}

TEST_F(RoutingTest, CarriesEveryByteAndAnEmptyPayload) {
  Peer from = joined();
  Peer to = joined();
  Payload all(256);
  for (std::size_t i = 0; i < all.size(); ++i)
    all[i] = static_cast<std::uint8_t>(i);
  from.send(to.id(), all);
  from.send(to.id(), "");
  EXPECT_EQ(to.expectFrame().payload, all);
  EXPECT_EQ(to.expectFrame().payload, Payload());
}

TEST_F(RoutingTest, TakesAFrameByteByByte) {
  Peer from = joined();
  Peer to = joined();
  for (const std::uint8_t byte : frameOf(to.id(), tn::FrameKind::message, bytesOf("slowly"))) {
    from.sendRaw({&byte, 1});
    settle();
  }
  EXPECT_EQ(to.expectFrame().text(), "slowly");
}

TEST_F(RoutingTest, DeliversToTheSenderItself) {
  Peer peer = joined();
  peer.send(peer.id(), "me");
  const Delivered got = peer.expectFrame();
  EXPECT_EQ(got.peer, peer.id());
  EXPECT_EQ(got.kind, tn::FrameKind::message);
  EXPECT_TRUE(peer.quiet());
}

TEST_F(RoutingTest, BouncesWhatHasNoDestination) {
  Peer from = joined();
  for (const std::uint32_t absent : {0U, 68U, 4711U, 0xfeffffU}) {
    from.send(absent, "are you there");
    const Delivered got = from.expectFrame();
    EXPECT_EQ(got.kind, tn::FrameKind::bounced);
    EXPECT_EQ(got.peer, absent);
    EXPECT_EQ(got.text(), "are you there");
  }
  EXPECT_TRUE(from.quiet());
}

TEST_F(RoutingTest, BouncesALargeFrameToo) {
  Peer from = joined();
  const Payload large(300000, 'l');
  from.send(68, large);
  const Delivered got = from.expectFrame();
  EXPECT_EQ(got.kind, tn::FrameKind::bounced);
  EXPECT_EQ(got.peer, 68U);
  EXPECT_TRUE(got.payload == large);
}

TEST_F(RoutingTest, BouncesWhatIsForAProgramThatLeft) {
  Peer from = joined();
  Peer to = joined();
  to.close();
  settle();
  from.send(to.id(), "too late");
  EXPECT_EQ(from.expectFrame().kind, tn::FrameKind::bounced);
}

// The end of the destination and frames for it are found in one turn.
TEST_F(RoutingTest, BouncesWhatIsForAProgramThatLeavesMeanwhile) {
  Peer from = joined();
  Peer to = joined();
  const std::uint32_t gone = to.id();
  for (int i = 0; i < 3; ++i)
    from.send(gone, "crossing");
  to.close();
  for (int i = 0; i < 3; ++i) {
    const Delivered got = from.expectFrame();
    EXPECT_EQ(got.kind, tn::FrameKind::bounced);
    EXPECT_EQ(got.peer, gone);
    EXPECT_EQ(got.text(), "crossing");
  }
}

TEST_F(RoutingTest, DeliversWhatAProgramSentBeforeItLeft) {
  Peer to = joined();
  Peer from = joined();
  from.send(to.id(), "farewell");
  from.send(68, "unanswered");
  from.close();
  EXPECT_EQ(to.expectFrame().text(), "farewell");
  settle();
  EXPECT_EQ(broker_.clients(), 1U);
}

TEST_F(RoutingTest, KeepsTheOrderOfAMixedStream) {
  Peer from = joined();
  Peer a = joined();
  Peer b = joined();
  Payload stream;
  for (int i = 0; i < 200; ++i) {
    const std::uint32_t to = i % 3 == 0 ? a.id() : i % 3 == 1 ? b.id() : 68;
    const Payload frame = frameOf(to, tn::FrameKind::message, bytesOf(std::to_string(i)));
    stream.insert(stream.end(), frame.begin(), frame.end());
  }
  from.sendRaw(stream);
  for (int i = 0; i < 200; ++i) {
    Peer& where = i % 3 == 0 ? a : i % 3 == 1 ? b : from;
    EXPECT_EQ(where.expectFrame().text(), std::to_string(i));
  }
}

TEST_F(RoutingTest, GivesGroupsACopyEachButNotTheSender) {
  constexpr std::uint32_t group = tn::sessionEndGroup;
  Peer from = joined();
  Peer a = joined();
  Peer b = joined();
  Peer outsider = joined();
  for (Peer* member : {&from, &a, &b})
    member->ask(tn::control::joinGroup, group);
  from.send(group, "to all");
  for (Peer* member : {&a, &b}) {
    const Delivered got = member->expectFrame();
    EXPECT_EQ(got.peer, from.id());
    EXPECT_EQ(got.kind, tn::FrameKind::message);
    EXPECT_EQ(got.text(), "to all");
  }
  EXPECT_TRUE(from.quiet());
  EXPECT_TRUE(outsider.quiet());
  outsider.send(group, "from outside");
  EXPECT_EQ(from.expectFrame().text(), "from outside");
}

TEST_F(RoutingTest, JoinsAGroupOnceHoweverOftenItIsAskedTo) {
  Peer from = joined();
  Peer member = joined();
  member.ask(tn::control::joinGroup, 0xff0005);
  member.ask(tn::control::joinGroup, 0xff0005);
  from.send(0xff0005, "once");
  EXPECT_EQ(member.expectFrame().text(), "once");
  EXPECT_TRUE(member.quiet());
  member.ask(tn::control::leaveGroup, 0xff0005);
  from.send(0xff0005, "no more");
  EXPECT_TRUE(member.quiet());
  EXPECT_TRUE(from.quiet());
}

TEST_F(RoutingTest, DropsWhatIsForAnEmptyGroup) {
  Peer from = joined();
  Peer member = joined();
  member.ask(tn::control::joinGroup, 0xff0005);
  member.close();
  settle();
  from.send(0xff0005, "nobody");
  from.send(0xffffffff, "no group");
  EXPECT_TRUE(from.quiet());
}

TEST_F(RoutingTest, GivesLargeFramesToGroups) {
  Peer from = joined();
  Peer a = joined();
  Peer b = joined();
  a.ask(tn::control::joinGroup, 0xff0002);
  b.ask(tn::control::joinGroup, 0xff0002);
  const Payload large(tn::maxPayloadBytes, 'g');
  from.send(0xff0002, large);
  from.send(0xff0002, "behind it");
  for (Peer* member : {&a, &b}) {
    EXPECT_TRUE(member->expectFrame().payload == large);
    EXPECT_EQ(member->expectFrame().text(), "behind it");
  }
}

// A frame that was sent to a group before a member left it comes before the answer.
TEST_F(RoutingTest, AnswersBehindWhatWasRoutedBefore) {
  Peer peer = joined();
  Payload stream = frameOf(peer.id(), tn::FrameKind::message, bytesOf("before"));
  tn::message list;
  list.insert(field::operation, tn::control::list);
  const Payload control = frameOf(tn::brokerId, tn::FrameKind::control, list.flattened());
  stream.insert(stream.end(), control.begin(), control.end());
  const Payload behind = frameOf(peer.id(), tn::FrameKind::message, bytesOf("behind"));
  stream.insert(stream.end(), behind.begin(), behind.end());
  peer.sendRaw(stream);
  EXPECT_EQ(peer.expectFrame().text(), "before");
  EXPECT_EQ(peer.expectFrame().kind, tn::FrameKind::control);
  EXPECT_EQ(peer.expectFrame().text(), "behind");
}

TEST_F(RoutingTest, CarriesTheLargestPayload) {
  Peer from = joined();
  Peer to = joined();
  Payload largest(tn::maxPayloadBytes);
  std::mt19937 random(3);
  for (std::uint8_t& byte : largest)
    byte = static_cast<std::uint8_t>(random());
  from.send(to.id(), "before");
  from.send(to.id(), largest);
  from.send(to.id(), "behind");
  EXPECT_EQ(to.expectFrame().text(), "before");
  EXPECT_TRUE(to.expectFrame().payload == largest);
  EXPECT_EQ(to.expectFrame().text(), "behind");
}

}  // namespace
}  // namespace busd
