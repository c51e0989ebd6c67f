// What reaches a handler and what leaves it.

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/policies.h"
#include "tests/bus/handler_fixture.h"

namespace tn {
namespace {

using namespace testing_support;

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

TEST(HeaderFieldsTest, ProgramsHaveEveryRightAndSessionsThoseOfTheirPolicies) {
  message msg;
  EXPECT_TRUE(policies::isOfSystem(msg));
  EXPECT_TRUE(policies::holds(msg, policies::changeSettings));
  msg.insert(field::policies, policies::read);
  EXPECT_FALSE(policies::isOfSystem(msg));
  EXPECT_FALSE(policies::holds(msg, policies::changeSettings));
  EXPECT_TRUE(policies::holds(msg, policies::read));
}

TEST(HeaderFieldsTest, AUserWithoutPoliciesHasNoRights) {
  message msg;
  msg.insert(field::user, "guest");
  EXPECT_FALSE(policies::isOfSystem(msg));
  EXPECT_FALSE(policies::holds(msg, policies::read));
}

}  // namespace
}  // namespace tn
