#include "core/admission.h"
#include "tests/core/admission_fixture.h"
#include "tests/core/descriptor_limit.h"

namespace {

using core_test::AdmissionTest;
using core_test::connectIPv4;
using core_test::connectUnix;
using core_test::Crowd;
using core_test::NoMoreDescriptors;
using core_test::stillOpen;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(AdmissionTest, At1000ConnectionsOneMoreIsTaken) {
  const ServerEntry& entry = openPlain();
  const Crowd crowd(1000);
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(openConnections, 1001U);
  EXPECT_EQ(entry.pauseTimer, 0U);
}

TEST_F(AdmissionTest, Above1000ConnectionsTheListenersPause) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  const UniqueFd unixClient = connectUnix(port.number());
  {
    const Crowd crowd(1001);
    tcpReady(entry);
    EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection"));
    EXPECT_EQ(openConnections, 1001U);
    EXPECT_EQ(runner.mask(entry.tcpSocket.get()), 0U);
    EXPECT_EQ(runner.mask(entry.unixSocket.get()), 0U);
    EXPECT_NE(entry.pauseTimer, 0U);

    runner.advance(1);
    EXPECT_EQ(runner.mask(entry.tcpSocket.get()), tn::readable);
    EXPECT_EQ(runner.mask(entry.unixSocket.get()), tn::readable);
    EXPECT_EQ(entry.pauseTimer, 0U);

    unixReady(entry);
    EXPECT_THAT(log.takeLines(), ElementsAre("acceptUnixConnection"));
    EXPECT_EQ(runner.mask(entry.tcpSocket.get()), 0U);
    EXPECT_EQ(runner.mask(entry.unixSocket.get()), 0U);
    EXPECT_TRUE(stillOpen(client.get()));
    EXPECT_TRUE(stillOpen(unixClient.get()));
  }
  runner.advance(1);
  tcpReady(entry);
  unixReady(entry);
  EXPECT_EQ(openConnections, 2U);
}

TEST_F(AdmissionTest, APauseLooksAtATcpSocketThatIsNotThere) {
  ServerEntry& entry = openPlain();
  entry.listenTcp = false;
  call(tn::command::set, record("web", port.number()));
  runner.calls.clear();
  const Crowd crowd(1001);
  unixReady(entry);
  runner.advance(1);
  using Operation = tn::fakes::FakeRunner::Operation;
  using Call = tn::fakes::FakeRunner::Call;
  const int fd = entry.unixSocket.get();
  EXPECT_THAT(runner.calls, ElementsAre(Call{Operation::change, fd, 0, true}, Call{Operation::change, fd, 1, true}));
}

TEST_F(AdmissionTest, ClosingTheListenersEndsThePause) {
  const ServerEntry& entry = openPlain();
  {
    const Crowd crowd(1001);
    tcpReady(entry);
  }
  call(tn::command::removeObj, record("web", 0));
  EXPECT_EQ(entry.pauseTimer, 0U);
  runner.calls.clear();
  runner.advance(10);
  EXPECT_THAT(runner.calls, IsEmpty());
}

// Both listeners may be told in one turn, before the pause of the first keeps the second silent.
TEST_F(AdmissionTest, PausingTwiceIsOnePause) {
  ServerEntry& entry = openPlain();
  pauseAccepting(entry);
  pauseAccepting(entry);
  call(tn::command::removeObj, record("web", 0));
  runner.calls.clear();
  runner.advance(10);
  EXPECT_THAT(runner.calls, IsEmpty());
}

TEST_F(AdmissionTest, AListenerThatTheKernelRefusesIsWatchedLater) {
  ServerEntry& entry = openPlain();
  pauseAccepting(entry);
  runner.refuseChanges = true;
  runner.advance(20);
  EXPECT_EQ(runner.mask(entry.tcpSocket.get()), 0U);
  runner.refuseChanges = false;
  runner.advance(1);
  EXPECT_EQ(runner.mask(entry.tcpSocket.get()), tn::readable);
  EXPECT_EQ(runner.mask(entry.unixSocket.get()), tn::readable);
  EXPECT_EQ(entry.pauseTimer, 0U);
}

TEST_F(AdmissionTest, AReopenedListenerIsWatchedAtOnce) {
  const ServerEntry& entry = openPlain();
  {
    const Crowd crowd(1001);
    tcpReady(entry);
  }
  call(tn::command::set, record("web", port.number()));
  EXPECT_EQ(runner.mask(entry.tcpSocket.get()), tn::readable);
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(openConnections, 1U);
}

TEST_F(AdmissionTest, WithoutDescriptorsTheListenersPause) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  const UniqueFd unixClient = connectUnix(port.number());
  {
    const NoMoreDescriptors limit;
    tcpReady(entry);
    EXPECT_EQ(runner.mask(entry.tcpSocket.get()), 0U);
    runner.advance(1);
    unixReady(entry);
    EXPECT_EQ(runner.mask(entry.unixSocket.get()), 0U);
  }
  EXPECT_TRUE(stillOpen(client.get()));
  EXPECT_EQ(openConnections, 0U);
  runner.advance(1);
  tcpReady(entry);
  unixReady(entry);
  EXPECT_EQ(openConnections, 2U);
}

}  // namespace
