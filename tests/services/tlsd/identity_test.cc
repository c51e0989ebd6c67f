#include "services/tlsd/identity.h"

#include <gmock/gmock.h>
#include <openssl/err.h>

#include "services/tlsd/context.h"
#include "services/tlsd/self_signed.h"
#include "tests/services/tlsd/certificates.h"

namespace tlsd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using tests::certificateOf;
using tests::ecKey;
using tests::ownPair;
using tests::pairOf;
using tests::pemOf;
using tests::Recipe;
using tests::rsaKey;

std::string refusalOf(const PemPair& pair) {
  const auto identity = Identity::parse(pair);
  EXPECT_EQ(ERR_peek_error(), 0U);
  return identity ? "" : identity.error();
}

TEST(SelfSigned, IsForThisMachineByAllItsNames) {
  const auto identity = Identity::parse(ownPair("router.lan"));
  ASSERT_TRUE(identity.has_value()) << identity.error();
  const Facts facts = identity->describe();
  EXPECT_THAT(facts.names, ElementsAre("DNS:localhost", "IP:127.0.0.1", "IP:::1", "DNS:router.lan"));
  EXPECT_THAT(facts.subject, HasSubstr("CN=router.lan"));
  EXPECT_EQ(facts.issuer, facts.subject);
  EXPECT_EQ(facts.fingerprint.size(), 32 * 3 - 1U);
  EXPECT_TRUE(facts.ownMake);
  EXPECT_THAT(facts.pem, StartsWith("-----BEGIN CERTIFICATE-----\n"));
  EXPECT_EQ(EVP_PKEY_get_bits(identity->key()), 256);
}

TEST(SelfSigned, IsGoodFromADayBefore) {
  const std::int64_t when = 1'700'000'000;
  const Facts facts = Identity::parse(ownPair("a", when))->describe();
  EXPECT_EQ(facts.notBefore, when - 86400);
  EXPECT_EQ(facts.notAfter - facts.notBefore, selfSignedDays * 86400);
}

TEST(SelfSigned, WorksOnAMachineWithoutATime) {
  const Facts facts = Identity::parse(ownPair("a", 5))->describe();
  EXPECT_EQ(facts.notBefore, 0);
}

TEST(SelfSigned, LeavesOutANameThatIsNone) {
  for (const char* host : {"", "under_score", "a,DNS:evil", "-a", "a..b", "a b", "localhost"}) {
    const Facts facts = Identity::parse(ownPair(host))->describe();
    EXPECT_THAT(facts.names, ElementsAre("DNS:localhost", "IP:127.0.0.1", "IP:::1")) << host;
    EXPECT_THAT(facts.subject, HasSubstr("CN=localhost")) << host;
  }
}

TEST(SelfSigned, IsAnotherOneEachTime) {
  const Identity first = std::move(*Identity::parse(ownPair()));
  const Identity second = std::move(*Identity::parse(ownPair()));
  EXPECT_NE(first.describe().fingerprint, second.describe().fingerprint);
  EXPECT_NE(ASN1_INTEGER_cmp(X509_get0_serialNumber(first.certificate()), X509_get0_serialNumber(second.certificate())),
            0);
}

TEST(SelfSigned, KnowsItsOwn) {
  const auto key = ecKey();
  EXPECT_FALSE(Identity::parse(pairOf(key.get()))->describe().ownMake);
}

TEST(HostName, HasLettersDigitsHyphensAndDots) {
  for (const char* good : {"a", "router", "a-b.c", "9.x", "localhost"})
    EXPECT_TRUE(isHostName(good)) << good;
  for (const char* bad : {"", ".", "a.", ".a", "a_b", "-a", "a-", "a b", "a/b", "\xc3\xa4"})
    EXPECT_FALSE(isHostName(bad)) << bad;
  EXPECT_TRUE(isHostName(std::string(63, 'a')));
  EXPECT_FALSE(isHostName(std::string(64, 'a')));
  EXPECT_FALSE(isHostName(std::string(300, 'a')));
}

TEST(Identity, TakesTheKindsOfKeysThatAreInUse) {
  for (const char* curve : {"P-256", "P-384", "P-521"})
    EXPECT_EQ(refusalOf(pairOf(ecKey(curve).get())), "") << curve;
  EXPECT_EQ(refusalOf(pairOf(rsaKey(2048).get())), "");
  EXPECT_EQ(refusalOf(pairOf(Owned<EVP_PKEY>(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519")).get())), "");
}

TEST(Identity, RefusesOtherKeys) {
  EXPECT_EQ(refusalOf(pairOf(rsaKey(1024).get())), "an RSA key has to have 2048 to 4096 bits, not 1024");
  EXPECT_EQ(refusalOf(pairOf(ecKey("secp256k1").get())), "the key's curve is not P-256, P-384 or P-521");
  EXPECT_EQ(refusalOf(pairOf(Owned<EVP_PKEY>(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED448")).get())),
            "the key is none of RSA, ECDSA and Ed25519");
}

TEST(Identity, RefusesWhatIsNoPem) {
  const PemPair good = ownPair();
  EXPECT_EQ(refusalOf(PemPair("", good.key)), "there is no certificate in the text");
  EXPECT_EQ(refusalOf(PemPair("hello", good.key)), "there is no certificate in the text");
  EXPECT_EQ(refusalOf(PemPair(good.key, good.key)), "there is no certificate in the text");
  EXPECT_EQ(refusalOf(PemPair(good.certificate, "")), "there is no private key in the text");
  EXPECT_EQ(refusalOf(PemPair(good.certificate, good.certificate)), "there is no private key in the text");
}

TEST(Identity, RefusesWhatIsTooLong) {
  const PemPair good = ownPair();
  const std::string padding(maxPemBytes, '\n');
  EXPECT_EQ(refusalOf(PemPair(padding + good.certificate, good.key)), "the certificate text is too long");
  EXPECT_EQ(refusalOf(PemPair(good.certificate, padding + good.key)), "the key text is too long");
}

TEST(Identity, RefusesWhatIsCutOrChangedAnywhere) {
  const PemPair good = ownPair();
  for (std::size_t length = 0; length + 2 < good.certificate.size(); length += 7) {
    EXPECT_NE(refusalOf(PemPair(good.certificate.substr(0, length), good.key)), "") << length;
  }
  for (std::size_t length = 0; length + 2 < good.key.size(); length += 7) {
    EXPECT_NE(refusalOf(PemPair(good.certificate, good.key.substr(0, length))), "") << length;
  }
  PemPair changed(good.certificate, good.key);
  changed.certificate[changed.certificate.size() / 3] ^= 1;
  (void)refusalOf(changed);
}

TEST(Identity, RefusesAKeyThatBelongsToAnother) {
  EXPECT_EQ(refusalOf(PemPair(ownPair().certificate, ownPair().key)), "the key does not belong to the certificate");
  EXPECT_EQ(refusalOf(PemPair(ownPair().certificate, pemOf(rsaKey(2048).get()))),
            "the key does not belong to the certificate");
}

TEST(Identity, RefusesALockedKeyWithoutAskingForItsPassword) {
  const auto key = ecKey();
  Recipe recipe;
  recipe.key = key.get();
  const PemPair pair(pemOf(certificateOf(recipe).get()), pemOf(key.get(), EVP_aes_128_cbc(), "secret"));
  EXPECT_EQ(refusalOf(pair), "the key is locked with a password");
}

TEST(Identity, RefusesACertificateForClients) {
  const auto key = ecKey();
  Recipe recipe;
  recipe.key = key.get();
  recipe.usage = "clientAuth";
  EXPECT_EQ(refusalOf(PemPair(pemOf(certificateOf(recipe).get()), pemOf(key.get()))),
            "the certificate is not for a TLS server");
}

class Chains : public ::testing::Test {
 protected:
  Chains() {
    Recipe recipe;
    recipe.name = "root";
    recipe.key = rootKey_.get();
    root_ = certificateOf(recipe);
    recipe.name = "middle";
    recipe.key = middleKey_.get();
    recipe.issuer = root_.get();
    recipe.issuerKey = rootKey_.get();
    middle_ = certificateOf(recipe);
    recipe.name = "leaf";
    recipe.key = leafKey_.get();
    recipe.issuer = middle_.get();
    recipe.issuerKey = middleKey_.get();
    leaf_ = certificateOf(recipe);
  }
  [[nodiscard]] std::string refusal(const std::string& chain) const {
    return refusalOf(PemPair(chain, pemOf(leafKey_.get())));
  }

  Owned<EVP_PKEY> rootKey_ = ecKey();
  Owned<EVP_PKEY> middleKey_ = ecKey();
  Owned<EVP_PKEY> leafKey_ = ecKey();
  Owned<X509> root_;
  Owned<X509> middle_;
  Owned<X509> leaf_;
};

TEST_F(Chains, AreTakenInTheirOrder) {
  EXPECT_EQ(refusal(pemOf(leaf_.get())), "");
  EXPECT_EQ(refusal(pemOf(leaf_.get()) + pemOf(middle_.get())), "");
  EXPECT_EQ(refusal("a word before\n" + pemOf(leaf_.get()) + "\nand between\n" + pemOf(middle_.get())), "");
}

TEST_F(Chains, AreRefusedInAnyOther) {
  EXPECT_EQ(refusal(pemOf(leaf_.get()) + pemOf(root_.get())), "certificate 1 was not issued by certificate 2");
  EXPECT_EQ(refusal(pemOf(leaf_.get()) + pemOf(middle_.get()) + pemOf(middle_.get())),
            "certificate 2 was not issued by certificate 3");
  EXPECT_EQ(refusal(pemOf(middle_.get()) + pemOf(leaf_.get())), "the key does not belong to the certificate");
}

TEST_F(Chains, HaveAnEnd) {
  std::string chain = pemOf(leaf_.get());
  for (std::size_t i = 0; i < maxChain; ++i)
    chain += pemOf(root_.get());
  EXPECT_EQ(refusal(chain), "there are more than 8 certificates");
}

TEST_F(Chains, AreRefusedWhenALaterPartIsDamaged) {
  std::string broken = pemOf(middle_.get());
  broken.replace(broken.find('\n') + 1, 8, "!!!!!!!!");
  EXPECT_THAT(refusal(pemOf(leaf_.get()) + broken), StartsWith("certificate 2 is damaged: "));
}

TEST_F(Chains, GoToThePeerWhole) {
  const auto identity =
      Identity::parse(PemPair(pemOf(leaf_.get()) + pemOf(middle_.get()) + pemOf(root_.get()), pemOf(leafKey_.get())));
  ASSERT_TRUE(identity.has_value()) << identity.error();
  const auto context = makeContext(*identity, false);
  ASSERT_TRUE(context.has_value()) << context.error();
  STACK_OF(X509)* extra = nullptr;
  SSL_CTX_get0_chain_certs(context->get(), &extra);
  EXPECT_EQ(sk_X509_num(extra), 2);
}

TEST(Identity, ShowsNamesWithoutControlCharacters) {
  const auto key = ecKey();
  Recipe recipe;
  recipe.key = key.get();
  recipe.name = "a\nb";
  recipe.names = "DNS:x.example,IP:1.2.3.4,URI:http://u/,email:a@b.c";
  const Facts facts = Identity::parse(PemPair(pemOf(certificateOf(recipe).get()), pemOf(key.get())))->describe();
  EXPECT_EQ(facts.subject, "CN=a\\0Ab");
  EXPECT_THAT(facts.names, ElementsAre("DNS:x.example", "IP:1.2.3.4"));
}

}  // namespace
}  // namespace tlsd
