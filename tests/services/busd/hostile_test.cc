#include <random>

#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

class HostileTest : public BrokerTest {
 protected:
  // Two honest programs reach each other, whatever else goes on.
  void expectService() {
    a_.send(b_.id(), "ping");
    const Delivered ping = b_.expectFrame();
    EXPECT_EQ(ping.text(), "ping");
    EXPECT_EQ(ping.peer, a_.id());
    b_.send(a_.id(), "pong");
    EXPECT_EQ(a_.expectFrame().text(), "pong");
  }

  Peer a_ = joined("a");
  Peer b_ = joined("b");
};

TEST_F(HostileTest, DisconnectsWhoeverBreaksTheFraming) {
  const tn::FrameHeader bad[] = {
      {tn::maxPayloadBytes + 1, 1000, 0},
      {0xffffffff, 1000, 0},
      {4, 1000, 1},
      {12, 1000, 3},
      {4, 1000, 4},
      {4, 1000, 2},
      {5000, 0, 2},
  };
  for (const tn::FrameHeader& header : bad) {
    Peer hostile = joined();
    Payload bytes = frameOf(a_.id(), tn::FrameKind::message, bytesOf("still good"));
    bytes.resize(bytes.size() + tn::frameHeaderBytes);
    tn::storeFrameHeader(bytes.data() + bytes.size() - tn::frameHeaderBytes, header);
    hostile.sendRaw(bytes);
    EXPECT_TRUE(hostile.disconnected());
    EXPECT_EQ(a_.expectFrame().text(), "still good");
    expectService();
  }
}

TEST_F(HostileTest, SurvivesRandomBytes) {
  std::mt19937 random(11);
  for (int round = 0; round < 200; ++round) {
    Peer hostile = joined("hostile", 0, otherUser);
    Payload noise(random() % 2000);
    for (std::uint8_t& byte : noise)
      byte = static_cast<std::uint8_t>(random());
    hostile.sendRaw(noise);
  }
  expectService();
  settle();
  EXPECT_EQ(broker_.clients(), 2U);
}

TEST_F(HostileTest, SurvivesRandomControlMessages) {
  std::mt19937 random(12);
  for (int round = 0; round < 300; ++round) {
    Peer hostile = joined("hostile", 0, otherUser);
    tn::message request;
    request.insert(field::operation, static_cast<std::uint32_t>(random() % 8));
    request.insert(field::number, tn::firstGroup + static_cast<std::uint32_t>(random() % 4));
    Payload bytes(request.flattened().begin(), request.flattened().end());
    bytes[random() % bytes.size()] = static_cast<std::uint8_t>(random());
    bytes.resize(random() % (bytes.size() + 4));
    hostile.sendRaw(frameOf(tn::brokerId, tn::FrameKind::control, bytes));
  }
  expectService();
}

// Never reads, and asks for what is longer than the question.
TEST_F(HostileTest, BoundsAFloodOfQuestions) {
  Peer hostile = joined("hostile", 0, otherUser);
  tn::message list;
  list.insert(field::operation, tn::control::statistics);
  const Payload question = frameOf(tn::brokerId, tn::FrameKind::control, list.flattened());
  Payload many;
  for (int i = 0; i < 2000; ++i)
    many.insert(many.end(), question.begin(), question.end());
  for (int i = 0; i < 50; ++i)
    hostile.sendRaw(many);
  expectService();
  const tn::message figures = a_.ask(tn::control::statistics);
  EXPECT_LE(figures.get(field::queued).value_or(0), tn::maxQueueBytes);
  EXPECT_GT(figures.get(field::dropped).value_or(0), 0U);
}

TEST_F(HostileTest, ServesOthersDuringAFloodOfTinyFrames) {
  Peer hostile = joined("hostile", 0, otherUser);
  Peer member = joined();
  member.ask(tn::control::joinGroup, 0xff0007);
  Payload flood;
  for (int i = 0; i < 20000; ++i) {
    const std::uint32_t to = i % 2 == 0 ? 0xff0007 : 68;
    const Payload frame = frameOf(to, tn::FrameKind::message, {});
    flood.insert(flood.end(), frame.begin(), frame.end());
  }
  for (int i = 0; i < 10; ++i)
    hostile.sendRaw(flood);
  expectService();
  EXPECT_EQ(member.expectFrame().peer, hostile.id());
}

TEST_F(HostileTest, ForgetsProgramsThatComeAndGo) {
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 500; ++i) {
    Peer passing(broker_);
    if (i % 2 == 0) passing.join();
    if (i % 3 == 0) passing.sendRaw(Payload{1, 2, 3});
  }
  settle();
  EXPECT_EQ(broker_.clients(), 2U);
  EXPECT_EQ(openDescriptors(), before);
  expectService();
}

}  // namespace
}  // namespace busd
