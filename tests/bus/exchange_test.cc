// Waiting for a reply while nothing else runs.

#include <array>
#include <gtest/gtest.h>

#include "tests/bus/handler_fixture.h"

namespace tn {
namespace {

using namespace testing_support;
using ExchangeTest = HandlerTest;

TEST_F(ExchangeTest, AnExchangeReturnsItsReply) {
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

TEST_F(ExchangeTest, AnExchangeFails) {
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

TEST_F(ExchangeTest, WhatArrivesDuringAnExchangeIsHandledLaterInOrder) {
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

TEST_F(ExchangeTest, AnExchangeInsideASlotWorks) {
  bus.whileWaiting = [&] {
    bus.answer(bus.sent.back(), {});
    return true;
  };
  probe.onSet = [&](message&) { return probe.exchangeMessage(addressed({13}), 6000); };
  const auto number = bus.request(service, 7, command::set);
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(bus.replyTo(number)->peer, service);
}

TEST_F(ExchangeTest, AnExchangeGivesUpWhenTooMuchIsKept) {
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

}  // namespace
}  // namespace tn
