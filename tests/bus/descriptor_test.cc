// Who owns a descriptor that travels with a message.

#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <utility>

#include "tests/bus/handler_fixture.h"
#include "tests/bus/sockets.h"

namespace tn {
namespace {

using namespace testing_support;

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

}  // namespace
}  // namespace tn
