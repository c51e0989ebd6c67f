#include "tests/services/tlsd/session_fixture.h"

namespace tlsd {
namespace {

using tests::Got;
using tests::hasHungUp;
using tests::readPlain;
using tests::sampleBytes;
using tests::writePlain;

class RelayTest : public tests::SessionTest {
 protected:
  // Moves bytes from the server to the peer until all have come, or nothing comes any more.
  std::string download(const Link& link, std::string_view bytes) {
    std::string came;
    for (int idle = 0; came.size() < bytes.size() && idle < 100; ++idle) {
      sent_ += writePlain(link.plain(), bytes.substr(sent_));
      turn(1);
      const Got got = link.peer.read();
      if (!got.bytes.empty()) idle = 0;
      came += got.bytes;
    }
    sent_ = 0;
    return came;
  }
  std::string upload(const Link& link, std::string_view bytes) {
    std::string came;
    for (int idle = 0; came.size() < bytes.size() && idle < 100; ++idle) {
      sent_ += link.peer.write(bytes.substr(sent_));
      turn(1);
      const Got got = readPlain(link.plain());
      if (!got.bytes.empty()) idle = 0;
      came += got.bytes;
    }
    sent_ = 0;
    return came;
  }
  std::size_t fillFromPeer(const Link& link) {
    std::size_t total = 0;
    for (int idle = 0; idle < 5; ++idle) {
      const std::size_t count = link.peer.write(std::string_view(filler_).substr(total % 4096, 16384));
      if (count != 0) idle = 0;
      total += count;
      turn();
    }
    return total;
  }

  std::size_t sent_ = 0;
};

TEST_F(RelayTest, CarriesBytesBothWays) {
  const Link link = connected();
  link.peer.write("GET");
  turn();
  EXPECT_EQ(readPlain(link.plain()).bytes, "GET");
  writePlain(link.plain(), "200");
  turn();
  EXPECT_EQ(link.peer.read().bytes, "200");
  EXPECT_EQ(sessions_->counters().fromPeers, 3U);
  EXPECT_EQ(sessions_->counters().toPeers, 3U);
}

TEST_F(RelayTest, CarriesMuchBothWays) {
  const std::string much = sampleBytes(6'000'000);
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    SSL_CTX_set_max_proto_version(clientContext_.get(), version);
    const Link link = connected();
    EXPECT_TRUE(download(link, much) == much);
    EXPECT_TRUE(upload(link, much) == much);
  }
  EXPECT_EQ(allFailuresTogether(), 0U);
}

TEST_F(RelayTest, CarriesEveryLength) {
  const Link link = connected();
  const std::string bytes = sampleBytes(70'000);
  for (const std::size_t length : {1, 2, 16383, 16384, 16385, 32768, 32769, 65535, 65536, 65537, 70000}) {
    EXPECT_TRUE(download(link, std::string_view(bytes).substr(0, length)) == bytes.substr(0, length)) << length;
    EXPECT_TRUE(upload(link, std::string_view(bytes).substr(0, length)) == bytes.substr(0, length)) << length;
  }
}

TEST_F(RelayTest, CarriesRecordsOfOneByte) {
  const Link link = connected();
  std::string came;
  for (int i = 0; i < 300; ++i)
    link.peer.write("y");
  turn();
  EXPECT_EQ(readPlain(link.plain()).bytes, std::string(300, 'y'));
}

TEST_F(RelayTest, HoldsUpAServerWhosePeerDoesNotRead) {
  const Link link = connected();
  int buffer = 65536;
  setsockopt(link.peer.fd(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof buffer);
  const std::size_t held = fillFromServer(link);
  EXPECT_LT(held, std::size_t{8} << 20);
  std::size_t came = 0;
  for (int i = 0; i < 1000 && came < held; ++i) {
    came += link.peer.read().bytes.size();
    turn();
  }
  EXPECT_EQ(came, held);
  EXPECT_EQ(download(link, "and on"), "and on");
}

// However much the kernel could take: a server that hears of no room for two seconds takes the peer for dead.
TEST_F(RelayTest, LetsTheServerHearOfEachBitThatASlowPeerTakes) {
  const Link link = connected();
  fillFromServer(link);
  for (int part = 0; part < 10; ++part) {
    advance(500);
    std::size_t taken = 0;
    std::size_t written = 0;
    for (int idle = 0; taken < 350'000 && idle < 100; ++idle) {
      // The kernel may bring what it holds a moment later.
      pollfd more{link.peer.fd(), POLLIN, 0};
      poll(&more, 1, 100);
      const std::size_t count = link.peer.read(16384).bytes.size();
      if (count != 0) idle = 0;
      taken += count;
      turn(1);
      written += writePlain(link.plain(), filler_);
    }
    EXPECT_GE(taken, 350'000U);
    EXPECT_GT(written, 0U) << "in part " << part;
  }
}

TEST_F(RelayTest, HoldsUpAPeerWhoseServerDoesNotRead) {
  const Link link = connected();
  const std::size_t held = fillFromPeer(link);
  EXPECT_LT(held, std::size_t{16} << 20);
  std::size_t came = 0;
  for (int i = 0; i < 1000 && came < held; ++i) {
    came += readPlain(link.plain()).bytes.size();
    turn();
  }
  EXPECT_EQ(came, held);
}

TEST_F(RelayTest, MovesOneDirectionWhileTheOtherIsHeldUp) {
  const Link link = connected();
  fillFromServer(link);
  EXPECT_EQ(upload(link, filler_).size(), filler_.size());
}

TEST_F(RelayTest, PassesOnThatThePeerSendsNoMore) {
  const Link link = connected();
  link.peer.write("last");
  link.peer.sayEnd();
  turn();
  const Got got = readPlain(link.plain());
  EXPECT_EQ(got.bytes, "last");
  EXPECT_TRUE(got.ended);
  EXPECT_FALSE(hasHungUp(link.plain()));
  // The server still answers, and its own end ends it all.
  const std::string much = sampleBytes(1 << 20);
  EXPECT_TRUE(download(link, much) == much);
  link.service.plain.reset();
  turn();
  EXPECT_TRUE(link.peer.read().ended);
  EXPECT_EQ(sessions_->relays() + sessions_->closing(), 0U);
  EXPECT_EQ(allFailuresTogether(), 0U);
}

TEST_F(RelayTest, PassesOnThatTheServerSendsNoMore) {
  const Link link = connected();
  writePlain(link.plain(), "last");
  shutdown(link.plain(), SHUT_WR);
  turn();
  const Got got = link.peer.read();
  EXPECT_EQ(got.bytes, "last");
  EXPECT_TRUE(got.ended);
  const std::string much = sampleBytes(1 << 20);
  EXPECT_TRUE(upload(link, much) == much);
  link.peer.sayEnd();
  turn();
  EXPECT_TRUE(readPlain(link.plain()).ended);
  EXPECT_EQ(sessions_->relays(), 0U);
  EXPECT_EQ(allFailuresTogether(), 0U);
}

TEST_F(RelayTest, GivesThePeerEverythingBeforeTheEnd) {
  const Link link = connected();
  const std::size_t held = fillFromServer(link);
  link.service.plain.reset();
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  Got got;
  std::size_t came = 0;
  for (int i = 0; i < 1000 && !got.ended && !got.failed; ++i) {
    got = link.peer.read();
    came += got.bytes.size();
    turn();
  }
  EXPECT_TRUE(got.ended);
  EXPECT_EQ(came, held);
}

TEST_F(RelayTest, WaitsForThePeerToCloseToo) {
  const Link link = connected();
  link.service.plain.reset();
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  // What still comes is taken, so that nothing that was sent is lost.
  link.peer.write("too late");
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  link.peer.vanish();
  turn();
  EXPECT_EQ(sessions_->closing(), 0U);
  EXPECT_EQ(allFailuresTogether(), 0U);
}

TEST_F(RelayTest, DoesNotWaitForEver) {
  const Link link = connected();
  link.service.plain.reset();
  turn();
  advance(lingerMs - 1000);
  EXPECT_EQ(sessions_->closing(), 1U);
  advance(1000);
  EXPECT_EQ(sessions_->closing(), 0U);
}

TEST_F(RelayTest, DoesNotCallAnAnswerWholeWhoseServerWasCutOff) {
  const Link link = connected();
  link.peer.write("a request that nobody reads");
  turn();
  writePlain(link.plain(), "half an ans");
  link.service.plain.reset();
  turn();
  const Got got = link.peer.read();
  EXPECT_EQ(got.bytes, "half an ans");
  EXPECT_TRUE(got.failed);
  EXPECT_FALSE(got.ended);
}

TEST_F(RelayTest, TakesAnEndWithoutCloseNotifyForAnError) {
  const Link link = connected();
  // With something unread the kernel would cut the connection.
  (void)link.peer.read();
  link.peer.vanish();
  turn();
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(writePlain(link.plain(), "an answer"), 0U);
  EXPECT_EQ(failures(Failure::truncated), 1U);
  EXPECT_EQ(sessions_->relays(), 0U);
}

TEST_F(RelayTest, EndsWithAConnectionThatIsCut) {
  const Link link = connected();
  link.peer.resetConnection();
  turn();
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(failures(Failure::reset), 1U);
}

TEST_F(RelayTest, EndsWithAConnectionThatIsCutWhileItsPeerDoesNotRead) {
  const Link link = connected();
  fillFromServer(link);
  link.peer.resetConnection();
  turn();
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(sessions_->relays(), 0U);
}

TEST_F(RelayTest, EndsWithAPeerThatSaidItsEndAndIsCut) {
  const Link link = connected();
  link.peer.sayEnd();
  turn();
  EXPECT_EQ(sessions_->relays(), 1U);
  link.peer.resetConnection();
  turn();
  EXPECT_EQ(sessions_->relays(), 0U);
  EXPECT_EQ(failures(Failure::reset), 1U);
}

TEST_F(RelayTest, AnswersGarbageWithAnAlert) {
  const Link link = connected();
  writePlain(link.peer.fd(), std::string("\x17\x03\x03\x00\x20", 5) + std::string(32, 'z'));
  turn();
  EXPECT_EQ(failures(Failure::broken), 1U);
  EXPECT_TRUE(hasHungUp(link.plain()));
  (void)link.peer.read();
  EXPECT_EQ(sessions_->closing(), 1U);
}

TEST_F(RelayTest, AnswersPlainBytesAfterTheHandshakeWithAnAlert) {
  const Link link = connected();
  writePlain(link.peer.fd(), "GET / HTTP/1.1\r\n\r\n");
  turn();
  EXPECT_EQ(failures(Failure::broken), 1U);
  EXPECT_EQ(readPlain(link.plain()).bytes, "");
}

TEST_F(RelayTest, DoesNotRenegotiate) {
  SSL_CTX_set_max_proto_version(clientContext_.get(), TLS1_2_VERSION);
  const Link link = connected();
  for (int i = 0; i < 3; ++i) {
    SSL_renegotiate(link.peer.ssl());
    link.peer.step();
    turn();
    (void)link.peer.read();
  }
  EXPECT_EQ(SSL_get_secure_renegotiation_support(link.peer.ssl()), 1);
  EXPECT_EQ(sessions_->counters().relayed, 1U);
  // The peer's library gives up; whatever it does, nothing of it reaches the server.
  EXPECT_EQ(readPlain(link.plain()).bytes, "");
}

TEST_F(RelayTest, ChangesKeysWhenThePeerWantsIt) {
  const Link link = connected();
  for (int i = 0; i < 5; ++i) {
    SSL_key_update(link.peer.ssl(), SSL_KEY_UPDATE_REQUESTED);
    EXPECT_EQ(upload(link, "up"), "up");
    EXPECT_EQ(download(link, "down"), "down");
  }
}

TEST_F(RelayTest, LivesOnWhenTheCertificateIsReplaced) {
  const Link link = connected();
  const auto identity = Identity::parse(tests::ownPair("another"));
  context_ = std::move(*makeContext(*identity, false));
  EXPECT_EQ(upload(link, "up"), "up");
  EXPECT_EQ(download(link, "down"), "down");
  const Link next = connected();
  const Owned<X509> shown(SSL_get1_peer_certificate(next.peer.ssl()));
  EXPECT_EQ(X509_cmp(shown.get(), identity->certificate()), 0);
}

TEST_F(RelayTest, EndsWhenNothingMovesForLong) {
  const Link link = connected();
  advance(idleMs - 1000);
  EXPECT_EQ(upload(link, "x"), "x");
  advance(idleMs - 1000);
  EXPECT_EQ(sessions_->relays(), 1U);
  advance(1000);
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(failures(Failure::stalled), 1U);
}

TEST_F(RelayTest, EndsSoonerWhenThePeerTakesNothing) {
  const Link link = connected();
  fillFromServer(link);
  advance(stallMs);
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(failures(Failure::stalled), 1U);
}

TEST_F(RelayTest, DoesNotKeepALeavingServersPeerForEver) {
  const Link link = connected();
  fillFromServer(link);
  link.service.plain.reset();
  turn();
  EXPECT_EQ(sessions_->closing(), 1U);
  advance(stallMs);
  EXPECT_EQ(sessions_->closing(), 0U);
}

TEST_F(RelayTest, ManyGoOnBesideOneAnother) {
  std::vector<Link> links;
  for (int i = 0; i < 60; ++i)
    links.push_back(connected());
  // Two thirds do not read, and are given much.
  for (std::size_t i = 0; i < links.size(); ++i) {
    if (i % 3 != 0) writePlain(links[i].plain(), filler_);
  }
  turn();
  const std::string much = sampleBytes(300'000);
  for (std::size_t i = 0; i < links.size(); i += 3)
    EXPECT_TRUE(download(links[i], much) == much);
}

// With the kernel's TLS asked for. A kernel that has it gets the ciphers that its OpenSSL gives it in both directions
// (with OpenSSL 3.0: TLS 1.2 alone); where one of the two is missing, the connection is relayed all the same.
class OffloadTest : public RelayTest {
 protected:
  void SetUp() override {
    offload_ = true;
    SessionTest::SetUp();
  }
  // What goes wrong or ends is the kernel's business where the socket itself was given back.
  [[nodiscard]] bool relayed() const { return sessions_->counters().relayed == 1; }
};

TEST_F(OffloadTest, CarriesMuchBothWays) {
  const std::string much = sampleBytes(2'000'000);
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    SSL_CTX_set_max_proto_version(clientContext_.get(), version);
    const Link link = connected();
    EXPECT_TRUE(download(link, much) == much);
    EXPECT_TRUE(upload(link, much) == much);
  }
  const Counters& counters = sessions_->counters();
  EXPECT_EQ(counters.relayed + counters.offloaded, 2U);
  EXPECT_EQ(counters.offloaded != 0, kernelOffersTls());
}

TEST_F(OffloadTest, RelaysWhatCannotBeGivenBack) {
  SSL_CTX_set_ciphersuites(clientContext_.get(), "TLS_CHACHA20_POLY1305_SHA256");
  SSL_CTX_set_min_proto_version(clientContext_.get(), TLS1_3_VERSION);
  const Link link = connected();
  EXPECT_TRUE(relayed());
  EXPECT_EQ(upload(link, "up"), "up");
  link.peer.sayEnd();
  turn();
  EXPECT_TRUE(readPlain(link.plain()).ended);
  EXPECT_EQ(download(link, "down"), "down");
  link.service.plain.reset();
  turn();
  EXPECT_TRUE(link.peer.read().ended);
}

TEST_F(OffloadTest, HoldsUpAServerWhosePeerDoesNotRead) {
  SSL_CTX_set_min_proto_version(clientContext_.get(), TLS1_3_VERSION);
  const Link link = connected();
  const std::size_t held = fillFromServer(link);
  EXPECT_LT(held, std::size_t{16} << 20);
  std::size_t came = 0;
  for (int i = 0; i < 1000 && came < held; ++i) {
    came += link.peer.read().bytes.size();
    turn();
  }
  EXPECT_EQ(came, held);
}

TEST_F(OffloadTest, TellsATruncatedEnd) {
  SSL_CTX_set_min_proto_version(clientContext_.get(), TLS1_3_VERSION);
  const Link link = connected();
  (void)link.peer.read();
  link.peer.vanish();
  turn();
  EXPECT_TRUE(hasHungUp(link.plain()));
  EXPECT_EQ(failures(Failure::truncated), 1U);
}

}  // namespace
}  // namespace tlsd
