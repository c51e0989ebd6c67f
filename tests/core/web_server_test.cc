#include "core/web_server.h"

#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>

#include "platform/policies.h"
#include "servlets/remote_servlet.h"
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
using core_test::Lines;
using core_test::NoMoreDescriptors;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class WebServerTest : public CoreTest {
 protected:
  std::string number() const { return std::to_string(port.number()); }
  tn::message recordOf(std::string_view name) const { return record(name, port.number()); }
  tn::message tlsRecordOf(std::string_view name, std::uint32_t ref) const {
    tn::message message = recordOf(name);
    message.insert(tn::u32_id(5), ref);
    return message;
  }

  HeldPort port;
};

// ---- Set

TEST_F(WebServerTest, ARecordOpensTheTcpListenerForBothFamilies) {
  ServerEntry& entry = addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "ok");
  EXPECT_EQ(log.takeLines(),
            (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(), "using inet6"}));
  EXPECT_TRUE(entry.enabled);
  EXPECT_EQ(entry.port, port.number());
  EXPECT_EQ(entry.tlsRef, 0xFFFFFFFFU);
  EXPECT_FALSE(entry.unixSocket);
  EXPECT_TRUE(connectIPv4(port.number()));
  EXPECT_TRUE(connectIPv6(port.number()));
}

TEST_F(WebServerTest, TheListenerIsSetUpAsItMustBe) {
  const ServerEntry& entry = addConfigured("web");
  call(tn::command::set, recordOf("web"));
  const int fd = entry.tcpSocket.get();
  EXPECT_EQ(fcntl(fd, F_GETFL) & ~O_ACCMODE, O_NONBLOCK);
  int reuse = 0;
  socklen_t length = sizeof reuse;
  EXPECT_EQ(getsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
  EXPECT_NE(reuse, 0);
  EXPECT_EQ(core_test::lastBacklog(), 10);
  EXPECT_EQ(runner.mask(fd), tn::readable);
  EXPECT_EQ(runner.trigger(fd), tn::Trigger::level);
}

TEST_F(WebServerTest, AnUnknownNameIsRefused) {
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "fe0006 no such service");
  EXPECT_THAT(log.takeLines(), ElementsAre("failed to set server web: unknown server"));
  EXPECT_THAT(server.servers, IsEmpty());
  EXPECT_FALSE(server.settingsReceived);
}

TEST_F(WebServerTest, NamesAreComparedByteByByte) {
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, recordOf("Web"))), "fe0006 no such service");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web "))), "fe0006 no such service");
}

TEST_F(WebServerTest, ARecordWithoutANameIsRefused) {
  tn::message nameless = recordOf("web");
  nameless.remove(tn::string_id(1));
  nameless.insert(tn::u32_id(1), 7);
  EXPECT_EQ(told(call(tn::command::set, nameless)), "fe0006 no such service");
  EXPECT_EQ(told(call(tn::command::addObj, nameless)), "fe0006 no such service");
  EXPECT_EQ(told(call(tn::command::removeObj, nameless)), "fe0006 no such service");
  EXPECT_THAT(log.takeLines(),
              ElementsAre("failed to set server : unknown server", "failed to set server : unknown server",
                          "failed to remove server : unknown server"));
  EXPECT_THAT(server.servers, IsEmpty());
}

TEST_F(WebServerTest, WithoutAPortItIsPort80) {
  const ServerEntry& entry = addConfigured("web");
  tn::message message = recordOf("web");
  message.remove(tn::u32_id(2));
  call(tn::command::set, message);
  EXPECT_EQ(entry.port, 80U);
  const Lines lines = log.takeLines();
  ASSERT_THAT(lines, SizeIs(testing::Ge(2)));
  EXPECT_EQ(lines[0], "set web enabled=1 port=80");
  EXPECT_EQ(lines[1], "creating tcp socket on port 80");
}

TEST_F(WebServerTest, ADisabledRecordClosesTheListeners) {
  const ServerEntry& entry = addConfigured("web");
  call(tn::command::set, recordOf("web"));
  log.takeLines();
  EXPECT_EQ(told(call(tn::command::set, disabledRecord("web"))), "ok");
  EXPECT_THAT(log.takeLines(), ElementsAre("set web enabled=0 port=80"));
  EXPECT_FALSE(entry.enabled);
  EXPECT_FALSE(entry.tcpSocket);
  EXPECT_EQ(runner.watchedCount(), 0U);
  EXPECT_FALSE(connectIPv6(port.number()));
}

TEST_F(WebServerTest, TheSameRecordTwiceOpensTheListenerAnew) {
  const ServerEntry& entry = addConfigured("web");
  call(tn::command::set, recordOf("web"));
  log.takeLines();
  const UniqueFd waiting = connectIPv6(port.number());
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "ok");
  EXPECT_EQ(log.takeLines(),
            (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(), "using inet6"}));
  EXPECT_EQ(runner.watchedCount(), 1U);
  EXPECT_TRUE(runner.watched(entry.tcpSocket.get()));
  // The queue of the closed listener is gone, and what connects now is in that of the new one.
  EXPECT_FALSE(core_test::stillOpen(waiting.get()));
  EXPECT_TRUE(core_test::stillOpen(connectIPv6(port.number()).get()));
}

// The side that closes first keeps the port busy for a while; the next listener must be able to bind all the same.
TEST_F(WebServerTest, ARecordIsAppliedWhileClosedConnectionsLinger) {
  addConfigured("web");
  call(tn::command::set, recordOf("web"));
  const UniqueFd client = connectIPv4(port.number());
  runner.ready(find("web")->tcpSocket.get(), tn::readable);
  EXPECT_EQ(openConnections, 1U);
  runner.advance(2000);
  EXPECT_EQ(openConnections, 0U);
  EXPECT_EQ(core_test::readToEnd(client.get()), "");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "ok");
}

TEST_F(WebServerTest, ARecordWithoutPrefixesLetsEveryoneIn) {
  const ServerEntry& entry = addConfigured("web");
  tn::message prefix;
  prefix.insert(tn::u32_id(1), 0x0A000000);
  prefix.insert(tn::u32_id(2), 0xFF000000);
  tn::message message = recordOf("web");
  message.insert_vector(tn::message_array_id(6), std::vector{prefix});
  call(tn::command::set, message);
  EXPECT_THAT(entry.allowed, SizeIs(1));
  call(tn::command::set, recordOf("web"));
  EXPECT_THAT(entry.allowed, IsEmpty());
}

TEST_F(WebServerTest, ARecordNeverChangesWhatTheServerIs) {
  ServerEntry& entry = addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, tlsRecordOf("web", 7))), "ok");
  EXPECT_EQ(entry.tlsRef, 7U);
  EXPECT_FALSE(entry.ssl);
  EXPECT_FALSE(entry.listenUnix);
  EXPECT_TRUE(entry.listenTcp);
  call(tn::command::set, recordOf("web"));
  EXPECT_EQ(entry.tlsRef, 0xFFFFFFFFU);
}

TEST_F(WebServerTest, FieldsOfOtherTypesCountAsAbsent) {
  const ServerEntry& entry = addConfigured("web");
  tn::message message = recordOf("web");
  message.insert(tn::string_id(0xfe000a), "true");
  message.insert(tn::string_id(5), "7");
  message.insert(tn::raw_id(6), std::vector<std::uint8_t>{1, 2});
  EXPECT_EQ(told(call(tn::command::set, message)), "ok");
  EXPECT_TRUE(entry.enabled);
  EXPECT_EQ(entry.tlsRef, 0xFFFFFFFFU);
  EXPECT_THAT(entry.allowed, IsEmpty());
}

// ---- Commands

TEST_F(WebServerTest, TheServicesOwnCommandsActAsSet) {
  const ServerEntry& entry = addConfigured("web");
  for (const std::uint32_t command : {0x30001U, 0x30002U}) {
    EXPECT_EQ(told(call(command, recordOf("web"))), "ok");
    EXPECT_TRUE(entry.tcpSocket);
    call(tn::command::removeObj, recordOf("web"));
    EXPECT_EQ(told(call(command, recordOf("other"))), "fe0006 no such service");
  }
}

TEST_F(WebServerTest, OtherCommandsAreUnknown) {
  addConfigured("web");
  for (const std::uint32_t command : {0x30000U, 0x30003U, 0U, tn::command::get, tn::command::getAll}) {
    EXPECT_EQ(told(call(command, recordOf("web"))), "fe0007 unknown command");
  }
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(WebServerTest, ACommandThatWantsNoReplyIsRun) {
  const ServerEntry& entry = addConfigured("web");
  tn::message message = recordOf("web");
  message.insert_vector(tn::field::destination, std::vector<std::uint32_t>{1});
  message.insert(tn::field::command, tn::command::set);
  bus.deliver(core_test::serviceManager, message);
  EXPECT_TRUE(entry.tcpSocket);
  EXPECT_THAT(bus.sent, IsEmpty());
}

// ---- Add

TEST_F(WebServerTest, AnAddedServerListensOnBothAndForwards) {
  EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "ok");
  EXPECT_EQ(log.takeLines(), (Lines{"adding server guest, ssl=0", "set guest enabled=1 port=" + number(),
                                    "creating unix socket on port " + number(),
                                    "creating tcp socket on port " + number(), "using inet6"}));
  const ServerEntry* entry = find("guest");
  ASSERT_NE(entry, nullptr);
  EXPECT_FALSE(entry->ssl);
  EXPECT_TRUE(entry->listenUnix);
  EXPECT_TRUE(entry->listenTcp);
  ASSERT_THAT(entry->servlets, SizeIs(1));
  const auto* forward = dynamic_cast<const RemoteServlet*>(entry->servlets[0]);
  ASSERT_NE(forward, nullptr);
  EXPECT_EQ(forward->getPath(), "/");
  EXPECT_TRUE(forward->baseFlag());
  EXPECT_THAT(forward->target(), ElementsAre(63, 15));
  EXPECT_TRUE(connectUnix(port.number()));
  EXPECT_TRUE(connectIPv4(port.number()));
}

TEST_F(WebServerTest, AnAddedTlsServerListensOnItsUnixSocketAlone) {
  EXPECT_EQ(told(call(tn::command::addObj, tlsRecordOf("guest", 3))), "ok");
  EXPECT_EQ(log.takeLines(), (Lines{"adding server guest, ssl=1", "set guest enabled=1 port=" + number(),
                                    "creating unix socket on port " + number()}));
  const ServerEntry* entry = find("guest");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->ssl);
  EXPECT_EQ(entry->tlsRef, 3U);
  EXPECT_FALSE(entry->listenTcp);
  EXPECT_FALSE(entry->tcpSocket);
  EXPECT_TRUE(connectUnix(port.number()));
  EXPECT_FALSE(connectIPv4(port.number()));
}

TEST_F(WebServerTest, AddingAConfiguredServerAppliesTheRecord) {
  ServerEntry& entry = addConfigured("web");
  EXPECT_EQ(told(call(tn::command::addObj, tlsRecordOf("web", 3))), "ok");
  EXPECT_EQ(log.takeLines(),
            (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(), "using inet6"}));
  EXPECT_EQ(find("web"), &entry);
  EXPECT_FALSE(entry.ssl);
  EXPECT_THAT(entry.servlets, IsEmpty());
}

TEST_F(WebServerTest, AnAddedServerIsThereAlsoWhenItsRecordFails) {
  port.occupy();
  EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "fe000c cannot bind service connection");
  ASSERT_NE(find("guest"), nullptr);
  log.takeLines();
  const HeldPort other;
  EXPECT_EQ(told(call(tn::command::addObj, record("guest", other.number()))), "ok");
  EXPECT_EQ(log.takeLines()[0], "set guest enabled=1 port=" + std::to_string(other.number()));
  EXPECT_TRUE(connectIPv4(other.number()));
}

// ---- Remove

TEST_F(WebServerTest, ARemovedServerStaysAndListensNoMore) {
  call(tn::command::addObj, recordOf("guest"));
  log.takeLines();
  EXPECT_EQ(told(call(tn::command::removeObj, recordOf("guest"))), "ok");
  EXPECT_THAT(log.takeLines(), ElementsAre("disabling server guest"));
  const ServerEntry* entry = find("guest");
  ASSERT_NE(entry, nullptr);
  EXPECT_TRUE(entry->enabled);
  EXPECT_EQ(entry->port, port.number());
  EXPECT_FALSE(entry->tcpSocket);
  EXPECT_FALSE(entry->unixSocket);
  EXPECT_EQ(runner.watchedCount(), 0U);
  EXPECT_FALSE(connectIPv4(port.number()));
  EXPECT_FALSE(connectUnix(port.number()));

  EXPECT_EQ(told(call(tn::command::set, recordOf("guest"))), "ok");
  EXPECT_TRUE(connectIPv4(port.number()));
  EXPECT_TRUE(connectUnix(port.number()));
}

TEST_F(WebServerTest, RemovingTwiceDoesNothingMore) {
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::removeObj, recordOf("web"))), "ok");
  EXPECT_EQ(told(call(tn::command::removeObj, recordOf("web"))), "ok");
  EXPECT_THAT(log.takeLines(), ElementsAre("disabling server web", "disabling server web"));
}

TEST_F(WebServerTest, RemovingAnUnknownServerIsRefused) {
  EXPECT_EQ(told(call(tn::command::removeObj, recordOf("web"))), "fe0006 no such service");
  EXPECT_THAT(log.takeLines(), ElementsAre("failed to remove server web: unknown server"));
}

TEST_F(WebServerTest, AcceptedConnectionsOutliveTheListener) {
  addConfigured("web");
  call(tn::command::set, recordOf("web"));
  const UniqueFd client = connectIPv4(port.number());
  runner.ready(find("web")->tcpSocket.get(), tn::readable);
  call(tn::command::removeObj, recordOf("web"));
  EXPECT_EQ(openConnections, 1U);
  EXPECT_TRUE(core_test::stillOpen(client.get()));
}

// ---- The unix socket's name

TEST_F(WebServerTest, ThePaddingBelongsToTheUnixName) {
  call(tn::command::addObj, tlsRecordOf("guest", 3));
  const sockaddr_un address = core_test::unixName(port.number());
  const auto* name = reinterpret_cast<const sockaddr*>(&address);
  const auto shortLength =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + std::strlen(address.sun_path + 1));
  EXPECT_FALSE(core_test::connectTo(name, shortLength));
  EXPECT_TRUE(core_test::connectTo(name, 110));
}

// ---- Failures

TEST_F(WebServerTest, APortInUseIsToldAndTheUnixListenerStays) {
  port.occupy();
  EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "fe000c cannot bind service connection");
  EXPECT_EQ(log.takeLines(),
            (Lines{"adding server guest, ssl=0", "set guest enabled=1 port=" + number(),
                   "creating unix socket on port " + number(), "creating tcp socket on port " + number(), "using inet6",
                   "error while binding: Address already in use"}));
  EXPECT_FALSE(find("guest")->tcpSocket);
  EXPECT_TRUE(connectUnix(port.number()));
}

TEST_F(WebServerTest, AUnixNameInUseIsToldAndTcpIsNotTried) {
  const UniqueFd holder(::socket(AF_UNIX, SOCK_STREAM, 0));
  const sockaddr_un name = core_test::unixName(port.number());
  ASSERT_EQ(bind(holder.get(), reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "fe000c cannot bind service connection");
  EXPECT_EQ(log.takeLines(),
            (Lines{"adding server guest, ssl=0", "set guest enabled=1 port=" + number(),
                   "creating unix socket on port " + number(), "error while binding: Address already in use"}));
  EXPECT_FALSE(find("guest")->unixSocket);
  EXPECT_FALSE(find("guest")->tcpSocket);
}

TEST_F(WebServerTest, APortThatIsNoneIsRefusedAndNotCut) {
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, record("web", 65536 + port.number()))),
            "fe000c cannot bind service connection");
  EXPECT_EQ(log.takeLines().back(), "error while binding: Invalid argument");
  EXPECT_FALSE(find("web")->tcpSocket);
  EXPECT_FALSE(connectIPv4(port.number()));
}

TEST_F(WebServerTest, AFailedListenIsTold) {
  const Forcing forcing(ForcedCalls{.listenError = EADDRINUSE, .originalDestination = {}});
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "fe0006 cannot listen service connection");
  EXPECT_EQ(log.takeLines(), (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(),
                                    "using inet6", "error while listening"}));
  EXPECT_FALSE(find("web")->tcpSocket);
  EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "fe0006 cannot listen service connection");
  EXPECT_EQ(log.takeLines(), (Lines{"adding server guest, ssl=0", "set guest enabled=1 port=" + number(),
                                    "creating unix socket on port " + number(), "error while listening"}));
  EXPECT_FALSE(find("guest")->unixSocket);
}

TEST_F(WebServerTest, AListenerThatCannotBeWatchedIsClosed) {
  runner.refuseAdds = true;
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "fe0006 cannot listen service connection");
  EXPECT_EQ(log.takeLines().back(), "error while listening");
  EXPECT_FALSE(find("web")->tcpSocket);
  EXPECT_FALSE(connectIPv4(port.number()));
}

TEST_F(WebServerTest, WithoutIPv6ItListensOnIPv4) {
  const Forcing forcing(ForcedCalls{.inet6Error = EAFNOSUPPORT, .originalDestination = {}});
  addConfigured("web");
  EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "ok");
  EXPECT_EQ(log.takeLines(),
            (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(), "using inet4"}));
  EXPECT_TRUE(connectIPv4(port.number()));
}

TEST_F(WebServerTest, WithoutDescriptorsNothingIsCreated) {
  addConfigured("web");
  {
    const NoMoreDescriptors limit;
    EXPECT_EQ(told(call(tn::command::set, recordOf("web"))), "fe0006 cannot create service connection");
    EXPECT_EQ(told(call(tn::command::addObj, recordOf("guest"))), "fe0006 cannot create service connection");
  }
  EXPECT_EQ(log.takeLines(),
            (Lines{"set web enabled=1 port=" + number(), "creating tcp socket on port " + number(), "using inet4",
                   "couldn't create socket", "adding server guest, ssl=0", "set guest enabled=1 port=" + number(),
                   "creating unix socket on port " + number(), "couldn't create socket"}));
  EXPECT_FALSE(find("web")->tcpSocket);
  EXPECT_FALSE(find("guest")->unixSocket);
  EXPECT_FALSE(find("guest")->tcpSocket);
}

TEST_F(WebServerTest, ALineCannotBeForged) {
  call(tn::command::set, record("web\nset admin enabled=1", 80));
  EXPECT_THAT(log.takeLines(), ElementsAre("failed to set server web?set admin enabled=1: unknown server"));
}

// ---- Asking for records

constexpr char noDirectory[] = "/nonexistent/configuration";

TEST_F(WebServerTest, WithoutARecordTheServicesAreAskedOnce) {
  server.start(noDirectory);
  log.takeLines();
  loop.advance(199);
  EXPECT_THAT(bus.sent, IsEmpty());
  EXPECT_THAT(log.takeLines(), IsEmpty());
  loop.advance(1);
  EXPECT_THAT(log.takeLines(), ElementsAre("no settings, asking sermgr and hotspot"));
  ASSERT_THAT(bus.sent, SizeIs(2));
  EXPECT_EQ(bus.sent[0].peer, 68U);
  EXPECT_THAT(bus.sent[0].content.get(tn::field::destination), testing::Optional(ElementsAre(1)));
  EXPECT_EQ(bus.sent[0].content.get(tn::field::command), 0x30003U);
  EXPECT_FALSE(bus.sent[0].content.has(tn::field::requestNumber));
  EXPECT_EQ(bus.sent[1].peer, 63U);
  EXPECT_THAT(bus.sent[1].content.get(tn::field::destination), testing::Optional(IsEmpty()));
  EXPECT_EQ(bus.sent[1].content.get(tn::field::command), 0x30003U);
  loop.advance(10000);
  EXPECT_THAT(bus.sent, SizeIs(2));
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(WebServerTest, ARecordInTimeMakesAskingNeedless) {
  server.start(noDirectory);
  addConfigured("web");
  loop.advance(199);
  call(tn::command::set, disabledRecord("web"));
  EXPECT_TRUE(server.settingsReceived);
  log.takeLines();
  bus.sent.clear();
  loop.advance(1000);
  EXPECT_THAT(bus.sent, IsEmpty());
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(WebServerTest, ARecordForNobodyIsNone) {
  server.start(noDirectory);
  call(tn::command::set, recordOf("web"));
  bus.sent.clear();
  loop.advance(200);
  EXPECT_THAT(bus.sent, SizeIs(2));
}

TEST_F(WebServerTest, WithoutALinkTheQuestionWaitsForIt) {
  bus.unlink();
  server.start(noDirectory);
  log.takeLines();
  loop.advance(1000);
  EXPECT_THAT(log.takeLines(), ElementsAre("no settings, asking sermgr and hotspot"));
  EXPECT_THAT(bus.sent, IsEmpty());
  bus.link();
  ASSERT_THAT(bus.sent, SizeIs(2));
  EXPECT_EQ(bus.sent[0].peer, 68U);
  EXPECT_EQ(bus.sent[1].peer, 63U);
  bus.unlink();
  bus.link();
  EXPECT_THAT(bus.sent, SizeIs(2));
  EXPECT_THAT(log.takeLines(), IsEmpty());
}

TEST_F(WebServerTest, ALinkMadeInTimeAsksNothingByItself) {
  bus.unlink();
  server.start(noDirectory);
  bus.link();
  EXPECT_THAT(bus.sent, IsEmpty());
  loop.advance(200);
  EXPECT_THAT(bus.sent, SizeIs(2));
}

TEST_F(WebServerTest, ADestroyedServerAsksNothing) {
  {
    WebServer other;
    loop.looper.addHandler(2, other);
    other.start(noDirectory);
  }
  log.takeLines();
  loop.advance(1000);
  EXPECT_THAT(log.takeLines(), IsEmpty());
  EXPECT_THAT(bus.sent, IsEmpty());
}

TEST_F(WebServerTest, ASessionNeedsTheRightToChangeSettings) {
  addConfigured("web");
  for (const std::uint32_t command :
       {tn::command::set, tn::command::addObj, tn::command::removeObj, 0x30001U, 0x30002U}) {
    tn::message record = disabledRecord("web");
    record.insert(tn::field::user, "guest");
    record.insert(tn::field::policies, ~tn::policies::changeSettings);
    EXPECT_EQ(told(call(command, record)), "fe0009 not allowed");
    EXPECT_FALSE(server.settingsReceived);
    record.insert(tn::field::policies, tn::policies::changeSettings);
    EXPECT_EQ(told(call(command, record)), "ok");
    server.settingsReceived = false;
  }
}

}  // namespace
