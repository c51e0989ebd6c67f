// Handlers and their looper over a recorded bus.

#include "platform/bus/handler.h"

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

#include "platform/bus/looper.h"
#include "tests/bus/sockets.h"
#include "tests/fakes/recording_bus.h"

namespace tn {
namespace {

using fakes::RecordingBus;
using fakes::TestLooper;
using testing_support::openDescriptors;
using testing_support::Pipe;
using testing_support::sameFile;
using Path = std::vector<std::uint32_t>;

constexpr std::uint32_t service = 68;

message addressed(const Path& path, std::uint32_t command = 1) {
  message msg;
  msg.insert_vector(field::destination, path);
  msg.insert(field::command, command);
  return msg;
}

message withDescriptor(const Path& path, int fd) {
  message msg = addressed(path);
  msg.insert(field::descriptor, static_cast<std::uint32_t>(fd));
  return msg;
}

std::uint32_t codeOf(const message& msg) {
  return msg.get(field::errorCode).value_or(0);
}

// Records what it is asked, and answers what a test tells it to.
class Probe : public Handler {
 public:
  message cmdSet(message& msg) override {
    commands.push_back(msg);
    if (onSet) return onSet(msg);
    return {};
  }
  message cmdGetObj(message& msg, std::uint32_t object) override {
    objects.push_back(object);
    return Handler::cmdUnknown(msg, 0);
  }
  void attached(Looper&, std::uint32_t id) override { events.push_back("attached " + std::to_string(id)); }
  void detached() override { events.emplace_back("detached"); }
  void linked() override { events.emplace_back("linked"); }
  void unlinked() override { events.emplace_back("unlinked"); }

  std::vector<message> commands;
  std::vector<std::uint32_t> objects;
  std::vector<std::string> events;
  std::function<message(message&)> onSet;
};

class HandlerTest : public testing::Test {
 protected:
  HandlerTest() { loop.looper.addHandler(7, probe); }
  ReplyCallback note() {
    return [this](const message& reply) { replies.push_back(reply); };
  }

  TestLooper loop;
  RecordingBus& bus = loop.bus;
  Probe probe;
  std::vector<message> replies;
};

// ---- Commands

TEST_F(HandlerTest, ACommandReachesItsSlotAndItsAnswerGoesBack) {
  probe.onSet = [](message&) {
    message answer;
    answer.insert(u32_id(3), 33U);
    return answer;
  };
  message content;
  content.insert_vector(field::sender, Path{9, 4});
  content.insert(string_id(1), "name");
  const auto number = bus.request(service, 7, command::set, content);

  ASSERT_EQ(probe.commands.size(), 1U);
  EXPECT_EQ(probe.commands[0].get(field::sender), (Path{service, 9, 4}));
  EXPECT_EQ(probe.commands[0].get(field::destination), Path{});
  EXPECT_EQ(probe.commands[0].get(string_id(1)), "name");
  const RecordingBus::Sent* reply = bus.replyTo(number);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->peer, service);
  EXPECT_EQ(reply->content.get(field::destination), (Path{9, 4}));
  EXPECT_EQ(reply->content.get(field::sender), Path{7});
  EXPECT_EQ(reply->content.get(u32_id(3)), 33U);
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(HandlerTest, ACommandWithoutANumberRunsAndItsAnswerIsDropped) {
  message msg = addressed({7}, command::set);
  bus.deliver(service, msg);
  EXPECT_EQ(probe.commands.size(), 1U);
  EXPECT_TRUE(bus.sent.empty());
}

TEST_F(HandlerTest, SlotsThatAreNotOverriddenAnswerUnknownCommand) {
  const std::array codes{command::getPolicies, command::get,     command::reset,    command::getObj,
                         command::setObj,      command::getAll,  command::addObj,   command::stopGetAll,
                         command::removeObj,   command::moveObj, command::getCount, 0x30003U};
  for (const std::uint32_t code : codes) {
    const auto number = bus.request(service, 7, code);
    const RecordingBus::Sent* reply = bus.replyTo(number);
    ASSERT_NE(reply, nullptr) << code;
    EXPECT_EQ(codeOf(reply->content), error::unknownCommand) << code;
    EXPECT_EQ(getError(reply->content), "unknown command") << code;
  }
}

TEST_F(HandlerTest, TheObjectNumberIsHandedToTheSlot) {
  message content;
  content.insert(field::objectNumber, 5U);
  bus.request(service, 7, command::getObj, content);
  bus.request(service, 7, command::getObj);
  EXPECT_EQ(probe.objects, (Path{5, 0}));
}

TEST_F(HandlerTest, AnUnknownHandlerIsNoSuchService) {
  const auto number = bus.request(service, 8, command::set);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(codeOf(bus.replyTo(number)->content), error::noSuchService);
  EXPECT_EQ(getError(bus.replyTo(number)->content), "no such service");
  bus.deliver(service, addressed({8}));
  EXPECT_EQ(bus.sent.size(), 1U);
}

TEST_F(HandlerTest, APathThatGoesOnIsNoSuchService) {
  const auto number = bus.request(service, Path{7, 3}, command::set);
  EXPECT_EQ(codeOf(bus.replyTo(number)->content), error::noSuchService);
  EXPECT_TRUE(probe.commands.empty());
}

TEST_F(HandlerTest, AMessageWithoutAPathReachesTheLooper) {
  const auto number = bus.request(service, Path{}, 0x30003);
  EXPECT_EQ(codeOf(bus.replyTo(number)->content), error::unknownCommand);
  Probe front;
  loop.looper.addHandler(0, front);
  bus.request(service, Path{}, command::set);
  EXPECT_EQ(front.commands.size(), 1U);
  loop.looper.removeHandler(0);
  const auto last = bus.request(service, Path{}, command::set);
  EXPECT_EQ(front.commands.size(), 1U);
  EXPECT_EQ(codeOf(bus.replyTo(last)->content), error::unknownCommand);
}

TEST_F(HandlerTest, AnErrorIsAnAnswerLikeAnyOther) {
  probe.onSet = [](message&) { return errorMsg(error::cannotBind, "cannot bind service connection"); };
  const auto number = bus.request(service, 7, command::set);
  EXPECT_TRUE(isError(bus.replyTo(number)->content));
  EXPECT_EQ(getError(bus.replyTo(number)->content), "cannot bind service connection");
}

TEST_F(HandlerTest, AnAnswerThatEchoesTheRequestGoesToTheSenderAlone) {
  probe.onSet = [](message& msg) { return msg; };
  message content;
  content.insert_vector(field::sender, Path{9});
  const auto number = bus.request(service, 7, command::set, content);
  const RecordingBus::Sent* reply = bus.replyTo(number);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->peer, service);
  EXPECT_EQ(reply->content.get(field::destination), Path{9});
  EXPECT_EQ(reply->content.get(field::sender), Path{7});
}

TEST_F(HandlerTest, AHandlerMayDestroyItselfInItsSlot) {
  auto brief = std::make_unique<Probe>();
  loop.looper.addHandler(8, *brief);
  brief->onSet = [&](message&) {
    brief.reset();
    return message();
  };
  const auto number = bus.request(service, 8, command::set);
  EXPECT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(codeOf(bus.replyTo(bus.request(service, 8, command::set))->content), error::noSuchService);
}

TEST_F(HandlerTest, AnAnswerMayComeLaterByHand) {
  message kept;
  class Later : public Handler {
   public:
    explicit Later(message& k) : kept_(k) {}
    void handleCmd(message& msg) override { kept_ = msg; }

   private:
    message& kept_;
  } later(kept);
  loop.looper.addHandler(9, later);
  const auto number = bus.request(service, 9, command::set);
  EXPECT_EQ(bus.replyTo(number), nullptr);
  later.replyError(kept, 0xfe0009, "");
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(codeOf(bus.replyTo(number)->content), 0xfe0009U);
  EXPECT_FALSE(bus.replyTo(number)->content.has(field::errorText));
  EXPECT_EQ(getError(bus.replyTo(number)->content), "0xfe0009");
}

TEST_F(HandlerTest, MalformedMessagesAreDropped) {
  const std::array<std::uint8_t, 3> garbage{1, 2, 3};
  bus.deliver(service, {});
  bus.show(garbage);
  EXPECT_TRUE(bus.sent.empty());
}

// ---- Sending

TEST_F(HandlerTest, PathsAreConsumedAndGrowAsAMessageLeaves) {
  message msg = addressed({68, 1}, 0x30003);
  msg.insert_vector(field::sender, Path{5});
  probe.sendMessage(msg);
  loop.looper.sendMessage(addressed({63}));
  ASSERT_EQ(bus.sent.size(), 2U);
  EXPECT_EQ(bus.sent[0].kind, FrameKind::message);
  EXPECT_EQ(bus.sent[0].peer, 68U);
  EXPECT_EQ(bus.sent[0].content.get(field::destination), Path{1});
  EXPECT_EQ(bus.sent[0].content.get(field::sender), (Path{7, 5}));
  EXPECT_EQ(bus.sent[1].peer, 63U);
  EXPECT_EQ(bus.sent[1].content.get(field::destination), Path{});
  EXPECT_EQ(bus.sent[1].content.get(field::sender), Path{0});
}

TEST_F(HandlerTest, FieldsOfTheBusThatACallerLeftAreRemoved) {
  message msg = addressed({68, 1});
  msg.insert(field::requestNumber, 1U);
  msg.insert(field::isReply, true);
  msg.insert(field::errorCode, 2U);
  msg.insert(field::errorText, "forged");
  probe.sendMessage(msg);
  probe.postMessage(msg, note(), 6000);
  for (const RecordingBus::Sent& frame : bus.sent) {
    EXPECT_FALSE(isReply(frame.content));
    EXPECT_FALSE(isError(frame.content));
    EXPECT_FALSE(frame.content.has(field::errorText));
  }
  EXPECT_FALSE(bus.sent[0].content.has(field::requestNumber));
  EXPECT_TRUE(bus.sent[1].content.has(field::requestNumber));
}

TEST_F(HandlerTest, AMessageWithoutADestinationIsNotSent) {
  probe.sendMessage(message());
  probe.sendMessage(addressed({}));
  EXPECT_TRUE(bus.sent.empty());
}

// ---- Posts

TEST_F(HandlerTest, AReplyRunsItsCallbackOnce) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  EXPECT_TRUE(replies.empty());
  message content;
  content.insert(u32_id(3), 33U);
  bus.answer(bus.sent[0], content);
  bus.answer(bus.sent[0], content);
  loop.advance(10000);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(replies[0].get(u32_id(3)), 33U);
  EXPECT_TRUE(isReply(replies[0]));
}

TEST_F(HandlerTest, RepliesFindTheirPostsInAnyOrder) {
  std::vector<std::string> order;
  for (const char* name : {"a", "b", "c"}) {
    probe.postMessage(
        addressed({68}), [&order, name](const message&) { order.emplace_back(name); }, 6000);
  }
  for (const std::size_t i : {1U, 2U, 0U})
    bus.answer(bus.sent[i], {});
  EXPECT_EQ(order, (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(HandlerTest, APostTimesOut) {
  probe.postMessage(addressed({68}), note(), 6000);
  loop.advance(5999);
  EXPECT_TRUE(replies.empty());
  loop.advance(1);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(codeOf(replies[0]), error::timeout);
  EXPECT_EQ(getError(replies[0]), "timeout");
  bus.answer(bus.sent[0], {});
  EXPECT_EQ(replies.size(), 1U);
}

TEST_F(HandlerTest, ACancelledPostNeverCallsBack) {
  const auto held = std::make_shared<int>();
  const PostId id = probe.postMessage(
      addressed({68}), [this, held](const message& reply) { replies.push_back(reply); }, 6000);
  EXPECT_EQ(held.use_count(), 2);
  probe.cancelPost(id);
  EXPECT_EQ(held.use_count(), 1);
  bus.answer(bus.sent[0], {});
  loop.advance(10000);
  EXPECT_TRUE(replies.empty());
  probe.cancelPost(id);
  probe.cancelPost(0);
}

TEST_F(HandlerTest, CancellingAFinishedPostLeavesLaterOnesAlone) {
  const PostId first = probe.postMessage(addressed({68}), note(), 6000);
  bus.answer(bus.sent[0], {});
  const PostId second = probe.postMessage(addressed({68}), note(), 6000);
  EXPECT_NE(first, second);
  loop.looper.cancelPost(first);
  bus.answer(bus.sent[1], {});
  EXPECT_EQ(replies.size(), 2U);
}

TEST_F(HandlerTest, OnlyTheOneWhoWasAskedMayReply) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  bus.answerFrom(1005, bus.sent[0], {});
  EXPECT_TRUE(replies.empty());
  message elsewhere;  // right program and number, but to another handler of ours
  elsewhere.insert_vector(field::destination, Path{0});
  elsewhere.insert(field::requestNumber, *bus.sent[0].content.get(field::requestNumber));
  elsewhere.insert(field::isReply, true);
  bus.deliver(68, elsewhere);
  EXPECT_TRUE(replies.empty());
  bus.answer(bus.sent[0], {});
  EXPECT_EQ(replies.size(), 1U);
}

TEST_F(HandlerTest, ASenderPathCannotClaimToBeAnotherProgram) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  message forged;
  forged.insert_vector(field::sender, Path{68, 1});
  bus.answerFrom(1005, bus.sent[0], forged);
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, APostToAGroupTakesTheFirstReply) {
  probe.postMessage(addressed({sessionEndGroup}), note(), 6000);
  bus.answerFrom(24, bus.sent[0], {});
  bus.answerFrom(25, bus.sent[0], {});
  EXPECT_EQ(replies.size(), 1U);
}

TEST_F(HandlerTest, ABouncedPostIsUnreachable) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  bus.bounce(bus.sent[0]);
  EXPECT_TRUE(replies.empty());
  loop.advance(0);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
  EXPECT_EQ(getError(replies[0]), "unreachable");
}

TEST_F(HandlerTest, ABouncedReplyHarmsNobody) {
  const auto number = bus.request(service, 7, command::set);
  probe.postMessage(addressed({service}), note(), 6000);
  RecordingBus::Sent& reply = *bus.replyTo(number);
  reply.content.insert(field::requestNumber, *bus.sent[1].content.get(field::requestNumber));
  bus.bounce(reply);
  loop.advance(0);
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, APostThatCannotBeSentFailsLater) {
  bus.refuseSends = true;
  probe.postMessage(addressed({68}), note(), 6000);
  probe.postMessage(message(), note(), 6000);
  EXPECT_TRUE(replies.empty());
  loop.advance(0);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
  EXPECT_EQ(codeOf(replies[1]), error::unreachable);
}

TEST_F(HandlerTest, TooManyPostsFail) {
  Looper::Tuning tuning{};
  tuning.maxPosts = 2;
  TestLooper small(tuning);
  for (int i = 0; i < 3; ++i)
    small.looper.postMessage(addressed({68}), note(), 6000);
  small.advance(0);
  EXPECT_EQ(small.bus.sent.size(), 2U);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
}

TEST_F(HandlerTest, ALostBrokerFailsEveryPost) {
  const PostId cancelled = probe.postMessage(addressed({68}), note(), 6000);
  for (int i = 0; i < 3; ++i)
    probe.postMessage(addressed({68}), note(), 6000);
  bus.unlink();
  probe.cancelPost(cancelled);
  probe.postMessage(addressed({68}), note(), 6000);
  loop.advance(0);
  ASSERT_EQ(replies.size(), 4U);
  for (const message& reply : replies)
    EXPECT_EQ(codeOf(reply), error::unreachable);
  EXPECT_EQ(loop.looper.busId(), 0U);
}

TEST_F(HandlerTest, ACallbackMayPostAndCancelAndDestroyItsHandler) {
  auto brief = std::make_unique<Probe>();
  loop.looper.addHandler(8, *brief);
  const PostId other = brief->postMessage(addressed({68}), note(), 6000);
  brief->postMessage(
      addressed({68}),
      [&](const message&) {
        brief->cancelPost(other);
        brief->postMessage(addressed({68}), note(), 6000);
        brief.reset();
      },
      6000);
  bus.answer(bus.sent[1], {});
  for (std::size_t i = 0; i < 3; ++i)
    bus.answer(bus.sent[i], {});
  loop.advance(10000);
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, ADestroyedHandlerIsGoneWithItsPosts) {
  {
    Probe brief;
    loop.looper.addHandler(8, brief);
    brief.postMessage(addressed({68}), note(), 6000);
  }
  bus.answer(bus.sent[0], {});
  loop.advance(10000);
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, AHandlerWithoutALooperSendsNothing) {
  Probe lone;
  lone.sendMessage(addressed({68}));
  EXPECT_EQ(lone.postMessage(addressed({68}), note(), 100), 0U);
  EXPECT_EQ(codeOf(lone.exchangeMessage(addressed({68}), 100)), error::unreachable);
  loop.advance(1000);
  EXPECT_TRUE(bus.sent.empty());
  EXPECT_TRUE(replies.empty());
}

// ---- Registration

TEST_F(HandlerTest, HandlersAreToldWhereTheyAre) {
  Probe other;
  loop.looper.addHandler(7, other);
  loop.looper.addHandler(8, probe);
  loop.looper.removeHandler(8);
  EXPECT_EQ(probe.events, (std::vector<std::string>{"attached 7", "detached", "attached 8", "detached"}));
  EXPECT_EQ(other.handlerId(), 7U);
  loop.looper.removeHandler(8);
  bus.request(service, 7, command::set);
  EXPECT_EQ(other.commands.size(), 1U);
}

TEST_F(HandlerTest, HandlersMayOutliveTheLooper) {
  Probe lasting;
  {
    TestLooper brief;
    brief.looper.addHandler(1, lasting);
    lasting.postMessage(addressed({68}), note(), 6000);
  }
  lasting.sendMessage(addressed({68}));
  EXPECT_TRUE(replies.empty());
}

TEST_F(HandlerTest, TheLooperOfTheProcessIsKnown) {
  EXPECT_EQ(getLooper(), &loop.looper);
  EXPECT_EQ(getRunner(), &loop.looper.runner());
}

TEST(NoLooperTest, ThereIsNoneBeforeAndAfter) {
  { const TestLooper brief; }
  EXPECT_EQ(getLooper(), nullptr);
  EXPECT_EQ(getRunner(), nullptr);
}

TEST_F(HandlerTest, HandlersAreToldOfTheLink) {
  probe.events.clear();
  bus.unlink();
  bus.link(1001);
  EXPECT_EQ(probe.events, (std::vector<std::string>{"unlinked", "linked"}));
  EXPECT_EQ(loop.looper.busId(), 1001U);
}

// ---- The broker

TEST_F(HandlerTest, GroupsAreJoinedAgainWithTheLink) {
  const auto groupsAsked = [&] {
    std::vector<std::pair<std::uint32_t, std::uint32_t>> asked;
    for (const RecordingBus::Sent& frame : bus.sent) {
      EXPECT_EQ(frame.kind, FrameKind::control);
      asked.emplace_back(*frame.content.get(u32_id(1)), *frame.content.get(u32_id(2)));
    }
    bus.sent.clear();
    return asked;
  };
  using Asked = std::vector<std::pair<std::uint32_t, std::uint32_t>>;
  loop.looper.joinGroup(sessionEndGroup);
  loop.looper.joinGroup(sessionEndGroup);
  loop.looper.joinGroup(0xff0005);
  EXPECT_EQ(groupsAsked(), (Asked{{control::joinGroup, 0xff0001}, {control::joinGroup, 0xff0005}}));
  loop.looper.leaveGroup(0xff0005);
  loop.looper.leaveGroup(0xff0006);
  EXPECT_EQ(groupsAsked(), (Asked{{control::leaveGroup, 0xff0005}}));
  bus.unlink();
  loop.looper.joinGroup(0xff0007);
  EXPECT_EQ(groupsAsked(), Asked{});
  bus.link();
  EXPECT_EQ(groupsAsked(), (Asked{{control::joinGroup, 0xff0001}, {control::joinGroup, 0xff0007}}));
}

TEST_F(HandlerTest, ControlOperationsGetTheBrokersAnswer) {
  message list;
  list.insert(u32_id(1), control::list);
  message statistics;
  statistics.insert(u32_id(1), control::statistics);
  std::vector<std::string> order;
  loop.looper.control(
      list, [&](const message& m) { order.push_back("list " + getError(m)); }, 1000);
  loop.looper.control(
      statistics, [&](const message& m) { order.push_back("statistics " + getError(m)); }, 1000);
  loop.looper.control(
      list, [&](const message& m) { order.push_back("list again " + getError(m)); }, 1000);
  ASSERT_EQ(bus.sent.size(), 3U);
  EXPECT_EQ(bus.sent[0].kind, FrameKind::control);
  EXPECT_EQ(bus.sent[0].peer, brokerId);
  bus.answerControl(statistics);
  bus.answerControl(list);
  EXPECT_TRUE(order.empty());
  loop.advance(0);
  EXPECT_EQ(order, (std::vector<std::string>{"statistics ", "list "}));
  loop.advance(999);
  EXPECT_EQ(order.size(), 2U);
  loop.advance(1);
  EXPECT_EQ(order[2], "list again timeout");
  bus.answerControl(list);
  loop.advance(5000);
  EXPECT_EQ(order.size(), 3U);
}

TEST_F(HandlerTest, AnswersThatComeTogetherEndTheirOperationsInOrder) {
  message list;
  list.insert(u32_id(1), control::list);
  std::vector<std::uint32_t> got;
  for (int i = 0; i < 2; ++i) {
    loop.looper.control(
        list, [&](const message& m) { got.push_back(m.get(u32_id(2)).value_or(0)); }, 1000);
  }
  for (const std::uint32_t mark : {5U, 6U}) {
    list.insert(u32_id(2), mark);
    bus.answerControl(list);
  }
  loop.advance(0);
  EXPECT_EQ(got, (Path{5, 6}));
}

TEST_F(HandlerTest, ControlOperationsFailWithTheLink) {
  message list;
  list.insert(u32_id(1), control::list);
  loop.looper.control(list, note(), 1000);
  bus.unlink();
  loop.looper.control(list, note(), 1000);
  EXPECT_TRUE(replies.empty());
  loop.advance(0);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
  EXPECT_EQ(codeOf(replies[1]), error::unreachable);
}

TEST_F(HandlerTest, ObservedFramesAreShown) {
  std::vector<std::string> shown;
  const std::vector<std::uint8_t> frame{5, 0, 0, 0, 6, 1, 0, 0, 1, 0, 0, 0, 'a', 'b'};
  bus.show(frame);
  loop.looper.setObserver([&](std::uint32_t from, std::uint32_t to, FrameKind kind,
                              std::span<const std::uint8_t> payload) {
    shown.push_back(std::to_string(from) + " " + std::to_string(to) + " " +
                    std::to_string(static_cast<unsigned>(kind)) + " " + std::string(payload.begin(), payload.end()));
  });
  bus.show(frame);
  bus.show(std::span(frame).first(11));
  EXPECT_EQ(shown, std::vector<std::string>{"5 262 1 ab"});
}

// ---- Shutdown

TEST_F(HandlerTest, OnlyATrustedAndAllowedSenderMayEndTheLoop) {
  const auto ask = [&](std::uint32_t from, std::optional<std::uint32_t> policies) {
    message content;
    if (policies) content.insert(field::policies, *policies);
    return codeOf(bus.replyTo(bus.request(from, 7, command::shutdown, content))->content);
  };
  EXPECT_EQ(ask(1005, std::nullopt), error::notAllowed);
  EXPECT_EQ(ask(1005, 1), error::notAllowed);
  EXPECT_EQ(ask(68, 0), error::notAllowed);
  EXPECT_EQ(ask(68, std::nullopt), 0U);
  EXPECT_EQ(ask(68, 1), 0U);
}

// ---- Exchange

TEST_F(HandlerTest, AnExchangeReturnsItsReply) {
  bus.whileWaiting = [&] {
    message content;
    content.insert(bool_id(8), true);
    bus.answer(bus.sent.back(), content);
    return true;
  };
  const message reply = loop.looper.exchangeMessage(addressed({13, 1}), 6000);
  EXPECT_EQ(reply.get(bool_id(8)), true);
  EXPECT_EQ(reply.get(field::sender), Path{13});
  EXPECT_FALSE(isError(reply));
}

TEST_F(HandlerTest, AnExchangeFails) {
  EXPECT_EQ(codeOf(probe.exchangeMessage(addressed({13}), 10)), error::timeout);
  bus.whileWaiting = [&] {
    bus.bounce(bus.sent.back());
    return true;
  };
  EXPECT_EQ(codeOf(probe.exchangeMessage(addressed({13}), 10)), error::unreachable);
  bus.refuseSends = true;
  EXPECT_EQ(codeOf(probe.exchangeMessage(addressed({13}), 10)), error::unreachable);
  EXPECT_EQ(codeOf(probe.exchangeMessage(message(), 10)), error::unreachable);
  bus.refuseSends = false;
  bus.unlink();
  EXPECT_EQ(codeOf(probe.exchangeMessage(addressed({13}), 10)), error::unreachable);
}

TEST_F(HandlerTest, WhatArrivesDuringAnExchangeIsHandledLaterInOrder) {
  int step = 0;
  probe.postMessage(addressed({68}), note(), 6000);
  bus.whileWaiting = [&] {
    switch (++step) {
      case 1:
        bus.request(service, 7, command::set);
        break;
      case 2:
        bus.answer(bus.sent[0], {});
        break;
      case 3:
        bus.answerFrom(1005, bus.sent.back(), {});  // not the one who was asked
        break;
      default:
        bus.answer(bus.sent.back(), {});
    }
    EXPECT_TRUE(probe.commands.empty());
    EXPECT_TRUE(replies.empty());
    return true;
  };
  EXPECT_FALSE(isError(probe.exchangeMessage(addressed({13}), 6000)));
  EXPECT_EQ(step, 4);
  bus.request(service, 7, command::set);  // behind those that are kept
  EXPECT_TRUE(probe.commands.empty());
  loop.looper.finishTurn();
  EXPECT_EQ(probe.commands.size(), 2U);
  EXPECT_EQ(replies.size(), 1U);
  EXPECT_FALSE(loop.looper.finishTurn());
}

TEST_F(HandlerTest, AnExchangeInsideASlotWorks) {
  bus.whileWaiting = [&] {
    bus.answer(bus.sent.back(), {});
    return true;
  };
  probe.onSet = [&](message&) { return probe.exchangeMessage(addressed({13}), 6000); };
  const auto number = bus.request(service, 7, command::set);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(bus.replyTo(number)->peer, service);
}

TEST_F(HandlerTest, AnExchangeGivesUpWhenTooMuchIsKept) {
  Looper::Tuning tuning{};
  tuning.maxKept = 10;
  TestLooper small(tuning);
  Probe busy;
  small.looper.addHandler(1, busy);
  small.bus.whileWaiting = [&] {
    small.bus.deliver(service, addressed({1}, command::set));
    return true;
  };
  EXPECT_EQ(codeOf(small.looper.exchangeMessage(addressed({13}), 6000)), error::unreachable);
  small.looper.finishTurn();
  EXPECT_EQ(busy.commands.size(), 10U);
}

// ---- Descriptors

class DescriptorTest : public HandlerTest {
 protected:
  Pipe pipe;
};

TEST_F(DescriptorTest, ASentDescriptorIsGivenAway) {
  const int number = pipe.writer.release();
  probe.postMessage(withDescriptor({12}, number), note(), 6000);
  ASSERT_EQ(bus.sent.size(), 1U);
  EXPECT_EQ(bus.sent[0].descriptor.get(), number);
  EXPECT_TRUE(bus.sent[0].content.has(field::descriptor));
  bus.sent.clear();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, ADescriptorThatCannotBeSentIsClosed) {
  const int one = dup(pipe.writer.get());
  const int two = dup(pipe.writer.get());
  const int three = dup(pipe.writer.get());
  const int four = dup(pipe.writer.get());
  Probe lone;
  lone.sendMessage(withDescriptor({12}, one));
  probe.sendMessage(withDescriptor({}, two));
  bus.refuseSends = true;
  probe.sendMessage(withDescriptor({12}, three));
  probe.postMessage(withDescriptor({12}, four), note(), 6000);
  pipe.writer.reset();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, ANumberThatIsNoDescriptorIsTakenOut) {
  probe.sendMessage(withDescriptor({12}, 98765));
  message huge = addressed({12});
  huge.insert(field::descriptor, 0xFFFFFFFF);
  probe.sendMessage(huge);
  ASSERT_EQ(bus.sent.size(), 2U);
  EXPECT_FALSE(bus.sent[0].content.has(field::descriptor));
  EXPECT_FALSE(bus.sent[1].content.has(field::descriptor));
}

TEST_F(DescriptorTest, AHandlerTakesTheDescriptorOfItsMessage) {
  const UniqueFd copy(dup(pipe.writer.get()));
  UniqueFd taken;
  probe.onSet = [&](message& msg) {
    const message before = msg;
    taken = probe.takeDescriptor(msg);
    EXPECT_EQ(before.get(field::descriptor), static_cast<std::uint32_t>(taken.get()));
    EXPECT_FALSE(msg.has(field::descriptor));
    EXPECT_FALSE(probe.takeDescriptor(before));
    return msg;
  };
  const auto number = bus.request(service, 7, command::set, {}, std::move(pipe.writer));
  EXPECT_TRUE(sameFile(taken.get(), copy.get()));
  EXPECT_FALSE(bus.replyTo(number)->descriptor);
}

TEST_F(DescriptorTest, ADescriptorThatNobodyTakesIsClosed) {
  bus.request(service, 7, command::set, {}, UniqueFd(dup(pipe.writer.get())));    // the slot leaves it
  bus.request(service, 8, command::set, {}, UniqueFd(dup(pipe.writer.get())));    // no such handler
  bus.request(service, 7, command::reset, {}, UniqueFd(dup(pipe.writer.get())));  // no such command
  bus.request(service, Path{7, 1}, command::set, {}, UniqueFd(dup(pipe.writer.get())));
  message lateReply = addressed({7});
  lateReply.insert(field::isReply, true);
  bus.deliver(service, lateReply, UniqueFd(dup(pipe.writer.get())));
  pipe.writer.reset();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, AFieldWithoutADescriptorIsRemoved) {
  probe.onSet = [&](message& msg) {
    EXPECT_FALSE(msg.has(field::descriptor));
    EXPECT_FALSE(probe.takeDescriptor(msg));
    return message();
  };
  message content;
  content.insert(field::descriptor, static_cast<std::uint32_t>(pipe.writer.get()));
  bus.request(service, 7, command::set, content);
  EXPECT_EQ(probe.commands.size(), 1U);
  EXPECT_FALSE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, AReplyBringsItsDescriptorToTheCallback) {
  const UniqueFd copy(dup(pipe.writer.get()));
  UniqueFd taken;
  loop.looper.postMessage(
      addressed({12}), [&](const message& reply) { taken = loop.looper.takeDescriptor(reply); }, 6000);
  loop.looper.postMessage(
      addressed({12}), [](const message&) {}, 6000);
  bus.answer(bus.sent[0], {}, std::move(pipe.writer));
  EXPECT_TRUE(sameFile(taken.get(), copy.get()));
  Pipe ignored;
  bus.answer(bus.sent[1], {}, std::move(ignored.writer));
  EXPECT_TRUE(ignored.allWritersClosed());
}

TEST_F(DescriptorTest, AMessageThatGoesOnTakesItsDescriptorAlong) {
  probe.onSet = [&](message& msg) {
    message onward = msg;
    onward.insert_vector(field::destination, Path{12, 1});
    probe.sendMessage(onward);
    return msg;  // what is left of it goes back, without the descriptor
  };
  const auto number = bus.request(service, 7, command::set, {}, std::move(pipe.writer));
  EXPECT_TRUE(bus.sent[0].descriptor);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_FALSE(bus.replyTo(number)->descriptor);
  EXPECT_FALSE(pipe.allWritersClosed());
  bus.sent[0].descriptor.reset();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, ATakenDescriptorCanBeGivenAway) {
  probe.onSet = [&](message& msg) {
    UniqueFd taken = probe.takeDescriptor(msg);
    message answer;
    answer.insert(field::descriptor, static_cast<std::uint32_t>(taken.release()));
    return answer;
  };
  const auto number = bus.request(service, 7, command::set, {}, std::move(pipe.writer));
  EXPECT_TRUE(bus.replyTo(number)->descriptor);
  bus.sent.clear();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, AnAnswerThatNobodyWantsClosesItsDescriptor) {
  probe.onSet = [&](message&) {
    message answer;
    answer.insert(field::descriptor, static_cast<std::uint32_t>(pipe.writer.release()));
    return answer;
  };
  bus.deliver(service, addressed({7}, command::set));
  EXPECT_EQ(probe.commands.size(), 1U);
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, AnExchangedDescriptorCanBeTakenUntilTheTurnEnds) {
  bus.whileWaiting = [&] {
    bus.answer(bus.sent.back(), {}, UniqueFd(dup(pipe.writer.get())));
    return true;
  };
  const message first = probe.exchangeMessage(addressed({12}), 6000);
  const message second = probe.exchangeMessage(addressed({12}), 6000);
  pipe.writer.reset();
  UniqueFd taken = probe.takeDescriptor(first);
  EXPECT_TRUE(taken);
  loop.looper.finishTurn();
  EXPECT_FALSE(probe.takeDescriptor(second));
  EXPECT_FALSE(pipe.allWritersClosed());
  taken.reset();
  EXPECT_TRUE(pipe.allWritersClosed());
}

TEST_F(DescriptorTest, AKeptMessageKeepsItsDescriptor) {
  UniqueFd taken;
  probe.onSet = [&](message& msg) {
    taken = probe.takeDescriptor(msg);
    return message();
  };
  bus.whileWaiting = [&] {
    if (pipe.writer) {
      bus.request(service, 7, command::set, {}, std::move(pipe.writer));
    } else {
      bus.answer(bus.sent.back(), {});
    }
    return true;
  };
  EXPECT_FALSE(isError(loop.looper.exchangeMessage(addressed({13}), 6000)));
  EXPECT_FALSE(taken);
  loop.looper.finishTurn();
  EXPECT_TRUE(taken);
}

TEST_F(DescriptorTest, NoneIsLeftOpenInTheEnd) {
  const std::size_t before = openDescriptors();
  {
    TestLooper brief;
    Probe other;
    brief.looper.addHandler(7, other);
    other.onSet = [&](message&) { return other.exchangeMessage(withDescriptor({12}, dup(pipe.writer.get())), 10); };
    brief.bus.whileWaiting = [&] {
      brief.bus.deliver(service, addressed({7}, command::get), UniqueFd(dup(pipe.writer.get())));
      brief.bus.answer(brief.bus.sent.back(), {}, UniqueFd(dup(pipe.writer.get())));
      return true;
    };
    brief.bus.request(service, 7, command::set, {}, UniqueFd(dup(pipe.writer.get())));
  }
  EXPECT_EQ(openDescriptors(), before);
}

// ---- Subscriptions

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

// ---- Errors and policies

TEST(HeaderFieldsTest, ErrorsHaveACodeAndAText) {
  const message failure = errorMsg(0xfe0006, "no such service");
  EXPECT_TRUE(isError(failure));
  EXPECT_FALSE(isReply(failure));
  EXPECT_EQ(failure.get(field::errorCode), 0xfe0006U);
  EXPECT_EQ(getError(failure), "no such service");
  EXPECT_EQ(getError(errorMsg(0xfe0009, "")), "0xfe0009");
  EXPECT_EQ(getError(message()), "");
  EXPECT_FALSE(isError(message()));
}

TEST(HeaderFieldsTest, APoliciesFieldOfZeroForbids) {
  message msg;
  EXPECT_TRUE(policies::is_allowed(msg));
  msg.insert(field::policies, 0U);
  EXPECT_FALSE(policies::is_allowed(msg));
  msg.insert(field::policies, 0x10U);
  EXPECT_TRUE(policies::is_allowed(msg));
}

}  // namespace
}  // namespace tn
