#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include "tests/services/tlsd/session_fixture.h"

namespace tlsd {
namespace {

using tests::Ends;
using tests::Got;
using tests::hasHungUp;
using tests::Peer;
using tests::readPlain;
using tests::tcpEnds;
using tests::writePlain;

constexpr char alertRecord = 0x15;

class HandshakeTest : public tests::SessionTest {
 protected:
  // What a peer gets that speaks no TLS of its own.
  static Got raw(int fd) { return readPlain(fd); }
  void offer(std::string_view protocols) {
    SSL_CTX_set_alpn_protos(clientContext_.get(), reinterpret_cast<const unsigned char*>(protocols.data()),
                            static_cast<unsigned>(protocols.size()));
  }
  static std::string chosenProtocol(const Peer& peer) {
    const unsigned char* data = nullptr;
    unsigned length = 0;
    SSL_get0_alpn_selected(peer.ssl(), &data, &length);
    return std::string(reinterpret_cast<const char*>(data), length);
  }
  // The bytes that a client begins with.
  std::string clientHello() {
    Ends ends = tcpEnds();
    peerOf(std::move(ends.far)).step();
    return raw(ends.near.get()).bytes;
  }
};

TEST_F(HandshakeTest, EndsInADescriptorOfPlainBytes) {
  const Link link = connected();
  EXPECT_EQ(SSL_version(link.peer.ssl()), TLS1_3_VERSION);
  EXPECT_EQ(link.service.answers, 1);
  EXPECT_EQ(sessions_->relays(), 1U);
  EXPECT_EQ(sessions_->counters().relayed, 1U);
  EXPECT_EQ(sessions_->counters().handedOver, 1U);
}

TEST_F(HandshakeTest, SpeaksTls12) {
  SSL_CTX_set_max_proto_version(clientContext_.get(), TLS1_2_VERSION);
  const Link link = connected();
  EXPECT_EQ(SSL_version(link.peer.ssl()), TLS1_2_VERSION);
  EXPECT_STREQ(SSL_get_cipher_name(link.peer.ssl()), "ECDHE-ECDSA-AES128-GCM-SHA256");
}

TEST_F(HandshakeTest, SpeaksNothingOlder) {
  SSL_CTX_set_security_level(clientContext_.get(), 0);
  SSL_CTX_set_min_proto_version(clientContext_.get(), TLS1_VERSION);
  SSL_CTX_set_max_proto_version(clientContext_.get(), TLS1_1_VERSION);
  const Link link = begin();
  shake(link);
  EXPECT_EQ(link.service.error, "bad handshake: unsupported protocol");
  EXPECT_EQ(failures(Failure::nothingInCommon), 1U);
}

TEST_F(HandshakeTest, UsesNoCipherWithoutForwardSecrecy) {
  SSL_CTX_set_max_proto_version(clientContext_.get(), TLS1_2_VERSION);
  SSL_CTX_set_cipher_list(clientContext_.get(), "AES128-GCM-SHA256:ECDHE-ECDSA-AES128-SHA256");
  const Link link = begin();
  shake(link);
  EXPECT_EQ(link.service.error, "bad handshake: no shared cipher");
}

TEST_F(HandshakeTest, ChoosesHttp11) {
  offer("\x02h2\x08http/1.1");
  EXPECT_EQ(chosenProtocol(connected().peer), "http/1.1");
}

TEST_F(HandshakeTest, RefusesAPeerThatSpeaksSomethingElseOnly) {
  offer("\x02h2");
  const Link link = begin();
  shake(link);
  EXPECT_EQ(link.service.error, "bad handshake: no application protocol");
  EXPECT_FALSE(link.peer.established());
}

TEST_F(HandshakeTest, ResumesByTicket) {
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    SSL_CTX_set_max_proto_version(clientContext_.get(), version);
    const Link first = connected();
    (void)first.peer.read();
    writePlain(first.plain(), "x");
    turn();
    EXPECT_EQ(first.peer.read().bytes, "x");
    SSL_SESSION* session = SSL_get1_session(first.peer.ssl());
    const std::uint64_t before = sessions_->counters().resumed;
    for (const bool renewed : {false, true}) {
      if (renewed) renewTicketKeys(*context_);
      const Link next = begin();
      SSL_set_session(next.peer.ssl(), session);
      shake(next);
      EXPECT_EQ(SSL_session_reused(next.peer.ssl()), renewed ? 0 : 1);
    }
    EXPECT_EQ(sessions_->counters().resumed, before + 1);
    SSL_SESSION_free(session);
  }
}

TEST_F(HandshakeTest, HasTheFirstRequestReadWhenItIsDone) {
  const Link link = begin();
  for (int i = 0; i < 5 && !link.peer.established(); ++i) {
    link.peer.step();
    if (!link.peer.established()) turn();
  }
  // The client's last word and its request arrive together.
  link.peer.write("GET / HTTP/1.1\r\n\r\n");
  turn(1);
  ASSERT_TRUE(link.service.plain);
  EXPECT_EQ(readPlain(link.plain()).bytes, "GET / HTTP/1.1\r\n\r\n");
}

TEST_F(HandshakeTest, RefusesPlainBytes) {
  Ends ends = tcpEnds();
  const HandOver& service = handOver(std::move(ends.near));
  writePlain(ends.far.get(), "GET / HTTP/1.1\r\nHost: x\r\n\r\n");
  turn();
  EXPECT_EQ(service.error, "the peer does not speak TLS");
  EXPECT_EQ(service.answers, 1);
  EXPECT_TRUE(raw(ends.far.get()).ended);
  EXPECT_EQ(failures(Failure::notTls), 1U);
}

TEST_F(HandshakeTest, RefusesGarbage) {
  for (const std::string& garbage : {std::string(500, '\0'), std::string(500, '\xff'), tests::sampleBytes(5000)}) {
    Ends ends = tcpEnds();
    const HandOver& service = handOver(std::move(ends.near));
    writePlain(ends.far.get(), garbage);
    turn();
    EXPECT_NE(service.error, "");
    EXPECT_EQ(service.answers, 1);
    const Got got = raw(ends.far.get());
    EXPECT_TRUE(got.ended);
    EXPECT_TRUE(got.bytes.empty() || got.bytes[0] == alertRecord);
  }
}

TEST_F(HandshakeTest, RefusesADamagedHello) {
  const std::string hello = clientHello();
  for (std::size_t at = 0; at < hello.size(); at += 3) {
    std::string damaged = hello;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x55);
    Ends ends = tcpEnds();
    const HandOver& service = handOver(std::move(ends.near));
    writePlain(ends.far.get(), damaged);
    turn();
    EXPECT_FALSE(service.plain);
    ends.far.reset();
    turn();
    EXPECT_EQ(service.answers, 1) << at;
  }
}

TEST_F(HandshakeTest, WaitsForAPeerThatSaysNothingAndNoLonger) {
  Ends ends = tcpEnds();
  const HandOver& service = handOver(std::move(ends.near));
  turn();
  advance(handshakeMs - 1000);
  EXPECT_EQ(service.answers, 0);
  advance(1000);
  EXPECT_EQ(service.answers, 1);
  EXPECT_EQ(service.error, "handshake timeout");
  EXPECT_TRUE(raw(ends.far.get()).ended);
  EXPECT_EQ(failures(Failure::timedOut), 1U);
}

TEST_F(HandshakeTest, GivesNoMoreTimeToAPeerThatDrips) {
  const std::string hello = clientHello();
  Ends ends = tcpEnds();
  const HandOver& service = handOver(std::move(ends.near));
  for (std::size_t i = 0; i < 10; ++i) {
    writePlain(ends.far.get(), hello.substr(i, 1));
    turn();
    advance(handshakeMs / 10);
  }
  EXPECT_EQ(service.error, "handshake timeout");
}

TEST_F(HandshakeTest, EndsWithThePeerWhereverItIsCut) {
  const std::string hello = clientHello();
  for (std::size_t length = 0; length <= hello.size(); length += 11) {
    Ends ends = tcpEnds();
    const HandOver& service = handOver(std::move(ends.near));
    writePlain(ends.far.get(), hello.substr(0, length));
    turn();
    ends.far.reset();
    turn();
    EXPECT_EQ(service.answers, 1) << length;
    EXPECT_EQ(service.error, "the peer left in the handshake") << length;
  }
}

TEST_F(HandshakeTest, EndsWithAPeerThatLeavesBeforeItsLastWord) {
  for (const bool hard : {false, true}) {
    const Link link = begin();
    link.peer.step();
    turn();
    EXPECT_EQ(sessions_->handshakes(), 1U);
    hard ? link.peer.resetConnection() : link.peer.vanish();
    turn();
    EXPECT_EQ(link.service.error, "the peer left in the handshake");
    EXPECT_EQ(sessions_->handshakes(), 0U);
  }
  EXPECT_EQ(failures(Failure::left), 2U);
}

TEST_F(HandshakeTest, TellsThatThePeerDidNotWantTheCertificate) {
  SSL_CTX_set_verify(clientContext_.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_max_proto_version(clientContext_.get(), TLS1_2_VERSION);
  const Link link = begin();
  shake(link);
  EXPECT_EQ(link.service.error, "the peer refused: tlsv1 alert unknown ca");
  EXPECT_EQ(failures(Failure::refused), 1U);
}

TEST_F(HandshakeTest, RefusesWhatIsNoConnection) {
  int ends[2] = {-1, -1};
  ASSERT_EQ(pipe(ends), 0);
  const UniqueFd reading(ends[0]);
  EXPECT_EQ(handOver(UniqueFd(ends[1])).error, "no connection came with the request");
  EXPECT_EQ(handOver(UniqueFd(open("/dev/null", O_RDWR))).error, "no connection came with the request");
  EXPECT_EQ(handOver(UniqueFd(socket(AF_INET, SOCK_DGRAM, 0))).error, "no connection came with the request");
  EXPECT_EQ(failures(Failure::system), 3U);
}

TEST_F(HandshakeTest, RefusesASocketThatIsNotConnected) {
  const HandOver& service = handOver(UniqueFd(socket(AF_INET, SOCK_STREAM, 0)));
  turn();
  EXPECT_EQ(service.answers, 1);
  EXPECT_FALSE(service.plain);
}

TEST_F(HandshakeTest, RefusesEverybodyWithoutACertificate) {
  context_.reset();
  EXPECT_EQ(handOver(std::move(tcpEnds().near)).error, "there is no certificate");
}

TEST_F(HandshakeTest, FailsWithoutADescriptorForThePair) {
  const Link link = begin();
  link.peer.step();
  turn();
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const UniqueFd lowest(dup(0));
  rlimit none = before;
  none.rlim_cur = static_cast<rlim_t>(lowest.get());
  setrlimit(RLIMIT_NOFILE, &none);
  shake(link);
  setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(link.service.error, "there is no descriptor left");
  EXPECT_EQ(failures(Failure::system), 1U);
}

TEST_F(HandshakeTest, DoesNotWaitForASocketThatWouldWait) {
  // The flags of a socket are shared with whoever has a copy of it.
  Ends ends = tcpEnds();
  const UniqueFd copy(dup(ends.near.get()));
  const HandOver& service = handOver(std::move(ends.near));
  Peer& peer = peerOf(std::move(ends.far));
  for (int i = 0; i < 10 && service.answers == 0; ++i) {
    fcntl(copy.get(), F_SETFL, 0);
    peer.step();
    turn();
  }
  EXPECT_TRUE(service.plain);
}

TEST_F(HandshakeTest, IsAbandonedWithoutAWord) {
  const Link link = begin();
  link.peer.step();
  turn();
  sessions_->abandonHandshakes();
  EXPECT_EQ(link.service.answers, 0);
  EXPECT_EQ(sessions_->handshakes(), 0U);
  EXPECT_EQ(failures(Failure::abandoned), 1U);
  link.peer.step();
  EXPECT_TRUE(link.peer.read().failed);
}

class LimitedTest : public HandshakeTest {
 protected:
  void SetUp() override {
    limits_.handshakes = 3;
    limits_.sessions = 5;
    SessionTest::SetUp();
  }
};

TEST_F(LimitedTest, TheHandshakeThatWaitedLongestGivesWay) {
  std::vector<Ends> ends;
  std::vector<HandOver*> services;
  for (int i = 0; i < 4; ++i) {
    Ends& one = ends.emplace_back(tcpEnds());
    services.push_back(&handOver(std::move(one.near)));
  }
  EXPECT_EQ(services[0]->error, "too many connections");
  EXPECT_TRUE(hasHungUp(ends[0].far.get()) || raw(ends[0].far.get()).ended);
  EXPECT_EQ(sessions_->handshakes(), 3U);
  EXPECT_EQ(services[3]->answers, 0);
  EXPECT_EQ(failures(Failure::overload), 1U);
}

TEST_F(LimitedTest, ThoseThatAreServedDoNot) {
  std::vector<Link> links;
  for (int i = 0; i < 5; ++i)
    links.push_back(connected());
  const Link more = begin();
  EXPECT_EQ(more.service.error, "too many connections");
  EXPECT_EQ(sessions_->relays(), 5U);
  for (const Link& link : links) {
    link.peer.write("x");
    turn();
    EXPECT_EQ(readPlain(link.plain()).bytes, "x");
  }
}

TEST_F(LimitedTest, OneThatWaitsForItsPeerToCloseGivesWayFirst) {
  std::vector<Link> links;
  for (int i = 0; i < 4; ++i)
    links.push_back(connected());
  links[1].service.plain.reset();
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  const Link waiting = begin();
  turn();
  const Link next = begin();
  EXPECT_EQ(sessions_->closing(), 0U);
  EXPECT_EQ(next.service.answers, 0);
  EXPECT_EQ(waiting.service.answers, 0);
  const Link another = begin();
  EXPECT_EQ(waiting.service.error, "too many connections");
  EXPECT_EQ(another.service.answers, 0);
}

TEST_F(LimitedTest, OneWhoseServerIsGoneGivesWayBeforeAnybodyIsRefused) {
  std::vector<Link> links;
  for (int i = 0; i < 5; ++i)
    links.push_back(connected());
  fillFromServer(links[0]);
  links[0].service.plain.reset();
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  EXPECT_EQ(begin().service.answers, 0);
  EXPECT_EQ(sessions_->closing(), 0U);
}

TEST(Limits, LeaveDescriptorsForTheRest) {
  EXPECT_EQ(sessionsFor(1'000'000), maxSessions);
  EXPECT_EQ(sessionsFor(1024), (1024 - reservedDescriptors) / 2);
  EXPECT_EQ(sessionsFor(64), 16U);
  EXPECT_EQ(sessionsFor(0), 1U);
}

}  // namespace
}  // namespace tlsd
