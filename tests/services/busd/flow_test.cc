#include <map>
#include <memory>
#include <random>

#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

// What the broker tells of its queues and unfinished frames. It answers the asker only, who reads.
std::uint64_t figure(Peer& asker, const tn::u64_id& id) {
  return asker.ask(tn::control::statistics).get(id).value_or(0);
}

class FlowTest : public BrokerTest {};

TEST_F(FlowTest, KeepsWhatASlowReaderDoesNotTakeAndServesTheOthers) {
  Peer from = joined();
  Peer slow = joined();
  Peer quick = joined();
  constexpr int frames = 3000;
  for (int i = 0; i < frames; ++i) {
    const std::string text = std::to_string(i) + std::string(1000, ' ');
    from.send(slow.id(), text);
    from.send(quick.id(), text);
    EXPECT_EQ(quick.expectFrame().text(), text);
  }
  EXPECT_GT(figure(quick, field::queued), 1000000U);
  for (int i = 0; i < frames; ++i)
    EXPECT_EQ(slow.expectFrame().text(), std::to_string(i) + std::string(1000, ' '));
  EXPECT_EQ(figure(quick, field::queued), 0U);
  EXPECT_TRUE(from.quiet());
}

TEST_F(FlowTest, BouncesWhatAQueueHasNoRoomFor) {
  Peer from = joined();
  Peer to = joined();
  const Payload payload(100000, 'q');
  int bounced = 0;
  for (int i = 0; i < 120; ++i) {
    from.send(to.id(), payload);
    while (auto back = from.receive(std::chrono::milliseconds(0))) {
      EXPECT_EQ(back->kind, tn::FrameKind::bounced);
      EXPECT_EQ(back->peer, to.id());
      EXPECT_TRUE(back->payload == payload);
      ++bounced;
    }
  }
  EXPECT_GT(bounced, 20);
  const std::uint64_t queued = figure(from, field::queued);
  EXPECT_LE(queued, tn::maxQueueBytes);
  EXPECT_GT(queued, tn::maxQueueBytes - 100012);
  int delivered = 0;
  while (delivered + bounced < 120) {
    ASSERT_TRUE(to.expectFrame().payload == payload);
    ++delivered;
  }
  EXPECT_TRUE(to.quiet());
  from.send(to.id(), "room again");
  EXPECT_EQ(to.expectFrame().text(), "room again");
}

// A frame that was begun is completed, even when the rest is all the queue can take and more.
TEST_F(FlowTest, CompletesAFrameThatWasBegun) {
  Peer from = joined();
  Peer to = joined();
  const Payload largest(tn::maxPayloadBytes, 'x');
  std::size_t bounced = 0;
  for (int i = 0; i < 4; ++i) {
    from.send(to.id(), largest);
    while (from.receive(std::chrono::milliseconds(0)))
      ++bounced;
  }
  std::size_t delivered = 0;
  while (delivered + bounced < 4) {
    ASSERT_TRUE(to.expectFrame().payload == largest);
    ++delivered;
  }
  EXPECT_GE(delivered, 2U);
  EXPECT_GE(bounced, 1U);
  EXPECT_TRUE(to.quiet());
}

// Nobody reads: neither the destination, nor the sender its bounced frames.
TEST_F(FlowTest, DropsBouncedFramesThatTheirSenderDoesNotRead) {
  Peer from = joined();
  Peer to = joined();
  Peer other = joined();
  const Payload payload(1U << 20, 'd');
  for (int i = 0; i < 40; ++i)
    from.send(to.id(), payload);
  settle();
  EXPECT_LE(figure(other, field::queued), 2 * tn::maxQueueBytes);
  EXPECT_GT(figure(other, field::dropped), 10U);
  EXPECT_EQ(from.expectFrame().kind, tn::FrameKind::bounced);
}

Limits smallBudget() {
  Limits limits;
  limits.queueBytes = 1U << 20;
  limits.allQueuesBytes = 2U << 20;
  return limits;
}

class BudgetTest : public BrokerTest {
 protected:
  BudgetTest() : BrokerTest(smallBudget()) {}
};

// However many programs stop reading, the next one still gets some of a queue.
TEST_F(BudgetTest, LeavesRoomForTheNextQueue) {
  Peer from = joined();
  std::vector<Peer> readers;
  for (int i = 0; i < 6; ++i)
    readers.push_back(joined());
  const Payload payload(10000, 'b');
  for (Peer& reader : readers) {
    const std::uint64_t before = figure(from, field::queued);
    for (int i = 0; i < 150; ++i) {
      from.send(reader.id(), payload);
      while (from.receive(std::chrono::milliseconds(0))) {
      }
    }
    const std::uint64_t after = figure(from, field::queued);
    EXPECT_LE(after - before, 1U << 20);
    EXPECT_GT(after, before);
    EXPECT_LT(after, 2U << 20);
  }
}

Limits unfinishedLimits() {
  Limits limits;
  limits.unfinishedBytes = 9U << 20;
  return limits;
}

class UnfinishedTest : public BrokerTest {
 protected:
  UnfinishedTest() : BrokerTest(unfinishedLimits()) {}
};

TEST_F(UnfinishedTest, GivesUpTheOldestWhenTooMuchIsAnnounced) {
  Peer asker = joined();
  Peer first = joined();
  Peer second = joined();
  Peer third = joined();
  first.sendBeginning(tn::maxPayloadBytes, 100);
  settle();
  second.sendBeginning(tn::maxPayloadBytes, 100);
  settle();
  EXPECT_EQ(figure(asker, field::unfinished), 2 * (tn::maxPayloadBytes + tn::frameHeaderBytes));
  third.sendBeginning(tn::maxPayloadBytes, 100);
  EXPECT_TRUE(first.disconnected());
  EXPECT_EQ(figure(asker, field::unfinished), 2 * (tn::maxPayloadBytes + tn::frameHeaderBytes));
  second.close();
  third.close();
  settle();
  EXPECT_EQ(figure(asker, field::unfinished), 0U);
}

// What is given up counts no longer, although it is still there until the turn ends.
TEST_F(UnfinishedTest, GivesUpNoMoreThanItMust) {
  Peer first = joined();
  Peer second = joined();
  Peer third = joined();
  Peer fourth = joined();
  for (Peer* peer : {&first, &second, &third})
    peer->sendBeginning(tn::maxPayloadBytes, 100);
  fourth.sendBeginning(20, 15);
  EXPECT_TRUE(first.disconnected());
  EXPECT_TRUE(second.quiet());
  EXPECT_TRUE(third.quiet());
  EXPECT_TRUE(fourth.quiet());
}

Limits hastyLimits() {
  Limits limits;
  limits.frameMs = 30;
  return limits;
}

class HastyTest : public BrokerTest {
 protected:
  HastyTest() : BrokerTest(hastyLimits()) {}
};

TEST_F(HastyTest, DisconnectsWhoeverDoesNotFinishAFrame) {
  Peer header = joined();
  Peer small = joined();
  Peer large = joined();
  Peer idle = joined();
  header.sendRaw(Payload{1});
  small.sendBeginning(100, 50);
  large.sendBeginning(100000, 50);
  EXPECT_TRUE(header.disconnected());
  EXPECT_TRUE(small.disconnected());
  EXPECT_TRUE(large.disconnected());
  idle.send(idle.id(), "still here");
  EXPECT_EQ(idle.expectFrame().text(), "still here");
}

// Several programs send to each other at random, in pieces of any size, and read when they like. Every frame arrives or
// comes back, those of one sender to one destination in order.
class Crowd {
 public:
  Crowd(Broker& broker, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
      peers_.push_back(std::make_unique<Peer>(broker));
      peers_.back()->join();
    }
  }

  void sendSome() {
    Peer& from = *peers_[random_() % peers_.size()];
    Payload stream;
    const std::size_t frames = 1 + random_() % 40;
    for (std::size_t i = 0; i < frames; ++i) {
      const std::uint32_t to = random_() % 8 == 0 ? 68 : peers_[random_() % peers_.size()]->id();
      const Payload frame = frameOf(to, tn::FrameKind::message, numbered(sent_[{from.id(), to}]++));
      stream.insert(stream.end(), frame.begin(), frame.end());
    }
    std::span<const std::uint8_t> left = stream;
    while (!left.empty()) {
      const std::size_t n = std::min<std::size_t>(left.size(), 1 + random_() % 30000);
      from.sendRaw(left.first(n));
      left = left.subspan(n);
    }
  }
  void readSome(Peer& peer) {
    while (auto frame = peer.receive(std::chrono::milliseconds(0))) {
      const bool bounced = frame->kind == tn::FrameKind::bounced;
      const auto way = bounced ? std::pair(peer.id(), frame->peer) : std::pair(frame->peer, peer.id());
      const std::uint32_t number = loadLe32(frame->payload.data());
      EXPECT_TRUE(frame->payload == numbered(number));
      if (!bounced) {
        EXPECT_GE(number, next_[way]);
        next_[way] = number + 1;
      }
      ++arrived_[way];
    }
  }
  void readSome() { readSome(*peers_[random_() % peers_.size()]); }
  void readAll() {
    for (int i = 0; i < 20; ++i) {
      for (const auto& peer : peers_)
        readSome(*peer);
    }
  }
  void expectAll() const { EXPECT_EQ(arrived_, sent_); }

 private:
  using Way = std::pair<std::uint32_t, std::uint32_t>;

  static Payload numbered(std::uint32_t number) {
    Payload payload(number % 50 == 0 ? 60000 : 4 + number % 300, static_cast<std::uint8_t>(number));
    storeLe32(payload.data(), number);
    return payload;
  }

  std::mt19937 random_{7};
  std::vector<std::unique_ptr<Peer>> peers_;
  std::map<Way, std::uint32_t> sent_;
  std::map<Way, std::uint32_t> next_;
  std::map<Way, std::uint32_t> arrived_;
};

TEST_F(BudgetTest, LosesNothingInACrowd) {
  Crowd crowd(broker_, 7);
  for (int i = 0; i < 600; ++i) {
    crowd.sendSome();
    if (i % 5 == 0) crowd.readSome();
  }
  crowd.readAll();
  crowd.expectAll();
}

}  // namespace
}  // namespace busd
