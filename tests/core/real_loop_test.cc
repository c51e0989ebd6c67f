// The listeners on the runner of real programs: what a loop turned by hand cannot show.

#include <gmock/gmock.h>
#include <memory>
#include <vector>

#include "core/admission.h"
#include "platform/bus/epoll_runner.h"
#include "tests/core/core_test.h"
#include "tests/core/descriptor_limit.h"

namespace {

using core_test::connectIPv4;
using core_test::HeldPort;
using core_test::NoMoreDescriptors;
using testing::ElementsAre;
using testing::IsEmpty;

class RealLoopTest : public testing::Test {
 protected:
  RealLoopTest() {
    looper.addHandler(1, server);
    ServerEntry& entry = keepForProcess(std::make_unique<ServerEntry>());
    server.servers["web"] = &entry;
    tn::message record;
    record.insert(tn::string_id(1), "web");
    record.insert(tn::u32_id(2), port.number());
    EXPECT_FALSE(tn::isError(server.cmdSet(record)));
    log.takeLines();
  }
  ~RealLoopTest() override {
    closeListeners(*server.servers["web"]);
    endAllConnections();
  }

  void turn() { EXPECT_TRUE(looper.runner().turn(true)); }

  core_test::OutputCapture log{STDOUT_FILENO};
  HeldPort port;
  tn::Looper looper{std::make_unique<tn::EpollRunner>(), std::make_unique<tn::fakes::RecordingBus>()};
  WebServer server;
};

TEST_F(RealLoopTest, WhatWaitsBringsTheNextEvent) {
  const UniqueFd first = connectIPv4(port.number());
  const UniqueFd second = connectIPv4(port.number());
  turn();
  EXPECT_EQ(openConnections, 1U);
  turn();
  EXPECT_EQ(openConnections, 2U);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection", "acceptConnection"));
}

TEST_F(RealLoopTest, APausedListenerIsSilentUntilThePauseEnds) {
  const UniqueFd client = connectIPv4(port.number());
  {
    const NoMoreDescriptors limit;
    turn();
    EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection"));
    turn();  // only the end of the pause
    EXPECT_THAT(log.takeLines(), IsEmpty());
    turn();
    EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection"));
  }
  turn();
  EXPECT_EQ(openConnections, 0U);
  turn();
  EXPECT_EQ(openConnections, 1U);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection"));
}

TEST_F(RealLoopTest, AReopenedListenerOfTheSameNumberIsWatched) {
  tn::message record;
  record.insert(tn::string_id(1), "web");
  record.insert(tn::u32_id(2), port.number());
  std::vector<UniqueFd> clients;
  while (clients.size() < 3) {
    EXPECT_FALSE(tn::isError(server.cmdSet(record)));
    clients.push_back(connectIPv4(port.number()));
    turn();
    EXPECT_EQ(openConnections, clients.size());
  }
}

}  // namespace
