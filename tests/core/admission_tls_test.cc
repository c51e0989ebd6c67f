#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "core/admission.h"
#include "tests/core/admission_fixture.h"

namespace {

using core_test::AdmissionTest;
using core_test::connectIPv4;
using core_test::connectUnix;
using core_test::Crowd;
using core_test::ipv4;
using core_test::readToEnd;
using core_test::stillOpen;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;
using tn::fakes::RecordingBus;

ino_t inodeOf(int fd) {
  struct stat status {};
  EXPECT_EQ(fstat(fd, &status), 0);
  return status.st_ino;
}

class TlsTest : public AdmissionTest {
 protected:
  // Lets a client connect and returns what the TLS service is asked.
  RecordingBus::Sent& handOver(const ServerEntry& entry) {
    client = connectIPv4(port.number());
    tcpReady(entry);
    log.takeLines();
    EXPECT_THAT(bus.sent, SizeIs(1));
    return bus.sent.back();
  }

  static tn::message errorAnswer() { return tn::errorMsg(0xfe0001, "no certificate"); }

  // What a service gives back: one end of a pair, the other is the client's plain side.
  struct Pair {
    UniqueFd plain;
    UniqueFd given;
  };
  static Pair socketPair(int type = SOCK_STREAM) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
    return {UniqueFd(ends[0]), UniqueFd(ends[1])};
  }

  UniqueFd client;
};

TEST_F(TlsTest, TheSocketGoesToTheTlsService) {
  const ServerEntry& entry = open(true, false);
  const std::size_t before = core_test::openDescriptors();
  const RecordingBus::Sent& asked = handOver(entry);
  EXPECT_EQ(asked.peer, 12U);
  EXPECT_THAT(asked.content.get(tn::field::destination), Optional(IsEmpty()));
  EXPECT_EQ(asked.content.get(tn::field::command), 1U);
  EXPECT_EQ(asked.content.get(tn::bool_id(1)), true);
  EXPECT_EQ(asked.content.get(tn::u32_id(2)), 7U);
  EXPECT_TRUE(asked.content.has(tn::u32_id(0xff0015)));
  // The client's end, and the accepted one on its way: none is kept here.
  EXPECT_EQ(core_test::openDescriptors(), before + 2);
  EXPECT_TRUE(asked.descriptor);
  EXPECT_FALSE(runner.watched(asked.descriptor.get()));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_TRUE(stillOpen(client.get()));
}

TEST_F(TlsTest, WithoutAReferenceAllOnesAreSent) {
  const ServerEntry& entry = open(true, false);
  call(tn::command::set, record("web", port.number()));
  bus.sent.clear();
  EXPECT_EQ(handOver(entry).content.get(tn::u32_id(2)), 0xFFFFFFFFU);
}

TEST_F(TlsTest, TheSameSocketComesBackAndIsServed) {
  const ServerEntry& entry = open(true, false);
  RecordingBus::Sent& asked = handOver(entry);
  UniqueFd given = std::move(asked.descriptor);
  const ino_t inode = inodeOf(given.get());
  fcntl(given.get(), F_SETFL, 0);  // however the service left it
  bus.answer(asked, {}, std::move(given));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_EQ(inodeOf(newest()), inode);
  EXPECT_EQ(fcntl(newest(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(runner.trigger(newest()), tn::Trigger::cached);
  EXPECT_THAT(exchange(client), testing::EndsWith("answered"));
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_TRUE(probe.seen[0].ssl);
  EXPECT_FALSE(probe.seen[0].unix);
  EXPECT_EQ(probe.seen[0].peerAddress, ipv4(0x7F000001));
  EXPECT_EQ(probe.seen[0].peerPort, core_test::portOf(client.get()));
  EXPECT_EQ(probe.seen[0].localPort, port.number());
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(TlsTest, ASocketPairComesBackAndHasNoAddresses) {
  const ServerEntry& entry = open(true, false);
  Pair pair = socketPair();
  bus.answer(handOver(entry), {}, std::move(pair.given));
  EXPECT_THAT(exchange(pair.plain), testing::EndsWith("answered"));
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_EQ(probe.seen[0].peerAddress, IPAddr6());
  EXPECT_EQ(probe.seen[0].peerPort, 0U);
  EXPECT_EQ(probe.seen[0].localAddress, IPAddr6());
  EXPECT_EQ(probe.seen[0].localPort, 0U);
  EXPECT_THAT(systemErrors.takeLines(), IsEmpty());
}

TEST_F(TlsTest, AUnixConnectionOfATlsServerComesBackAsOne) {
  const ServerEntry& entry = open(true, true);
  client = connectUnix(port.number());
  unixReady(entry);
  ASSERT_THAT(bus.sent, SizeIs(1));
  EXPECT_EQ(openConnections, 0U);
  UniqueFd given = std::move(bus.sent[0].descriptor);
  bus.answer(bus.sent[0], {}, std::move(given));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_THAT(exchange(client), testing::EndsWith("answered"));
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_TRUE(probe.seen[0].ssl);
  EXPECT_TRUE(probe.seen[0].unix);
}

TEST_F(TlsTest, AForeignPeerIsNotHandedOver) {
  const ServerEntry& entry = open(true, false, {ipv4Prefix(0x0A000000, 0xFF000000)});
  client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_THAT(bus.sent, IsEmpty());
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, ARefusalIsToldOnce) {
  const ServerEntry& entry = open(true, false);
  RecordingBus::Sent& asked = handOver(entry);
  asked.descriptor.reset();
  bus.answer(asked, errorAnswer());
  runner.advance(10000);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no certificate"));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, ARefusalWithADescriptorKeepsNone) {
  const ServerEntry& entry = open(true, false);
  RecordingBus::Sent& asked = handOver(entry);
  UniqueFd given = std::move(asked.descriptor);
  bus.answer(asked, errorAnswer(), std::move(given));
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no certificate"));
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, SilenceEndsAfterSixSeconds) {
  const ServerEntry& entry = open(true, false);
  handOver(entry);
  runner.advance(5999);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  runner.advance(1);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: timeout"));
  EXPECT_EQ(openConnections, 0U);
}

TEST_F(TlsTest, AnAnswerThatIsTooLateIsNoAnswer) {
  const ServerEntry& entry = open(true, false);
  RecordingBus::Sent& asked = handOver(entry);
  runner.advance(6000);
  log.takeLines();
  UniqueFd given = std::move(asked.descriptor);
  bus.answer(asked, {}, std::move(given));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, AServiceThatIsNotThereIsTold) {
  const ServerEntry& entry = open(true, false);
  RecordingBus::Sent& asked = handOver(entry);
  asked.descriptor.reset();  // the broker closes what it cannot deliver
  bus.bounce(asked);
  runner.advance(0);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: unreachable"));
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, WithoutALinkTheClientIsClosed) {
  const ServerEntry& entry = open(true, false);
  bus.unlink();
  client = connectIPv4(port.number());
  tcpReady(entry);
  runner.advance(0);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection", "ssl error: unreachable"));
  EXPECT_EQ(readToEnd(client.get()), "");
}

TEST_F(TlsTest, ABrokerThatDiesFailsWhatIsPending) {
  const ServerEntry& entry = open(true, false);
  handOver(entry);
  bus.unlink();
  runner.advance(0);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: unreachable"));
}

TEST_F(TlsTest, AnAnswerWithoutADescriptorIsAnError) {
  const ServerEntry& entry = open(true, false);
  const RecordingBus::Sent& asked = handOver(entry);
  bus.answer(asked, {});
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no socket in the reply"));
  EXPECT_EQ(openConnections, 0U);
}

// A number alone is no descriptor, though it may be the number of one of ours.
TEST_F(TlsTest, AnAnswerThatOnlyNamesADescriptorIsAnError) {
  const ServerEntry& entry = open(true, false);
  const RecordingBus::Sent& asked = handOver(entry);
  for (const int named : {entry.tcpSocket.get(), -1}) {
    tn::message answer;
    answer.insert(tn::field::descriptor, static_cast<std::uint32_t>(named));
    tlsReply(answer, *find("web"), {});
    EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no socket in the reply"));
  }
  tn::message answer;
  answer.insert(tn::field::descriptor, static_cast<std::uint32_t>(entry.tcpSocket.get()));
  bus.answer(asked, answer);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no socket in the reply"));
  EXPECT_TRUE(core_test::isOpen(entry.tcpSocket.get()));
  EXPECT_EQ(openConnections, 0U);
}

TEST_F(TlsTest, AnAnswerWithSomethingElseThanAStreamSocketIsAnError) {
  const ServerEntry& entry = open(true, false);
  bus.answer(handOver(entry), {}, UniqueFd(memfd_create("no socket", MFD_CLOEXEC)));
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no socket in the reply"));
  bus.sent.clear();
  bus.answer(handOver(entry), {}, socketPair(SOCK_DGRAM).given);
  EXPECT_THAT(log.takeLines(), ElementsAre("ssl error: no socket in the reply"));
  EXPECT_EQ(openConnections, 0U);
}

TEST_F(TlsTest, ASecondAnswerIsIgnored) {
  const ServerEntry& entry = open(true, false);
  const RecordingBus::Sent& asked = handOver(entry);
  Pair first = socketPair();
  Pair second = socketPair();
  bus.answer(asked, {}, std::move(first.given));
  bus.answer(asked, {}, std::move(second.given));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_TRUE(stillOpen(first.plain.get()));
  EXPECT_EQ(readToEnd(second.plain.get()), "");
}

TEST_F(TlsTest, NobodyElseCanAnswer) {
  const ServerEntry& entry = open(true, false);
  const RecordingBus::Sent& asked = handOver(entry);
  Pair pair = socketPair();
  bus.answerFrom(1001, asked, {}, std::move(pair.given));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(readToEnd(pair.plain.get()), "");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(TlsTest, AnAnswerAfterTheServerWasDisabledIsIgnored) {
  const ServerEntry& entry = open(true, false);
  handOver(entry);
  RecordingBus::Sent asked = std::move(bus.sent.back());
  call(tn::command::set, disabledRecord("web"));
  log.takeLines();
  UniqueFd given = std::move(asked.descriptor);
  bus.answer(asked, {}, std::move(given));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(readToEnd(client.get()), "");
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(TlsTest, ARefusalAfterTheServerWasDisabledIsNotTold) {
  const ServerEntry& entry = open(true, false);
  handOver(entry);
  call(tn::command::set, disabledRecord("web"));
  log.takeLines();
  runner.advance(6000);
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

// Removing closes the listeners and leaves the server enabled.
TEST_F(TlsTest, AnAnswerAfterTheServerWasRemovedIsServed) {
  const ServerEntry& entry = open(true, false);
  handOver(entry);
  RecordingBus::Sent asked = std::move(bus.sent.back());
  call(tn::command::removeObj, record("web", 0));
  UniqueFd given = std::move(asked.descriptor);
  bus.answer(asked, {}, std::move(given));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_THAT(exchange(client), testing::EndsWith("answered"));
}

TEST_F(TlsTest, HandOversDoNotCountAsConnections) {
  const ServerEntry& entry = open(true, false);
  const Crowd crowd(1000);
  const UniqueFd first = connectIPv4(port.number());
  const UniqueFd second = connectIPv4(port.number());
  tcpReady(entry);
  tcpReady(entry);
  EXPECT_THAT(bus.sent, SizeIs(2));
  EXPECT_EQ(openConnections, 1000U);
}

}  // namespace
