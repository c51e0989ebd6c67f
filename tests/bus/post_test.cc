// Posts and their replies, and what is asked of the broker itself.

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "tests/bus/handler_fixture.h"

namespace tn {
namespace {

using namespace testing_support;
using PostTest = HandlerTest;

TEST_F(PostTest, AReplyRunsItsCallbackOnce) {
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

TEST_F(PostTest, RepliesFindTheirPostsInAnyOrder) {
  std::vector<std::string> order;
  for (const char* name : {"a", "b", "c"}) {
    probe.postMessage(
        addressed({68}), [&order, name](const message&) { order.emplace_back(name); }, 6000);
  }
  for (const std::size_t i : {1U, 2U, 0U})
    bus.answer(bus.sent[i], {});
  EXPECT_EQ(order, (std::vector<std::string>{"b", "c", "a"}));
}

TEST_F(PostTest, APostTimesOut) {
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

TEST_F(PostTest, ACancelledPostNeverCallsBack) {
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

TEST_F(PostTest, CancellingAFinishedPostLeavesLaterOnesAlone) {
  const PostId first = probe.postMessage(addressed({68}), note(), 6000);
  bus.answer(bus.sent[0], {});
  const PostId second = probe.postMessage(addressed({68}), note(), 6000);
  EXPECT_NE(first, second);
  loop.looper.cancelPost(first);
  bus.answer(bus.sent[1], {});
  EXPECT_EQ(replies.size(), 2U);
}

TEST_F(PostTest, OnlyTheOneWhoWasAskedMayReply) {
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

TEST_F(PostTest, ASenderPathCannotClaimToBeAnotherProgram) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  message forged;
  forged.insert_vector(field::sender, Path{68, 1});
  bus.answerFrom(1005, bus.sent[0], forged);
  EXPECT_TRUE(replies.empty());
}

TEST_F(PostTest, APostToAGroupTakesTheFirstReply) {
  probe.postMessage(addressed({sessionEndGroup}), note(), 6000);
  bus.answerFrom(24, bus.sent[0], {});
  bus.answerFrom(25, bus.sent[0], {});
  EXPECT_EQ(replies.size(), 1U);
}

TEST_F(PostTest, ABouncedPostIsUnreachable) {
  probe.postMessage(addressed({68, 1}), note(), 6000);
  bus.bounce(bus.sent[0]);
  EXPECT_TRUE(replies.empty());
  loop.advance(0);
  ASSERT_EQ(replies.size(), 1U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
  EXPECT_EQ(getError(replies[0]), "unreachable");
}

TEST_F(PostTest, ABouncedReplyHarmsNobody) {
  const auto number = bus.request(service, 7, command::set);
  probe.postMessage(addressed({service}), note(), 6000);
  RecordingBus::Sent& reply = *bus.replyTo(number);
  reply.content.insert(field::requestNumber, *bus.sent[1].content.get(field::requestNumber));
  bus.bounce(reply);
  loop.advance(0);
  EXPECT_TRUE(replies.empty());
}

TEST_F(PostTest, APostThatCannotBeSentFailsLater) {
  bus.refuseSends = true;
  probe.postMessage(addressed({68}), note(), 6000);
  probe.postMessage(message(), note(), 6000);
  EXPECT_TRUE(replies.empty());
  loop.advance(0);
  ASSERT_EQ(replies.size(), 2U);
  EXPECT_EQ(codeOf(replies[0]), error::unreachable);
  EXPECT_EQ(codeOf(replies[1]), error::unreachable);
}

TEST_F(PostTest, TooManyPostsFail) {
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

TEST_F(PostTest, ALostBrokerFailsEveryPost) {
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

TEST_F(PostTest, ACallbackMayPostAndCancelAndDestroyItsHandler) {
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

TEST_F(PostTest, ADestroyedHandlerIsGoneWithItsPosts) {
  {
    Probe brief;
    loop.looper.addHandler(8, brief);
    brief.postMessage(addressed({68}), note(), 6000);
  }
  bus.answer(bus.sent[0], {});
  loop.advance(10000);
  EXPECT_TRUE(replies.empty());
}

TEST_F(PostTest, AHandlerWithoutALooperSendsNothing) {
  Probe lone;
  lone.sendMessage(addressed({68}));
  EXPECT_EQ(lone.postMessage(addressed({68}), note(), 100), 0U);
  EXPECT_EQ(codeOf(lone.exchangeMessage(addressed({68}), 100)), error::unreachable);
  loop.advance(1000);
  EXPECT_TRUE(bus.sent.empty());
  EXPECT_TRUE(replies.empty());
}

// ---- The broker

TEST_F(PostTest, GroupsAreJoinedAgainWithTheLink) {
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

TEST_F(PostTest, ControlOperationsGetTheBrokersAnswer) {
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

TEST_F(PostTest, AnswersThatComeTogetherEndTheirOperationsInOrder) {
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

TEST_F(PostTest, ControlOperationsFailWithTheLink) {
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

TEST_F(PostTest, ObservedFramesAreShown) {
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

}  // namespace
}  // namespace tn
