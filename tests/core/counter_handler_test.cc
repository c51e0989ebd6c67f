#include "core/counter_handler.h"

#include <map>

#include "platform/policies.h"
#include "tests/core/admission_fixture.h"
#include "tests/core/descriptor_limit.h"

namespace {

using core_test::AdmissionTest;
using core_test::connectIPv4;
using core_test::connectUnix;
using core_test::Crowd;
using core_test::NoMoreDescriptors;
using testing::ElementsAre;
using testing::Optional;
using testing::SizeIs;

constexpr std::uint32_t forbidden = tn::policies::all & ~tn::policies::read;

class CounterHandlerTest : public AdmissionTest {
 protected:
  CounterHandlerTest() { loop.looper.addHandler(CounterHandler::busHandlerId, handler); }

  tn::message ask(tn::message request = {}) {
    const std::uint32_t number = bus.request(1001, CounterHandler::busHandlerId, tn::command::get, std::move(request));
    const auto* reply = bus.replyTo(number);
    EXPECT_NE(reply, nullptr);
    return reply == nullptr ? tn::message() : reply->content;
  }
  std::vector<tn::message> servers() { return ask().get(tn::message_array_id(1)).value_or(std::vector<tn::message>()); }
  tn::message onlyServer() {
    const auto all = servers();
    EXPECT_THAT(all, SizeIs(1));
    return all.empty() ? tn::message() : all.front();
  }
  static tn::message session(std::uint32_t policies) {
    tn::message request;
    request.insert(tn::field::user, "eve");
    request.insert(tn::field::policies, policies);
    return request;
  }
  // The counters of a server, 5 to 16.
  static std::vector<std::uint64_t> counters(const tn::message& server) {
    std::vector<std::uint64_t> all;
    for (std::uint32_t number = 5; number <= 0x10; ++number)
      all.push_back(server.get(tn::u64_id(number)).value_or(~std::uint64_t{0}));
    return all;
  }

  CounterHandler handler{server.servers};
};

TEST_F(CounterHandlerTest, AServerWithoutARecordDoesNotListen) {
  addConfigured("a", true);
  const tn::message told = onlyServer();
  EXPECT_EQ(told.get(tn::string_id(1)), "a");
  EXPECT_EQ(told.get(tn::bool_id(2)), false);
  EXPECT_EQ(told.get(tn::u32_id(3)), 0U);
  EXPECT_EQ(told.get(tn::bool_id(4)), true);
  EXPECT_THAT(counters(told), testing::Each(0U));
  EXPECT_THAT(counters(told), SizeIs(12));
  EXPECT_EQ(told.get(tn::u32_id(0x11)), 0U);
  EXPECT_EQ(told.get(tn::bool_id(0x12)), false);
}

TEST_F(CounterHandlerTest, ServersComeInOrderOfTheirNames) {
  addConfigured("b");
  addConfigured("a");
  const auto all = servers();
  ASSERT_THAT(all, SizeIs(2));
  EXPECT_EQ(all[0].get(tn::string_id(1)), "a");
  EXPECT_EQ(all[1].get(tn::string_id(1)), "b");
}

TEST_F(CounterHandlerTest, ARequestIsCountedWithItsBytes) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_EQ(onlyServer().get(tn::u32_id(0x11)), 1U);
  const std::string answer = exchange(client);
  const tn::message told = onlyServer();
  EXPECT_EQ(told.get(tn::bool_id(2)), true);
  EXPECT_EQ(told.get(tn::u32_id(3)), port.number());
  EXPECT_EQ(told.get(tn::bool_id(0x12)), true);
  EXPECT_THAT(counters(told), ElementsAre(1, 0, 1, 0, 0, 0, 18, answer.size(), 0, 0, 0, 0));
  EXPECT_EQ(told.get(tn::u32_id(0x11)), 0U);
}

TEST_F(CounterHandlerTest, TheUnixListenerCountsToo) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectUnix(port.number());
  unixReady(entry);
  const std::string answer = exchange(client, std::string(88, '\0'));
  EXPECT_THAT(counters(onlyServer()), ElementsAre(1, 0, 1, 0, 0, 0, 88 + 18, answer.size(), 0, 0, 0, 0));
}

TEST_F(CounterHandlerTest, AConnectionForTlsCountsOnceAndItsBytesAsTheServerSeesThem) {
  const ServerEntry& entry = open(true, false);
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_THAT(counters(onlyServer()), ElementsAre(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(onlyServer().get(tn::u32_id(0x11)), 0U);
  int ends[2] = {-1, -1};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const UniqueFd plain(ends[0]);
  bus.answer(bus.sent.front(), {}, UniqueFd(ends[1]));
  const std::string answer = exchange(plain);
  EXPECT_THAT(counters(onlyServer()), ElementsAre(1, 0, 1, 0, 0, 0, 18, answer.size(), 0, 0, 0, 0));
}

TEST_F(CounterHandlerTest, APeerThatIsNotAllowedIsRefused) {
  const ServerEntry& entry = open(false, false, {ipv4Prefix(0x01020304, 0xFFFFFFFF)});
  const UniqueFd client = connectIPv4(port.number());
  tcpReady(entry);
  EXPECT_THAT(counters(onlyServer()), ElementsAre(0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0));
}

TEST_F(CounterHandlerTest, APauseOfBothListenersIsOne) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  const UniqueFd unixClient = connectUnix(port.number());
  const Crowd crowd(maxOpenConnections + 1);
  tcpReady(entry);
  acceptUnixConnection(*find("web"));
  EXPECT_THAT(counters(onlyServer()), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
  runner.advance(pauseMs);
  tcpReady(entry);
  EXPECT_THAT(counters(onlyServer()), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2));
}

TEST_F(CounterHandlerTest, SoIsOneForWantOfDescriptors) {
  const ServerEntry& entry = openPlain();
  const UniqueFd client = connectIPv4(port.number());
  {
    const NoMoreDescriptors limit;
    tcpReady(entry);
  }
  EXPECT_THAT(counters(onlyServer()), ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1));
}

TEST_F(CounterHandlerTest, TheWholeIsToldBesides) {
  const tn::message empty = ask();
  EXPECT_THAT(empty.get(tn::message_array_id(1)), Optional(SizeIs(0)));
  const Crowd crowd(17);
  const tn::message told = ask();
  EXPECT_EQ(told.get(tn::u32_id(2)), 17U);
  EXPECT_EQ(told.get(tn::u32_id(3)), maxOpenConnections);
  EXPECT_TRUE(told.has(tn::u64_id(4)));
  EXPECT_EQ(told.get(tn::u64_id(5)), droppedLogLines());
}

TEST_F(CounterHandlerTest, ASessionNeedsTheRightToRead) {
  EXPECT_EQ(told(ask(session(tn::policies::read))), "ok");
  EXPECT_EQ(told(ask(session(forbidden))), "fe0009 not allowed");
  EXPECT_EQ(told(ask(session(0))), "fe0009 not allowed");
  tn::message nameless;
  nameless.insert(tn::field::policies, forbidden);
  EXPECT_EQ(told(ask(nameless)), "fe0009 not allowed");
}

TEST_F(CounterHandlerTest, NothingCanBeSet) {
  const std::uint32_t number = bus.request(1001, CounterHandler::busHandlerId, tn::command::set, {});
  ASSERT_NE(bus.replyTo(number), nullptr);
  EXPECT_EQ(told(bus.replyTo(number)->content), "fe0007 unknown command");
}

}  // namespace
