#include "services/busd/control.h"

#include <cstring>
#include <sys/resource.h>
#include <sys/un.h>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "tests/services/busd/peer.h"

namespace busd {
namespace {

using tn::message;

std::uint32_t errorCode(const message& answer) {
  return answer.get(tn::field::errorCode).value_or(0);
}

std::string errorText(const message& answer) {
  return std::string(answer.get(tn::field::errorText).value_or(std::string_view()));
}

Limits impatientLimits() {
  Limits limits;
  limits.joinMs = 30;
  return limits;
}

class ControlTest : public BrokerTest {};

class ImpatientTest : public BrokerTest {
 protected:
  ImpatientTest() : BrokerTest(impatientLimits()) {}
};

TEST_F(ControlTest, GivesFreeIdsFromAThousandUp) {
  Peer one(broker_);
  const message answer = one.join();
  EXPECT_EQ(answer.get(tn::u32_id(1)), 1U);
  EXPECT_EQ(answer.get(tn::u32_id(2)), 1000U);
  Peer two(broker_, otherUser);
  two.join();
  EXPECT_EQ(two.id(), 1001U);
}

TEST_F(ControlTest, DoesNotGiveAFreedIdAtOnce) {
  { Peer gone = joined(); }
  settle();
  EXPECT_EQ(joined().id(), 1001U);
}

TEST_F(ControlTest, GivesFixedIdsToRootAndItsOwnUser) {
  EXPECT_EQ(joined("sermgr", 68, 0).id(), 68U);
  EXPECT_EQ(joined("userd", 13, brokerUser).id(), 13U);
}

TEST_F(ControlTest, RefusesFixedIdsToOthers) {
  Peer other(broker_, otherUser);
  const message answer = other.join(13);
  EXPECT_EQ(errorCode(answer), tn::error::notAllowed);
  EXPECT_EQ(errorText(answer), "id 13 is not allowed for this user");
  EXPECT_TRUE(other.disconnected());
}

TEST_F(ControlTest, RefusesATakenId) {
  Peer first = joined("first", 68);
  Peer second(broker_);
  const message answer = second.join(68);
  EXPECT_EQ(errorCode(answer), refusal::idTaken);
  EXPECT_EQ(errorText(answer), "id 68 is taken");
  EXPECT_TRUE(second.disconnected());
  first.close();
  settle();
  EXPECT_EQ(joined("third", 68).id(), 68U);
}

TEST_F(ControlTest, RefusesIdsThatAreItsOwnToGive) {
  for (const std::uint32_t id : {1000U, 0xfeffffU, 0xff0000U, 0xffffffffU}) {
    Peer peer(broker_);
    const message answer = peer.join(id);
    EXPECT_EQ(errorCode(answer), refusal::badValue);
    EXPECT_EQ(errorText(answer), "id " + std::to_string(id) + " cannot be asked for");
    EXPECT_TRUE(peer.disconnected());
  }
}

TEST_F(ControlTest, JoinsAndSendsInOneWrite) {
  Peer target = joined();
  message request;
  request.insert(field::operation, tn::control::join);
  Payload bytes = frameOf(tn::brokerId, tn::FrameKind::control, request.flattened());
  const Payload frame = frameOf(target.id(), tn::FrameKind::message, bytesOf("first words"));
  bytes.insert(bytes.end(), frame.begin(), frame.end());
  Peer hasty(broker_);
  hasty.sendRaw(bytes);
  EXPECT_EQ(target.expectFrame().text(), "first words");
}

TEST_F(ControlTest, DisconnectsWhoeverDoesNotJoinFirst) {
  Peer talker(broker_);
  talker.send(1000, "hello");
  EXPECT_TRUE(talker.disconnected());

  Peer lister(broker_);
  message list;
  list.insert(field::operation, tn::control::list);
  lister.sendControl(list);
  EXPECT_TRUE(lister.disconnected());

  Peer nonsense(broker_);
  nonsense.sendRaw(frameOf(tn::brokerId, tn::FrameKind::control, bytesOf("no message")));
  EXPECT_TRUE(nonsense.disconnected());
}

TEST_F(ImpatientTest, DisconnectsWhoeverDoesNotJoinInTime) {
  Peer silent(broker_);
  Peer slow(broker_);
  slow.sendRaw(Payload{2, 0, 0});
  Peer member = joined();
  EXPECT_TRUE(silent.disconnected());
  EXPECT_TRUE(slow.disconnected());
  EXPECT_EQ(member.ask(tn::control::list).get(tn::u32_id(1)), 4U);
}

TEST_F(ControlTest, RefusesASecondJoinAndGoesOn) {
  Peer peer = joined();
  const message answer = peer.ask(tn::control::join);
  EXPECT_EQ(errorCode(answer), refusal::badValue);
  EXPECT_EQ(errorText(answer), "already joined");
  EXPECT_FALSE(peer.ask(tn::control::list).has(tn::field::errorCode));
}

TEST_F(ControlTest, ListsProgramsById) {
  Peer b = joined("second", 13);
  Peer c = joined("a name that is longer than sixty-four bytes, which is all that is kept of it");
  Peer a = joined("first\n\xc3\xa4", 12);
  Peer unnamed = joined("");
  const message answer = a.ask(tn::control::list);
  EXPECT_EQ(answer.get(tn::u32_id(1)), 4U);
  const auto entries = answer.get(tn::message_array_id(4)).value_or(std::vector<message>());
  std::vector<std::pair<std::uint32_t, std::string>> listed;
  for (const message& entry : entries)
    listed.emplace_back(entry.get(tn::u32_id(2)).value_or(0), entry.get(tn::string_id(3)).value_or("none"));
  EXPECT_THAT(listed, testing::ElementsAre(
                          testing::Pair(12U, "first???"), testing::Pair(13U, "second"),
                          testing::Pair(1000U, "a name that is longer than sixty-four bytes, which is all that i"),
                          testing::Pair(1001U, "unnamed")));
}

TEST_F(ControlTest, TellsFigures) {
  Peer from = joined("from");
  Peer to = joined("to");
  from.send(to.id(), "12345");
  from.send(77, "");
  to.expectFrame();
  from.expectFrame();
  const message answer = from.ask(tn::control::statistics);
  EXPECT_EQ(answer.get(tn::u32_id(1)), 5U);
  EXPECT_EQ(answer.get(tn::u64_id(5)), 2U);
  EXPECT_EQ(answer.get(tn::u64_id(6)), 29U);
  EXPECT_EQ(answer.get(tn::u64_id(7)), 1U);
  EXPECT_EQ(answer.get(tn::u64_id(8)), 0U);
  EXPECT_EQ(answer.get(tn::u64_id(9)), 0U);
  EXPECT_EQ(answer.get(tn::u64_id(10)), 0U);
  EXPECT_EQ(answer.get(tn::u64_id(11)), 0U);
  const auto entries = answer.get(tn::message_array_id(4)).value_or(std::vector<message>());
  ASSERT_EQ(entries.size(), 2U);
  EXPECT_EQ(entries[0].get(tn::u32_id(2)), from.id());
  EXPECT_EQ(entries[0].get(tn::string_id(3)), "from");
  EXPECT_EQ(entries[0].get(tn::u64_id(5)), 2U);
  EXPECT_EQ(entries[0].get(tn::u64_id(6)), 29U);
  EXPECT_EQ(entries[0].get(tn::u64_id(7)), 1U);
  EXPECT_EQ(entries[0].get(tn::u64_id(10)), 0U);
  EXPECT_EQ(entries[1].get(tn::u64_id(5)), 0U);
  EXPECT_EQ(entries[1].get(tn::u64_id(12)), 1U);
  EXPECT_EQ(entries[1].get(tn::u64_id(13)), 17U);
}

TEST_F(ControlTest, RefusesWhatItDoesNotKnow) {
  Peer peer = joined();
  for (const std::uint32_t operation : {0U, 7U, 0xffffffffU}) {
    const message answer = peer.ask(operation);
    EXPECT_EQ(answer.get(tn::u32_id(1)), operation);
    EXPECT_EQ(errorCode(answer), tn::error::unknownCommand);
    EXPECT_EQ(errorText(answer), "unknown command");
  }
}

TEST_F(ControlTest, DisconnectsWhoeverSendsNoControlMessage) {
  Peer peer = joined();
  peer.sendRaw(frameOf(tn::brokerId, tn::FrameKind::control, bytesOf("M2x")));
  EXPECT_TRUE(peer.disconnected());
}

TEST_F(ControlTest, AnswersGroupsWithTheirNumber) {
  Peer peer = joined("peer", 0, otherUser);
  for (const std::uint32_t operation : {tn::control::joinGroup, tn::control::leaveGroup}) {
    const message good = peer.ask(operation, 0xff0001);
    EXPECT_EQ(good.get(tn::u32_id(1)), operation);
    EXPECT_EQ(good.get(tn::u32_id(2)), 0xff0001U);
    EXPECT_FALSE(good.has(tn::field::errorCode));
    for (const std::uint32_t group : {0U, 68U, 0xfeffffU, 0x1000000U}) {
      const message bad = peer.ask(operation, group);
      EXPECT_EQ(errorCode(bad), refusal::badValue);
      EXPECT_EQ(errorText(bad), "no such group");
    }
  }
}

TEST_F(ControlTest, LimitsTheGroupsOfAProgram) {
  Peer peer = joined();
  for (std::uint32_t i = 0; i < 64; ++i)
    EXPECT_FALSE(peer.ask(tn::control::joinGroup, tn::firstGroup + i).has(tn::field::errorCode));
  const message refused = peer.ask(tn::control::joinGroup, tn::firstGroup + 64);
  EXPECT_EQ(errorCode(refused), refusal::tooMany);
  EXPECT_EQ(errorText(refused), "too many groups");
  peer.ask(tn::control::leaveGroup, tn::firstGroup);
  EXPECT_FALSE(peer.ask(tn::control::joinGroup, tn::firstGroup + 64).has(tn::field::errorCode));
}

Limits fewLimits() {
  Limits limits;
  limits.clients = 3;
  limits.trustedClients = 1;
  limits.membersPerGroup = 1;
  limits.acceptPauseMs = 1;
  return limits;
}

class FewTest : public BrokerTest {
 protected:
  FewTest() : BrokerTest(fewLimits()) {}
};

TEST_F(FewTest, LimitsTheMembersThatOtherUsersBring) {
  Peer first = joined("first", 0, otherUser);
  Peer second = joined("second", 0, otherUser);
  Peer root = joined("root", 0, 0);
  EXPECT_FALSE(first.ask(tn::control::joinGroup, 0xff0001).has(tn::field::errorCode));
  const message refused = second.ask(tn::control::joinGroup, 0xff0001);
  EXPECT_EQ(errorCode(refused), refusal::tooMany);
  EXPECT_EQ(errorText(refused), "the group is full");
  EXPECT_FALSE(root.ask(tn::control::joinGroup, 0xff0001).has(tn::field::errorCode));
}

TEST_F(FewTest, TurnsAwayProgramsBeyondTheLimit) {
  Peer a = joined();
  Peer b = joined();
  Peer c = joined();
  Peer d(broker_);
  EXPECT_FALSE(d.adopted());
  const message answer = d.expectFrame().message();
  EXPECT_EQ(answer.get(tn::u32_id(1)), 1U);
  EXPECT_EQ(errorCode(answer), refusal::tooMany);
  EXPECT_EQ(errorText(answer), "too many programs");
  EXPECT_TRUE(d.disconnected());
  a.close();
  settle();
  EXPECT_EQ(broker_.clients(), 2U);
  Peer e = joined();
  EXPECT_TRUE(e.adopted());
}

TEST_F(FewTest, KeepsAPlaceForTrustedPrograms) {
  Peer a = joined("a", 0, otherUser);
  Peer b = joined("b", 0, otherUser);
  Peer other(broker_, otherUser);
  EXPECT_FALSE(other.adopted());
  Peer own = joined("own", 68, brokerUser);
  EXPECT_TRUE(own.adopted());
}

// A listening socket that has no name in the file system: the kernel chooses one.
UniqueFd listenAnywhere(sockaddr_un& address, socklen_t& size) {
  UniqueFd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  address.sun_family = AF_UNIX;
  EXPECT_EQ(bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(sa_family_t)), 0);
  EXPECT_EQ(listen(listener.get(), 8), 0);
  EXPECT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
  return listener;
}

TEST_F(FewTest, OutlivesRunningOutOfDescriptors) {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  const UniqueFd listener = listenAnywhere(address, size);
  ASSERT_TRUE(broker_.listen(listener.get()));
  const UniqueFd client(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  ASSERT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), size), 0);

  // The sanitizer's own checks of this test's object would need a descriptor.
  Broker& broker = broker_;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit none{static_cast<rlim_t>(client.get()) + 1, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
  for (int i = 0; i < 4; ++i)
    broker.turn(0);
  EXPECT_EQ(broker.clients(), 0U);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  for (int i = 0; i < 1000 && broker_.clients() == 0; ++i)
    broker_.turn(10);
  EXPECT_EQ(broker_.clients(), 1U);
}

TEST(CleanName, KeepsWhatCanBePrinted) {
  EXPECT_EQ(cleanName("www"), "www");
  EXPECT_EQ(cleanName(""), "unnamed");
  EXPECT_EQ(cleanName("a\tb\x7f\x80~ "), "a?b??~ ");
  EXPECT_EQ(cleanName(std::string(100, 'n')), std::string(64, 'n'));
}

}  // namespace
}  // namespace busd
