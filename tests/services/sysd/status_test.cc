#include <array>
#include <gmock/gmock.h>
#include <vector>

#include "platform/bus/text.h"
#include "platform/log.h"
#include "services/sysd/status_handler.h"
#include "tests/fakes/recording_bus.h"
#include "tests/services/sysd/fake_source.h"

namespace sysd {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Path = std::vector<std::uint32_t>;

constexpr std::uint32_t server = 1700;  // whoever carries sessions
constexpr std::uint32_t program = 1500;

tn::message text(std::string_view typed) {
  tn::message read;
  EXPECT_FALSE(tn::readText(typed, read).has_value()) << typed;
  return read;
}

std::string shown(const tn::message& msg) {
  if (tn::isError(msg)) {
    return std::string(NumberText(msg.get(tn::field::errorCode).value_or(0), 16)) + ' ' + tn::getError(msg);
  }
  tn::message plain = msg;
  for (const tn::u32_array_id path : {tn::field::sender, tn::field::destination})
    plain.remove(path);
  plain.remove(tn::field::requestNumber);
  plain.remove(tn::field::isReply);
  plain.remove(tn::field::command);
  return tn::writeText(plain);
}

class StatusTest : public ::testing::Test {
 protected:
  StatusTest() {
    loop_.looper.addHandler(handlerId, status_);
    loop_.looper.joinGroup(sessionGroup);
    loop_.bus.sent.clear();
  }

  // Asks from a path: the program, and what is below it.
  std::string ask(const Path& from, std::uint32_t command, tn::message fields) {
    fields.insert_vector(tn::field::sender, std::span(from).subspan(1));
    const std::uint32_t number = loop_.bus.request(from.front(), handlerId, command, std::move(fields));
    const auto* const reply = loop_.bus.replyTo(number);
    const std::string answer = reply == nullptr ? "none" : shown(reply->content);
    std::erase_if(loop_.bus.sent, [](const auto& frame) { return tn::isReply(frame.content); });
    return answer;
  }
  std::string ask(std::uint32_t command, std::string_view typed = "{}") {
    return ask({program, 7}, command, text(typed));
  }
  std::string subscribe(const Path& from, std::string_view typed) { return ask(from, command::subscribe, text(typed)); }
  std::string unsubscribe(const Path& from) { return ask(from, command::unsubscribe, {}); }

  // What was pushed since the last call, each with its path.
  std::vector<std::string> pushes() {
    std::vector<std::string> all;
    for (const auto& frame : loop_.bus.sent) {
      if (frame.content.get(tn::field::command) != command::push) continue;
      std::string line = std::to_string(frame.peer);
      for (const std::uint32_t element : frame.content.get(tn::field::destination).value_or(Path()))
        line += "/" + std::to_string(element);
      all.push_back(line + " " + shown(frame.content));
    }
    loop_.bus.sent.clear();
    return all;
  }
  void endSession(std::uint32_t session) {
    tn::message notice;
    notice.insert_vector(tn::field::destination, Path());
    notice.insert(tn::field::command, tn::command::disconnected);
    notice.insert_vector(tn::field::sender, Path{100, session});
    loop_.bus.deliver(server, notice);
  }

  FakeSource source_;
  tn::fakes::TestLooper loop_;
  StatusHandler status_{source_, loop_.runner.timers()};
};

TEST_F(StatusTest, TellsOneObject) {
  source_.figure(Object::memory) = 12;
  EXPECT_EQ(ask(tn::command::getObj, "{ufe0001:2}"), "{u1:12,ufe0001:2}");
  EXPECT_EQ(ask(tn::command::getObj, "{ufe0001:0}"), "fe0006 no such object");
  EXPECT_EQ(ask(tn::command::getObj, "{ufe0001:6}"), "fe0006 no such object");
  EXPECT_EQ(ask(tn::command::getObj, "{ufe0001:0xffffffff}"), "fe0006 no such object");
  EXPECT_EQ(ask(tn::command::getObj), "fe0006 no such object");
  EXPECT_EQ(ask(tn::command::set), "fe0007 unknown command");
}

TEST_F(StatusTest, TellsTheBriefObjectsAtOnce) {
  EXPECT_EQ(ask(tn::command::getAll), "{M1:[{u1:0,ufe0001:1},{u1:0,ufe0001:2},{u1:0,ufe0001:3},{u1:0,ufe0001:4}]}");
  EXPECT_EQ(source_.readsOf(Object::processes), 0U);
}

TEST_F(StatusTest, AsksTheKernelOnceHoweverManyWantToKnow) {
  for (int i = 0; i < 1000; ++i)
    (void)ask(tn::command::getAll);
  EXPECT_EQ(source_.readsOf(Object::system), 1U);
  for (std::uint32_t session = 1; session <= 50; ++session)
    (void)subscribe({server, 100, session}, "{U1:[1]}");
  loop_.advance(10'000);
  EXPECT_EQ(source_.readsOf(Object::system), 11U);
  EXPECT_EQ(source_.readsOf(Object::memory), 1U);
}

TEST_F(StatusTest, NeedsTheRightToRead) {
  for (const std::uint32_t command :
       {tn::command::getObj, tn::command::getAll, command::subscribe, command::unsubscribe}) {
    tn::message fields = text("{ufe0001:1,U1:[1]}");
    fields.insert(tn::field::user, "bob");
    EXPECT_EQ(ask({server, 100, 1}, command, fields), "fe0009 not allowed");
    fields.insert(tn::field::policies, 0U);
    EXPECT_EQ(ask({server, 100, 1}, command, fields), "fe0009 not allowed");
    fields.insert(tn::field::policies, 0xFFFFFFEFU);
    EXPECT_EQ(ask({server, 100, 1}, command, fields), "fe0009 not allowed");
    fields.insert(tn::field::policies, 0x10U);
    EXPECT_FALSE(ask({server, 100, 1}, command, fields).starts_with("fe")) << command;
  }
}

TEST_F(StatusTest, PushesWhatChanged) {
  EXPECT_EQ(subscribe({server, 100, 7}, "{U1:[1,2],u2:1000}"), "{M1:[{u1:0,ufe0001:1},{u1:0,ufe0001:2}],u2:1000}");
  loop_.advance(5000);
  EXPECT_THAT(pushes(), IsEmpty());
  source_.figure(Object::memory) = 5;
  source_.figure(Object::storage) = 5;
  loop_.advance(1000);
  EXPECT_THAT(pushes(), ElementsAre("1700/100/7 {M1:[{u1:5,ufe0001:2}]}"));
  loop_.advance(5000);
  EXPECT_THAT(pushes(), IsEmpty());
}

TEST_F(StatusTest, KeepsEachSubscribersInterval) {
  (void)subscribe({server, 100, 1}, "{U1:[1],u2:500}");
  (void)subscribe({server, 100, 2}, "{U1:[1],u2:2000}");
  std::size_t quick = 0;
  std::size_t slow = 0;
  for (unsigned i = 1; i <= 100; ++i) {
    source_.figure(Object::system) = i;
    loop_.advance(100);
    for (const std::string& push : pushes())
      ++(push.starts_with("1700/100/1 ") ? quick : slow);
  }
  EXPECT_EQ(quick, 20U);
  EXPECT_EQ(slow, 5U);
}

TEST_F(StatusTest, TakesTheNextMultipleOfTheTick) {
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[2],u2:501}"), "{M1:[{u1:0,ufe0001:2}],u2:1000}");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[2]}"), "{M1:[{u1:0,ufe0001:2}],u2:1000}");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[2],u2:3600000}"), "{M1:[{u1:0,ufe0001:2}],u2:3600000}");
}

TEST_F(StatusTest, SaysWhatIsWrongWithASubscription) {
  const std::string interval = "fe0010 the interval (u32 2) is 500 to 3600000 ms";
  EXPECT_EQ(subscribe({server, 100, 1}, "{}"), "fe0010 the objects (u32 array 1) are missing");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[]}"), "fe0010 the objects (u32 array 1) are missing");
  EXPECT_EQ(subscribe({server, 100, 1}, "{u1:1}"), "fe0010 the objects (u32 array 1) are missing");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[1,1,1,1,1,1]}"), "fe0010 there are five objects (u32 array 1)");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[1,6]}"), "fe0006 no such object");
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[1],u2:499}"), interval);
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[1],u2:3600001}"), interval);
  EXPECT_EQ(subscribe({server, 100, 1}, "{U1:[1],u2:0xffffffff}"), interval);
  EXPECT_EQ(subscribe(Path(100, 7), "{U1:[1]}"), "fe0010 the path to the subscriber is too long");
  EXPECT_EQ(status_.subscribers(), 0U);
  EXPECT_FALSE(loop_.runner.timers().nextDeadline().has_value());
}

TEST_F(StatusTest, TellsTheSubscriptionsOfOneSessionApart) {
  (void)subscribe({server, 100, 7, 1}, "{U1:[1]}");
  (void)subscribe({server, 100, 7, 2}, "{U1:[2]}");
  source_.figures.fill(9);
  loop_.advance(1000);
  EXPECT_THAT(pushes(), ElementsAre("1700/100/7/1 {M1:[{u1:9,ufe0001:1}]}", "1700/100/7/2 {M1:[{u1:9,ufe0001:2}]}"));
}

TEST_F(StatusTest, ReplacesASubscription) {
  (void)subscribe({server, 100, 7}, "{U1:[1,1]}");
  EXPECT_EQ(subscribe({server, 100, 7}, "{U1:[2],u2:2000}"), "{M1:[{u1:0,ufe0001:2}],u2:2000}");
  EXPECT_EQ(status_.subscribers(), 1U);
  source_.figures.fill(9);
  loop_.advance(2000);
  EXPECT_THAT(pushes(), ElementsAre("1700/100/7 {M1:[{u1:9,ufe0001:2}]}"));
}

TEST_F(StatusTest, EndsASubscription) {
  EXPECT_EQ(unsubscribe({server, 100, 7}), "{}");
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  EXPECT_EQ(unsubscribe({server, 100, 8}), "{}");
  EXPECT_EQ(status_.subscribers(), 1U);
  EXPECT_EQ(unsubscribe({server, 100, 7}), "{}");
  EXPECT_EQ(status_.subscribers(), 0U);
  EXPECT_FALSE(loop_.runner.timers().nextDeadline().has_value());
  source_.figures.fill(9);
  loop_.advance(5000);
  EXPECT_THAT(pushes(), IsEmpty());
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  source_.figures.fill(10);
  loop_.advance(1000);
  EXPECT_EQ(pushes().size(), 1U);
}

TEST_F(StatusTest, ForgetsASessionThatEnded) {
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  (void)subscribe({server, 100, 7, 3}, "{U1:[1]}");
  (void)subscribe({server, 100, 70}, "{U1:[1]}");
  (void)subscribe({program, 100, 7}, "{U1:[1]}");
  endSession(7);
  EXPECT_EQ(status_.subscribers(), 2U);
  endSession(70);
  EXPECT_EQ(status_.subscribers(), 1U);
}

TEST_F(StatusTest, ForgetsAProgramThatIsGone) {
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  (void)subscribe({server, 100, 8}, "{U1:[2]}");
  (void)subscribe({program, 7}, "{U1:[1]}");
  source_.figures.fill(9);
  loop_.advance(1000);
  ASSERT_EQ(loop_.bus.sent.size(), 3U);
  loop_.bus.bounce(loop_.bus.sent[0]);
  EXPECT_EQ(status_.subscribers(), 1U);
}

TEST_F(StatusTest, ForgetsEverybodyWithTheBroker) {
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  (void)subscribe({program, 7}, "{U1:[1]}");
  loop_.bus.unlink();
  EXPECT_EQ(status_.subscribers(), 0U);
  loop_.bus.link();
  source_.figures.fill(9);
  loop_.advance(5000);
  EXPECT_THAT(pushes(), IsEmpty());
  (void)subscribe({server, 100, 7}, "{U1:[1]}");
  EXPECT_EQ(status_.subscribers(), 1U);
}

TEST_F(StatusTest, BoundsTheSubscribersOfASession) {
  for (std::uint32_t i = 0; i < SubscriberList::mostOfSession; ++i)
    EXPECT_EQ(subscribe({server, 100, 7, i}, "{U1:[2]}").substr(0, 4), "{M1:");
  EXPECT_EQ(subscribe({server, 100, 7, 99}, "{U1:[2]}"), "fe0012 too many subscribers in this session");
  EXPECT_EQ(subscribe({server, 100, 7}, "{U1:[2]}"), "fe0012 too many subscribers in this session");
  EXPECT_EQ(subscribe({server, 100, 7, 0}, "{U1:[1]}").substr(0, 4), "{M1:");
  EXPECT_EQ(subscribe({server, 100, 8}, "{U1:[2]}").substr(0, 4), "{M1:");
}

TEST_F(StatusTest, BoundsTheSubscribers) {
  for (std::uint32_t session = 0; session < SubscriberList::most; ++session)
    EXPECT_EQ(subscribe({server, 100, session}, "{U1:[2]}").substr(0, 4), "{M1:");
  EXPECT_EQ(subscribe({server, 100, 999}, "{U1:[2]}"), "fe0012 too many subscribers");
  endSession(5);
  EXPECT_EQ(subscribe({server, 100, 999}, "{U1:[2]}").substr(0, 4), "{M1:");
}

}  // namespace
}  // namespace sysd
