#include <gmock/gmock.h>

#include "platform/policies.h"
#include "services/tlsd/errors.h"
#include "services/tlsd/hand_over.h"
#include "services/tlsd/management.h"
#include "tests/fakes/recording_bus.h"
#include "tests/services/tlsd/session_fixture.h"

namespace tlsd {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;
using tests::Ends;
using tests::Folder;
using tests::ownPair;
using tests::tcpEnds;

constexpr std::uint32_t server = 1000;

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() {
    keeper_.start();
    loop_.looper.addHandler(0, handOver_);
    loop_.looper.addHandler(1, management_);
  }

  // What the service answers; null when it has not.
  const tn::fakes::RecordingBus::Sent* hand(tn::message request, UniqueFd descriptor) {
    number_ = loop_.bus.request(server, std::vector<std::uint32_t>(), HandOver::command, std::move(request),
                                std::move(descriptor));
    return loop_.bus.replyTo(number_);
  }
  tn::message manage(std::uint32_t command, tn::message request = {}) {
    const auto number = loop_.bus.request(server, 1, command, std::move(request));
    const auto* reply = loop_.bus.replyTo(number);
    return reply != nullptr ? reply->content : tn::errorMsg(1, "no answer");
  }
  static tn::message asServer() {
    tn::message request;
    request.insert(tn::bool_id(1), true);
    request.insert(tn::u32_id(2), 9U);
    return request;
  }
  static tn::message certificate(const PemPair& pair) {
    tn::message request;
    request.insert(tn::string_id(1), pair.certificate);
    request.insert(tn::string_id(2), pair.key);
    return request;
  }
  static std::uint32_t codeOf(const tn::message& answer) { return answer.get(tn::field::errorCode).value_or(0); }
  [[nodiscard]] std::string fingerprint() {
    return std::string(manage(tn::command::get).get(tn::string_id(2)).value_or(""));
  }

  Folder folder_;
  tn::fakes::TestLooper loop_;
  Sessions sessions_{loop_.runner, {}, false};
  Keeper keeper_{PairStore(folder_ / "tls"), "router", false, loop_.runner.timers(), tests::now};
  HandOver handOver_{keeper_, sessions_};
  Management management_{keeper_, sessions_, false};
  std::uint32_t number_ = 0;
};

TEST_F(ServiceTest, GivesBackADescriptorOnceTheHandshakeIsDone) {
  Ends ends = tcpEnds();
  const int socket = ends.near.get();
  ASSERT_EQ(hand(asServer(), std::move(ends.near)), nullptr);
  const Owned<SSL_CTX> context(SSL_CTX_new(TLS_client_method()));
  tests::Peer peer(*context, std::move(ends.far));
  for (int i = 0; i < 5 && loop_.bus.replyTo(number_) == nullptr; ++i) {
    peer.step();
    loop_.runner.ready(socket, tn::readable);
  }
  auto* reply = loop_.bus.replyTo(number_);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->peer, server);
  EXPECT_FALSE(tn::isError(reply->content));
  ASSERT_TRUE(reply->descriptor);
  peer.write("hello");
  loop_.runner.ready(socket, tn::readable);
  EXPECT_EQ(tests::readPlain(reply->descriptor.get()).bytes, "hello");
}

TEST_F(ServiceTest, SaysWhyThereIsNoDescriptor) {
  Ends ends = tcpEnds();
  const int socket = ends.near.get();
  hand(asServer(), std::move(ends.near));
  tests::writePlain(ends.far.get(), "GET / HTTP/1.0\r\n\r\n");
  loop_.runner.ready(socket, tn::readable);
  const auto* reply = loop_.bus.replyTo(number_);
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(codeOf(reply->content), error::handshakeFailed);
  EXPECT_EQ(tn::getError(reply->content), "the peer does not speak TLS");
}

TEST_F(ServiceTest, RefusesARequestWithoutADescriptor) {
  const auto* reply = hand(asServer(), UniqueFd());
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(codeOf(reply->content), error::badRequest);
  EXPECT_EQ(tn::getError(reply->content), "no descriptor came with the request");
}

TEST_F(ServiceTest, RefusesToBeTheClient) {
  const std::size_t before = tests::openDescriptors();
  {
    Ends ends = tcpEnds();
    const auto* reply = hand({}, std::move(ends.near));
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(tn::getError(reply->content), "b1 has to be true");
  }
  loop_.looper.finishTurn();
  EXPECT_EQ(tests::openDescriptors(), before);
}

TEST_F(ServiceTest, DoesNotKnowOtherCommands) {
  const auto number = loop_.bus.request(server, std::vector<std::uint32_t>(), 2);
  EXPECT_EQ(codeOf(loop_.bus.replyTo(number)->content), tn::error::unknownCommand);
  EXPECT_EQ(codeOf(manage(0x60002)), tn::error::unknownCommand);
}

TEST_F(ServiceTest, GivesHandshakesUpWithTheBroker) {
  Ends ends = tcpEnds();
  hand(asServer(), std::move(ends.near));
  EXPECT_EQ(sessions_.handshakes(), 1U);
  loop_.bus.unlink();
  EXPECT_EQ(sessions_.handshakes(), 0U);
  EXPECT_TRUE(tests::readPlain(ends.far.get()).ended);
}

TEST_F(ServiceTest, TellsOfItsCertificate) {
  const tn::message answer = manage(tn::command::get);
  EXPECT_THAT(std::string(answer.get(tn::string_id(1)).value_or("")), StartsWith("CN=router"));
  EXPECT_EQ(answer.get(tn::string_id(2))->size(), 95U);
  EXPECT_LT(*answer.get(tn::u64_id(3)), *answer.get(tn::u64_id(4)));
  EXPECT_EQ(answer.get(tn::string_array_id(5))->size(), 4U);
  EXPECT_EQ(answer.get(tn::string_id(7)), "files");
  EXPECT_FALSE(answer.has(tn::string_id(8)));
  EXPECT_THAT(std::string(*answer.get(tn::string_id(9))), StartsWith("-----BEGIN CERTIFICATE-----"));
  EXPECT_EQ(answer.get(tn::string_id(0x10)), "relay");
}

TEST_F(ServiceTest, CountsWhatHappens) {
  hand(asServer(), std::move(tcpEnds().near));
  tn::message answer = manage(tn::command::get);
  EXPECT_EQ(answer.get(tn::u32_id(0x11)), 1U);
  EXPECT_EQ(answer.get(tn::u64_id(0x14)), 1U);
  loop_.advance(handshakeMs);
  answer = manage(tn::command::get);
  EXPECT_EQ(answer.get(tn::u32_id(0x11)), 0U);
  std::uint64_t timeouts = 0;
  const auto kinds = answer.get(tn::message_array_id(0x1a));
  ASSERT_TRUE(kinds.has_value());
  for (const tn::message& kind : *kinds) {
    if (kind.get(tn::string_id(1)) == "handshake timeout") timeouts = *kind.get(tn::u64_id(2));
  }
  EXPECT_EQ(timeouts, 1U);
}

TEST_F(ServiceTest, InstallsACertificate) {
  const PemPair pair = ownPair("installed");
  EXPECT_TRUE(manage(tn::command::set, certificate(pair)).get(tn::field::isReply).value_or(false));
  EXPECT_EQ(fingerprint(), Identity::parse(pair)->describe().fingerprint);
}

TEST_F(ServiceTest, InstallsNothingElse) {
  const std::string before = fingerprint();
  tn::message answer = manage(tn::command::set, certificate(PemPair(ownPair().certificate, ownPair().key)));
  EXPECT_EQ(codeOf(answer), error::badRequest);
  EXPECT_EQ(tn::getError(answer), "the key does not belong to the certificate");
  EXPECT_EQ(tn::getError(manage(tn::command::set)), "s1 has to be a certificate in PEM form");
  tn::message half;
  half.insert(tn::string_id(1), ownPair().certificate);
  EXPECT_EQ(tn::getError(manage(tn::command::set, half)), "s2 has to be a private key in PEM form");
  EXPECT_EQ(fingerprint(), before);
}

TEST_F(ServiceTest, SaysThatItCouldNotStore) {
  std::filesystem::create_directories(folder_ / "tls/key.pem.new/x");
  const tn::message answer = manage(tn::command::reset);
  EXPECT_EQ(codeOf(answer), error::notStored);
  EXPECT_THAT(tn::getError(answer), StartsWith("cannot store the certificate: "));
}

TEST_F(ServiceTest, MakesAnotherOfItsOwn) {
  const std::string before = fingerprint();
  EXPECT_EQ(codeOf(manage(tn::command::reset)), 0U);
  EXPECT_NE(fingerprint(), before);
}

TEST_F(ServiceTest, ReadsTheFilesWhenTold) {
  const PemPair pair = ownPair("copied");
  tests::writeFile(folder_ / "tls/certificate.pem", pair.certificate);
  const tn::message answer = manage(Management::reloadCommand);
  EXPECT_EQ(codeOf(answer), error::badRequest);
  EXPECT_EQ(tn::getError(answer), "the key does not belong to the certificate");
  EXPECT_EQ(manage(tn::command::get).get(tn::string_id(8)), "the key does not belong to the certificate");
  tests::writeFile(folder_ / "tls/key.pem", pair.key);
  EXPECT_EQ(codeOf(manage(Management::reloadCommand)), 0U);
  EXPECT_EQ(fingerprint(), Identity::parse(pair)->describe().fingerprint);
  EXPECT_FALSE(manage(tn::command::get).has(tn::string_id(8)));
}

TEST_F(ServiceTest, AsksForTheRightToChangeSettings) {
  const std::string before = fingerprint();
  for (const std::uint32_t command : {tn::command::set, tn::command::reset, Management::reloadCommand}) {
    tn::message request = certificate(ownPair());
    request.insert(tn::field::user, "bob");
    EXPECT_EQ(codeOf(manage(command, request)), tn::error::notAllowed);
    request.insert(tn::field::policies, tn::policies::all & ~tn::policies::changeSettings);
    EXPECT_EQ(codeOf(manage(command, request)), tn::error::notAllowed);
  }
  EXPECT_EQ(fingerprint(), before);
  tn::message request = certificate(ownPair());
  request.insert(tn::field::policies, tn::policies::changeSettings);
  EXPECT_EQ(codeOf(manage(tn::command::set, request)), 0U);
}

TEST_F(ServiceTest, AsksForTheRightToSee) {
  tn::message request;
  request.insert(tn::field::policies, 0U);
  EXPECT_EQ(codeOf(manage(tn::command::get, request)), tn::error::notAllowed);
  request.insert(tn::field::policies, tn::policies::read);
  EXPECT_EQ(codeOf(manage(tn::command::get, request)), 0U);
}

}  // namespace
}  // namespace tlsd
