#include "core/admission.h"

#include <algorithm>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <optional>
#include <sys/mman.h>
#include <sys/stat.h>

#include "tests/core/core_test.h"
#include "tests/core/descriptor_limit.h"
#include "tests/core/forced_calls.h"

namespace {

using core_test::connectIPv4;
using core_test::connectIPv6;
using core_test::connectUnix;
using core_test::CoreTest;
using core_test::ForcedCalls;
using core_test::Forcing;
using core_test::HeldPort;
using core_test::NoMoreDescriptors;
using core_test::readToEnd;
using core_test::stillOpen;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;
using tn::fakes::RecordingBus;

// Answers every request, and keeps what it knew of it.
class Probe : public Servlet {
 public:
  struct Seen {
    IPAddr6 peerAddress;
    std::uint32_t peerPort;
    IPAddr6 localAddress;
    std::uint32_t localPort;
    std::optional<IPAddr6> originalAddress;
    std::uint32_t originalPort;
    bool ssl;
    bool unix;
  };

  bool isDirectory() override { return true; }
  void doMethod(Request& request, Response& response) override {
    seen.push_back({request.peerAddress, request.peerPort, request.localAddress, request.localPort, std::nullopt,
                    request.originalPort, request.ssl, request.unix});
    if (request.hasOriginal) seen.back().originalAddress = request.originalAddress;
    response.send("answered");
  }

  std::vector<Seen> seen;
};

// So many connections more than there are.
class Crowd {
 public:
  explicit Crowd(std::uint32_t count) : count_(count) { openConnections += count_; }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;
  ~Crowd() { openConnections -= count_; }

 private:
  std::uint32_t count_;
};

ino_t inodeOf(int fd) {
  struct stat status {};
  EXPECT_EQ(fstat(fd, &status), 0);
  return status.st_ino;
}

IPAddr6 ipv4(std::uint32_t address) {
  IPAddr6 result;
  result.setIPv4(address);
  return result;
}

class AdmissionTest : public CoreTest {
 protected:
  // A configured server that listens on TCP, and when told so on its unix socket too.
  ServerEntry& open(bool ssl, bool listenUnix, std::vector<tn::message> allowed = {}) {
    ServerEntry& entry = addConfigured("web", ssl);
    entry.listenUnix = listenUnix;
    entry.servlets.push_back(&probe);
    tn::message message = record("web", port.number());
    if (!allowed.empty()) message.insert_vector(tn::message_array_id(6), allowed);
    if (ssl) message.insert(tn::u32_id(5), 7);
    EXPECT_EQ(told(call(tn::command::set, message)), "ok");
    log.takeLines();
    bus.sent.clear();
    return entry;
  }
  ServerEntry& openPlain() { return open(false, true); }

  static tn::message ipv4Prefix(std::uint32_t address, std::uint32_t mask) {
    tn::message prefix;
    prefix.insert(tn::u32_id(1), address);
    prefix.insert(tn::u32_id(2), mask);
    return prefix;
  }
  static tn::message ipv6Prefix(const in6_addr& address, std::uint32_t length) {
    tn::Addr6 bytes{};
    std::copy(std::begin(address.s6_addr), std::end(address.s6_addr), bytes.begin());
    tn::message prefix;
    prefix.insert(tn::addr6_id(3), bytes);
    prefix.insert(tn::u32_id(4), length);
    return prefix;
  }

  void tcpReady(const ServerEntry& entry) { EXPECT_TRUE(runner.ready(entry.tcpSocket.get(), tn::readable)); }
  void unixReady(const ServerEntry& entry) { EXPECT_TRUE(runner.ready(entry.unixSocket.get(), tn::readable)); }

  // The socket that was watched last.
  [[nodiscard]] int newest() const {
    using Operation = tn::fakes::FakeRunner::Operation;
    const auto added = [](const auto& call) { return call.operation == Operation::add && call.result; };
    const auto found = std::find_if(runner.calls.rbegin(), runner.calls.rend(), added);
    return found == runner.calls.rend() ? -1 : found->fd;
  }

  // Sends a request on an accepted connection and returns the answer.
  std::string exchange(const UniqueFd& client, std::string_view before = "") {
    const std::string request = std::string(before) + "GET / HTTP/1.0\r\n\r\n";
    EXPECT_EQ(write(client.get(), request.data(), request.size()), static_cast<ssize_t>(request.size()));
    const int fd = newest();
    runner.ready(fd, tn::readable);
    runner.ready(fd, tn::writable);
    return readToEnd(client.get());
  }

  HeldPort port;
  Probe probe;
};

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

// ---- The limit

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
  EXPECT_THAT(runner.calls, ElementsAre(Call{Operation::change, -1, 0, false}, Call{Operation::change, fd, 0, true},
                                        Call{Operation::change, -1, 1, false}, Call{Operation::change, fd, 1, true}));
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

// ---- TLS

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
