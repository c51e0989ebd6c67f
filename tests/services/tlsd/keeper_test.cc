#include "services/tlsd/keeper.h"

#include <filesystem>
#include <gmock/gmock.h>

#include "platform/bus/timer_queue.h"
#include "services/tlsd/self_signed.h"
#include "tests/fakes/fake_runner.h"
#include "tests/services/tlsd/certificates.h"

namespace tlsd {
namespace {

using ::testing::HasSubstr;
using tests::Folder;
using tests::ownPair;
using tests::readFile;
using tests::Recipe;
using tests::writeFile;

class KeeperTest : public ::testing::Test {
 protected:
  void start() {
    keeper_.emplace(PairStore(folder_ / "tls"), "router", false, runner_.timers(), [this] { return clock_; });
    keeper_->start();
  }
  void put(const PemPair& pair) const {
    writeFile(folder_ / "tls/certificate.pem", pair.certificate);
    writeFile(folder_ / "tls/key.pem", pair.key);
  }
  [[nodiscard]] static std::string fingerprintOf(const PemPair& pair) {
    return Identity::parse(pair)->describe().fingerprint;
  }
  [[nodiscard]] std::string inUse() const { return keeper_->facts().fingerprint; }
  [[nodiscard]] std::string stored() const {
    return fingerprintOf(PemPair(readFile(folder_ / "tls/certificate.pem"), readFile(folder_ / "tls/key.pem")));
  }
  // Two looks see a change that stays.
  void look() { runner_.advance(2 * Keeper::lookMs); }

  Folder folder_;
  tn::fakes::FakeRunner runner_;
  std::int64_t clock_ = tests::now();
  std::optional<Keeper> keeper_;
};

TEST_F(KeeperTest, MakesACertificateAtTheFirstStart) {
  start();
  EXPECT_NE(keeper_->context(), nullptr);
  EXPECT_EQ(keeper_->source(), Keeper::Source::files);
  EXPECT_EQ(stored(), inUse());
  EXPECT_TRUE(keeper_->facts().ownMake);
  const std::string first = inUse();
  start();
  EXPECT_EQ(inUse(), first);
}

TEST_F(KeeperTest, UsesTheFilesThatAreThere) {
  const auto key = tests::rsaKey(2048);
  put(tests::pairOf(key.get()));
  start();
  EXPECT_EQ(keeper_->source(), Keeper::Source::files);
  EXPECT_EQ(inUse(), stored());
  EXPECT_EQ(keeper_->trouble(), "");
}

TEST_F(KeeperTest, LeavesFilesThatCannotBeUsedAndLivesWithATemporaryOne) {
  writeFile(folder_ / "tls/certificate.pem", "damaged");
  writeFile(folder_ / "tls/key.pem", ownPair().key);
  start();
  EXPECT_EQ(keeper_->source(), Keeper::Source::temporary);
  EXPECT_NE(keeper_->context(), nullptr);
  EXPECT_EQ(keeper_->trouble(), "there is no certificate in the text");
  EXPECT_EQ(readFile(folder_ / "tls/certificate.pem"), "damaged");
  // Mended, they are taken.
  put(ownPair("mended"));
  look();
  EXPECT_EQ(keeper_->source(), Keeper::Source::files);
  EXPECT_THAT(keeper_->facts().subject, HasSubstr("CN=mended"));
  EXPECT_EQ(keeper_->trouble(), "");
}

TEST_F(KeeperTest, DoesNotMakeACertificateWhereOneOfTheFilesIsThere) {
  writeFile(folder_ / "tls/key.pem", ownPair().key);
  start();
  EXPECT_EQ(keeper_->source(), Keeper::Source::temporary);
  EXPECT_THAT(keeper_->trouble(), HasSubstr("certificate.pem: No such file"));
  EXPECT_FALSE(std::filesystem::exists(folder_ / "tls/certificate.pem"));
}

TEST_F(KeeperTest, LivesWithATemporaryOneWhereNothingCanBeStored) {
  writeFile(folder_ / "tls", "a file where the folder should be");
  start();
  EXPECT_EQ(keeper_->source(), Keeper::Source::temporary);
  EXPECT_THAT(keeper_->trouble(), HasSubstr("cannot store the certificate: "));
  look();
  EXPECT_EQ(keeper_->source(), Keeper::Source::temporary);
}

TEST_F(KeeperTest, TakesNewFilesOnceTheyStayAsTheyAre) {
  start();
  const std::string before = inUse();
  const PemPair next = ownPair("next");
  put(next);
  runner_.advance(Keeper::lookMs);
  EXPECT_EQ(inUse(), before);
  runner_.advance(Keeper::lookMs);
  EXPECT_EQ(inUse(), fingerprintOf(next));
}

TEST_F(KeeperTest, WaitsForTheSecondFileOfACopy) {
  start();
  const PemPair next = ownPair("next");
  writeFile(folder_ / "tls/certificate.pem", next.certificate);
  runner_.advance(Keeper::lookMs);
  writeFile(folder_ / "tls/key.pem", next.key);
  runner_.advance(Keeper::lookMs);
  EXPECT_EQ(keeper_->trouble(), "");
  runner_.advance(Keeper::lookMs);
  EXPECT_EQ(inUse(), fingerprintOf(next));
}

TEST_F(KeeperTest, KeepsWhatItHasWhenTheNewFilesAreNoGood) {
  start();
  const std::string before = inUse();
  const SSL_CTX* const context = keeper_->context();
  writeFile(folder_ / "tls/certificate.pem", ownPair().certificate);
  look();
  EXPECT_EQ(inUse(), before);
  EXPECT_EQ(keeper_->context(), context);
  EXPECT_EQ(keeper_->source(), Keeper::Source::files);
  EXPECT_EQ(keeper_->trouble(), "the key does not belong to the certificate");
}

TEST_F(KeeperTest, KeepsWhatItHasWhenTheFilesGo) {
  start();
  const std::string before = inUse();
  std::filesystem::remove_all(folder_ / "tls");
  look();
  EXPECT_EQ(inUse(), before);
  EXPECT_THAT(keeper_->trouble(), HasSubstr("certificate.pem: No such file"));
}

TEST_F(KeeperTest, ReadsTheFilesAtOnceWhenTold) {
  start();
  const PemPair next = ownPair("next");
  put(next);
  EXPECT_EQ(keeper_->reload(), std::nullopt);
  EXPECT_EQ(inUse(), fingerprintOf(next));
  writeFile(folder_ / "tls/key.pem", "x");
  EXPECT_EQ(keeper_->reload(), "there is no private key in the text");
}

TEST_F(KeeperTest, UsesAnExpiredCertificateFromTheFiles) {
  const auto key = tests::ecKey();
  Recipe recipe;
  recipe.key = key.get();
  recipe.from = clock_ - 1000;
  recipe.until = clock_ - 10;
  put(PemPair(tests::pemOf(tests::certificateOf(recipe).get()), tests::pemOf(key.get())));
  start();
  EXPECT_EQ(keeper_->source(), Keeper::Source::files);
  EXPECT_EQ(inUse(), stored());
}

TEST_F(KeeperTest, InstallsWhatIsGood) {
  start();
  const PemPair next = ownPair("installed");
  EXPECT_FALSE(keeper_->install(next).has_value());
  EXPECT_EQ(inUse(), fingerprintOf(next));
  EXPECT_EQ(stored(), inUse());
  look();
  EXPECT_EQ(inUse(), fingerprintOf(next));
}

TEST_F(KeeperTest, InstallsNothingThatIsNot) {
  start();
  const std::string before = inUse();
  const auto key = tests::ecKey();
  Recipe recipe;
  recipe.key = key.get();
  recipe.from = clock_ - 1000;
  recipe.until = clock_ - 10;
  const PemPair expired(tests::pemOf(tests::certificateOf(recipe).get()), tests::pemOf(key.get()));
  const PemPair mixed(ownPair().certificate, ownPair().key);
  for (const PemPair* pair : {&expired, &mixed}) {
    const auto refusal = keeper_->install(*pair);
    ASSERT_TRUE(refusal.has_value());
    EXPECT_EQ(refusal->kind, Keeper::Refusal::Kind::unusable);
  }
  EXPECT_EQ(inUse(), before);
  EXPECT_EQ(stored(), before);
}

TEST_F(KeeperTest, SaysThatAPairCouldNotBeStoredAndKeepsTheOldOne) {
  start();
  const std::string before = inUse();
  std::filesystem::create_directories(folder_ / "tls/key.pem.new/x");
  const auto refusal = keeper_->install(ownPair());
  ASSERT_TRUE(refusal.has_value());
  EXPECT_EQ(refusal->kind, Keeper::Refusal::Kind::notStored);
  EXPECT_EQ(inUse(), before);
}

TEST_F(KeeperTest, MakesAnotherOfItsOwnBeforeTheOldOneEnds) {
  start();
  const std::string before = inUse();
  clock_ = keeper_->facts().notAfter - Keeper::renewSeconds - 1;
  runner_.advance(Keeper::careMs);
  EXPECT_EQ(inUse(), before);
  clock_ += 2;
  runner_.advance(Keeper::careMs);
  EXPECT_NE(inUse(), before);
  EXPECT_EQ(stored(), inUse());
}

TEST_F(KeeperTest, MakesAnotherWhenTheMachineLearnsTheTime) {
  const std::int64_t today = clock_;
  clock_ = 0;
  start();
  const std::string before = inUse();
  clock_ = today;
  start();
  EXPECT_NE(inUse(), before);
  EXPECT_LE(keeper_->facts().notBefore, today);
  EXPECT_GT(keeper_->facts().notAfter, today);
}

TEST_F(KeeperTest, LeavesTheCertificatesOfOthersToThem) {
  const auto key = tests::ecKey();
  put(tests::pairOf(key.get()));
  start();
  const std::string before = inUse();
  clock_ = keeper_->facts().notAfter + 1;
  runner_.advance(Keeper::careMs);
  EXPECT_EQ(inUse(), before);
}

TEST_F(KeeperTest, GivesItsTicketsNewKeysNowAndThen) {
  start();
  const auto keys = [this] {
    std::array<unsigned char, 80> bytes{};
    EXPECT_EQ(SSL_CTX_get_tlsext_ticket_keys(keeper_->context(), bytes.data(), bytes.size()), 1);
    return bytes;
  };
  const auto before = keys();
  runner_.advance(Keeper::careMs);
  EXPECT_NE(keys(), before);
}

TEST_F(KeeperTest, CarriesAChangeThroughThatWasCutOff) {
  start();
  const PemPair next = ownPair("next");
  writeFile(folder_ / "tls/key.pem", next.key);
  writeFile(folder_ / "tls/certificate.pem.new", next.certificate);
  start();
  EXPECT_EQ(inUse(), fingerprintOf(next));
}

}  // namespace
}  // namespace tlsd
