// Telling changes to those who asked for them.

#include <gtest/gtest.h>
#include <vector>

#include "tests/bus/handler_fixture.h"
#include "tests/bus/sockets.h"

namespace tn {
namespace {

using namespace testing_support;

class Teller : public Handler {
 public:
  message cmdGetAll(message& msg) override { return subscribe(msg) ? message() : errorMsg(1, "full"); }
  message cmdStopGetAll(message& msg) override {
    unsubscribe(msg);
    return {};
  }
  bool shouldNotify(const message&) override { return atOnce; }
  void subscribed(const message& subscriber) override { came.push_back(*subscriber.get(field::destination)); }
  void unsubscribed(const message& subscriber) override { went.push_back(*subscriber.get(field::destination)); }

  bool atOnce = false;
  std::vector<Path> came;
  std::vector<Path> went;
};

class SubscriptionTest : public HandlerTest {
 protected:
  SubscriptionTest() { loop.looper.addHandler(1, teller); }
  void subscribe(std::uint32_t from, const Path& path) {
    message content;
    content.insert_vector(field::sender, path);
    bus.request(from, 1, command::getAll, content);
    bus.sent.clear();
  }
  static message change(std::uint32_t value) {
    message msg;
    msg.insert(u32_id(1), value);
    return msg;
  }

  Teller teller;
};

TEST_F(SubscriptionTest, ChangesAreToldAtTheEndOfTheTurn) {
  subscribe(1000, {100, 5});
  subscribe(1001, {});
  subscribe(1001, {});
  EXPECT_EQ(teller.came, (std::vector<Path>{{1000, 100, 5}, {1001}}));
  teller.notify(change(1));
  teller.notify(change(2));
  EXPECT_TRUE(bus.sent.empty());
  loop.looper.finishTurn();
  ASSERT_EQ(bus.sent.size(), 4U);
  EXPECT_EQ(bus.sent[0].peer, 1000U);
  EXPECT_EQ(bus.sent[0].content.get(field::destination), (Path{100, 5}));
  EXPECT_EQ(bus.sent[0].content.get(field::sender), Path{1});
  EXPECT_EQ(bus.sent[0].content.get(u32_id(1)), 1U);
  EXPECT_EQ(bus.sent[3].content.get(u32_id(1)), 2U);
  loop.looper.finishTurn();
  EXPECT_EQ(bus.sent.size(), 4U);
}

TEST_F(SubscriptionTest, ChangesAreToldAtOnceWhenTheHandlerSaysSo) {
  subscribe(1000, {100, 5});
  teller.atOnce = true;
  teller.notify(change(1));
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(SubscriptionTest, WhoAsksNoLongerIsNotTold) {
  subscribe(1000, {100, 5});
  message content;
  content.insert_vector(field::sender, Path{100, 5});
  bus.request(1001, 1, command::stopGetAll, content);
  EXPECT_EQ(teller.subscriberCount(), 1U);
  bus.request(1000, 1, command::stopGetAll, content);
  EXPECT_EQ(teller.subscriberCount(), 0U);
  EXPECT_EQ(teller.went, (std::vector<Path>{{1000, 100, 5}}));
  bus.sent.clear();
  teller.notify(change(1));
  loop.looper.finishTurn();
  EXPECT_TRUE(bus.sent.empty());
}

TEST_F(SubscriptionTest, AnEndedSessionIsForgotten) {
  subscribe(1000, {100, 5});
  subscribe(1000, {100, 5, 9});
  subscribe(1000, {100, 6});
  subscribe(1002, {100, 5});
  message notice;
  notice.insert_vector(field::sender, Path{100, 5});
  notice.insert(field::command, command::disconnected);
  bus.deliver(1000, notice);  // as a copy for the group: without a path
  EXPECT_EQ(teller.went, (std::vector<Path>{{1000, 100, 5}, {1000, 100, 5, 9}}));
  EXPECT_EQ(teller.subscriberCount(), 2U);
}

TEST_F(SubscriptionTest, AProgramThatIsGoneIsForgotten) {
  subscribe(1000, {100, 5});
  subscribe(1000, {});
  subscribe(1002, {});
  teller.notify(change(1));
  loop.looper.finishTurn();
  bus.bounce(bus.sent[0]);
  EXPECT_EQ(teller.subscriberCount(), 1U);
  EXPECT_EQ(teller.went.size(), 2U);
}

TEST_F(SubscriptionTest, SubscribersAreLimited) {
  for (std::uint32_t i = 0; i < 1100; ++i)
    subscribe(1000 + i, {});
  EXPECT_EQ(teller.subscriberCount(), 1024U);
  const auto number = bus.request(9999, 1, command::getAll);
  EXPECT_EQ(codeOf(bus.replyTo(number)->content), 1U);
}

TEST_F(SubscriptionTest, ALongPathIsNotKept) {
  subscribe(1000, Path(64, 7));
  EXPECT_EQ(teller.subscriberCount(), 0U);
  subscribe(1000, Path(63, 7));
  EXPECT_EQ(teller.subscriberCount(), 1U);
}

TEST_F(SubscriptionTest, ADescriptorInAChangeIsClosed) {
  subscribe(1000, {});
  Pipe pipe;
  message msg = change(1);
  msg.insert(field::descriptor, static_cast<std::uint32_t>(pipe.writer.release()));
  teller.notify(msg);
  EXPECT_TRUE(pipe.allWritersClosed());
}

}  // namespace
}  // namespace tn
