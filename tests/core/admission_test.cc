#include "core/admission.h"

#include <fcntl.h>

#include "tests/core/admission_fixture.h"
#include "tests/core/forced_calls.h"

namespace {

using core_test::AdmissionTest;
using core_test::connectIPv4;
using core_test::connectIPv6;
using core_test::connectUnix;
using core_test::ForcedCalls;
using core_test::Forcing;
using core_test::ipv4;
using core_test::Probe;
using core_test::readToEnd;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

// ---- Accepting

TEST_F(AdmissionTest, ATcpConnectionIsTakenAndServed) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv6(port.number());
  tcpReady(entry);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection"));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_EQ(runner.trigger(newest()), tn::Trigger::cached);
  EXPECT_EQ(runner.mask(newest()), tn::readable);
  EXPECT_EQ(fcntl(newest(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
  EXPECT_EQ(fcntl(newest(), F_GETFD), FD_CLOEXEC);
  EXPECT_THAT(exchange(client), testing::EndsWith("answered"));
  EXPECT_EQ(openConnections, 0U);
}

TEST_F(AdmissionTest, TheRequestKnowsItsIPv6Addresses) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv6(port.number());
  tcpReady(entry);
  exchange(client);
  ASSERT_THAT(probe.seen, SizeIs(1));
  const Probe::Seen& seen = probe.seen[0];
  EXPECT_EQ(seen.peerAddress.str(true), "::1");
  EXPECT_EQ(seen.peerPort, core_test::portOf(client.get()));
  EXPECT_EQ(seen.localAddress.str(true), "::1");
  EXPECT_EQ(seen.localPort, port.number());
  EXPECT_EQ(seen.originalAddress, std::nullopt);
  EXPECT_FALSE(seen.ssl);
  EXPECT_FALSE(seen.unix);
}

TEST_F(AdmissionTest, TheRequestKnowsItsIPv4AddressesInTheirIPv6Form) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  exchange(client);
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_EQ(probe.seen[0].peerAddress, ipv4(0x7F000001));
  EXPECT_EQ(probe.seen[0].peerPort, core_test::portOf(client.get()));
  EXPECT_EQ(probe.seen[0].localAddress, ipv4(0x7F000001));
  EXPECT_EQ(probe.seen[0].localPort, port.number());
}

TEST_F(AdmissionTest, ARedirectedConnectionKnowsWhereItWasMeantToGo) {
  sockaddr_in original{};
  original.sin_family = AF_INET;
  storeBe16(reinterpret_cast<std::uint8_t*>(&original.sin_port), 443);
  storeBe32(reinterpret_cast<std::uint8_t*>(&original.sin_addr), 0xC0A80101);
  const Forcing forcing(ForcedCalls{.inet6Error = 0, .listenError = 0, .originalDestination = original});
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  exchange(client);
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_EQ(probe.seen[0].originalAddress, ipv4(0xC0A80101));
  EXPECT_EQ(probe.seen[0].originalPort, 443U);
}

TEST_F(AdmissionTest, APeerThatIsGoneIsToldAndTheConnectionGoesOn) {
  const ServerEntry& entry = openPlain();
  {
    const UniqueFd client = connectIPv4(port.number());
    const linger hard{1, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
  }
  tcpReady(entry);
  EXPECT_THAT(systemErrors.takeLines(), ElementsAre("getpeername: Transport endpoint is not connected"));
  EXPECT_EQ(openConnections, 1U);
}

TEST_F(AdmissionTest, AWakeUpWithoutAPeerIsIgnored) {
  const ServerEntry& entry = openPlain();
  tcpReady(entry);
  unixReady(entry);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection", "acceptUnixConnection"));
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(entry.pauseTimer, 0U);
  EXPECT_THAT(systemErrors.takeLines(), IsEmpty());
}

TEST_F(AdmissionTest, OneConnectionIsTakenPerEvent) {
  const ServerEntry& entry = openPlain();
  const UniqueFd first = connectIPv4(port.number());
  const UniqueFd second = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(openConnections, 1U);
  tcpReady(entry);
  EXPECT_EQ(openConnections, 2U);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection", "acceptConnection"));
}

TEST_F(AdmissionTest, AConnectionThatCannotBeWatchedIsClosed) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  runner.refuseAdds = true;
  tcpReady(entry);
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(readToEnd(client.get()), "");
}

// ---- The unix listener

TEST_F(AdmissionTest, AUnixConnectionBringsItsAddresses) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectUnix(port.number());
  unixReady(entry);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptUnixConnection"));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_THAT(systemErrors.takeLines(), IsEmpty());
  std::string header(88, '\0');
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  storeBe16(reinterpret_cast<std::uint8_t*>(&peer.sin_port), 4711);
  storeBe32(reinterpret_cast<std::uint8_t*>(&peer.sin_addr), 0x0A000001);
  std::memcpy(header.data(), &peer, sizeof peer);
  EXPECT_THAT(exchange(client, header), testing::EndsWith("answered"));
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_TRUE(probe.seen[0].unix);
  EXPECT_EQ(probe.seen[0].peerAddress, ipv4(0x0A000001));
  EXPECT_EQ(probe.seen[0].peerPort, 4711U);
}

TEST_F(AdmissionTest, UnixPeersAreAlwaysAllowed) {
  const ServerEntry& entry = open(false, true, {ipv4Prefix(0x0A000000, 0xFF000000)});
  const UniqueFd client = connectUnix(port.number());
  unixReady(entry);
  EXPECT_EQ(openConnections, 1U);
}

// ---- Prefixes

TEST_F(AdmissionTest, WithoutPrefixesEveryoneIsAllowed) {
  const ServerEntry& entry = openPlain();
  const UniqueFd first = connectIPv4(port.number());
  const UniqueFd second = connectIPv6(port.number());
  tcpReady(entry);
  tcpReady(entry);
  EXPECT_EQ(openConnections, 2U);
}

TEST_F(AdmissionTest, AForeignPeerIsClosedWithoutAWord) {
  const ServerEntry& entry = open(false, false, {ipv4Prefix(0x0A000000, 0xFF000000), ipv4Prefix(0x7F000002, ~0U)});
  for (const UniqueFd& client : {connectIPv4(port.number()), connectIPv6(port.number())}) {
    tcpReady(entry);
    EXPECT_EQ(readToEnd(client.get()), "");
  }
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(runner.watchedCount(), 1U);
  EXPECT_THAT(log.takeLines(), ElementsAre("acceptConnection", "acceptConnection"));
  EXPECT_THAT(systemErrors.takeLines(), IsEmpty());
}

TEST_F(AdmissionTest, AnyPrefixThatFitsAdmits) {
  const ServerEntry& entry =
      open(false, false,
           {ipv4Prefix(0x0A000000, 0xFF000000), ipv4Prefix(0x7F000000, 0xFF000000), ipv6Prefix(in6addr_loopback, 128)});
  const UniqueFd first = connectIPv4(port.number());
  const UniqueFd second = connectIPv6(port.number());
  tcpReady(entry);
  tcpReady(entry);
  EXPECT_EQ(openConnections, 2U);
}

TEST_F(AdmissionTest, IPv4PrefixesDoNotAdmitIPv6Peers) {
  const ServerEntry& entry = open(false, false, {ipv4Prefix(0, 0)});
  const UniqueFd foreign = connectIPv6(port.number());
  tcpReady(entry);
  EXPECT_EQ(readToEnd(foreign.get()), "");
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(openConnections, 1U);
}

TEST_F(AdmissionTest, PeersOfAnIPv4SocketAreCheckedInTheirIPv6Form) {
  const Forcing forcing(ForcedCalls{.inet6Error = EAFNOSUPPORT, .originalDestination = {}});
  const ServerEntry& entry = open(false, false, {ipv4Prefix(0x7F000000, 0xFF000000)});
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(openConnections, 1U);
  exchange(client);
  ASSERT_THAT(probe.seen, SizeIs(1));
  EXPECT_EQ(probe.seen[0].peerAddress, ipv4(0x7F000001));
}

}  // namespace
