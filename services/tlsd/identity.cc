#include "services/tlsd/identity.h"

#include <arpa/inet.h>
#include <array>
#include <climits>
#include <ctime>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <optional>
#include <span>
#include <utility>

#include "services/tlsd/self_signed.h"

namespace tlsd {
namespace {

using Problem = std::optional<std::string>;

Owned<BIO> readerOf(std::string_view text) {
  return Owned<BIO>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

std::string textOf(BIO* writer) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(writer, &data);
  return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

// Nobody is there to type a password.
int refusePassword(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*context*/) {
  return -1;
}

bool isEndOfText(unsigned long error) {
  return ERR_GET_LIB(error) == ERR_LIB_PEM && ERR_GET_REASON(error) == PEM_R_NO_START_LINE;
}

std::expected<std::vector<Owned<X509>>, std::string> parseChain(std::string_view text) {
  if (text.size() > maxPemBytes) return std::unexpected("the certificate text is too long");
  std::vector<Owned<X509>> chain;
  const Owned<BIO> reader = readerOf(text);
  ERR_clear_error();
  while (true) {
    Owned<X509> certificate(PEM_read_bio_X509(reader.get(), nullptr, refusePassword, nullptr));
    if (!certificate) break;
    if (chain.size() == maxChain) return std::unexpected("there are more than 8 certificates");
    chain.push_back(std::move(certificate));
  }
  const bool atEnd = isEndOfText(ERR_peek_last_error());
  std::string why = takeOpensslError();
  if (!atEnd) return std::unexpected("certificate " + std::to_string(chain.size() + 1) + " is damaged: " + why);
  if (chain.empty()) return std::unexpected("there is no certificate in the text");
  return chain;
}

std::expected<Owned<EVP_PKEY>, std::string> parseKey(std::string_view text) {
  if (text.size() > maxPemBytes) return std::unexpected("the key text is too long");
  const Owned<BIO> reader = readerOf(text);
  ERR_clear_error();
  Owned<EVP_PKEY> key(PEM_read_bio_PrivateKey(reader.get(), nullptr, refusePassword, nullptr));
  if (key) return key;
  std::string why = takeOpensslError();
  if (text.find("PRIVATE KEY-----") == std::string_view::npos) {
    return std::unexpected("there is no private key in the text");
  }
  if (text.find("ENCRYPTED") != std::string_view::npos) return std::unexpected("the key is locked with a password");
  return std::unexpected("the key is damaged: " + why);
}

Problem checkCurve(const EVP_PKEY* key) {
  std::array<char, 64> name{};
  std::size_t length = 0;
  if (EVP_PKEY_get_group_name(key, name.data(), name.size(), &length) == 1) {
    const int curve = OBJ_sn2nid(name.data());
    if (curve == NID_X9_62_prime256v1 || curve == NID_secp384r1 || curve == NID_secp521r1) return std::nullopt;
  }
  return "the key's curve is not P-256, P-384 or P-521";
}

Problem checkKind(const EVP_PKEY* key) {
  const int bits = EVP_PKEY_get_bits(key);
  switch (EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
      if (bits >= minRsaBits && bits <= maxRsaBits) return std::nullopt;
      return "an RSA key has to have 2048 to 4096 bits, not " + std::to_string(bits);
    case EVP_PKEY_EC:
      return checkCurve(key);
    case EVP_PKEY_ED25519:
      return std::nullopt;
    default:
      return "the key is none of RSA, ECDSA and Ed25519";
  }
}

Problem checkOrder(const std::vector<Owned<X509>>& chain) {
  for (std::size_t i = 1; i < chain.size(); ++i) {
    if (X509_check_issued(chain[i].get(), chain[i - 1].get()) == X509_V_OK) continue;
    return "certificate " + std::to_string(i) + " was not issued by certificate " + std::to_string(i + 1);
  }
  return std::nullopt;
}

Problem checkPair(const std::vector<Owned<X509>>& chain, EVP_PKEY* key) {
  X509* leaf = chain.front().get();
  if (Problem problem = checkKind(key)) return problem;
  if (X509_check_private_key(leaf, key) != 1) return "the key does not belong to the certificate";
  if (X509_check_purpose(leaf, X509_PURPOSE_SSL_SERVER, 0) != 1) return "the certificate is not for a TLS server";
  return checkOrder(chain);
}

std::string nameText(const X509_NAME* name) {
  const Owned<BIO> writer(BIO_new(BIO_s_mem()));
  // Control characters and quotes come out escaped, UTF-8 as it is.
  X509_NAME_print_ex(writer.get(), name, 0, XN_FLAG_RFC2253 & ~static_cast<unsigned long>(ASN1_STRFLGS_ESC_MSB));
  return textOf(writer.get());
}

std::string pemText(X509* certificate) {
  const Owned<BIO> writer(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(writer.get(), certificate);
  return textOf(writer.get());
}

std::string fingerprintOf(const X509* certificate) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (X509_digest(certificate, EVP_sha256(), digest.data(), &length) != 1) return {};
  std::string text;
  for (const std::uint8_t byte : std::span(digest).first(length)) {
    if (!text.empty()) text += ':';
    text += digits[byte >> 4U];
    text += digits[byte & 15U];
  }
  return text;
}

std::int64_t secondsOf(const ASN1_TIME* time) {
  std::tm parts{};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? std::int64_t{timegm(&parts)} : 0;
}

// Text of one entry of the names; nothing for a kind that no browser compares.
std::string alternativeName(const GENERAL_NAME* name) {
  if (name->type == GEN_DNS) {
    const ASN1_STRING* text = name->d.dNSName;
    std::string shown = "DNS:";
    for (const std::uint8_t byte :
         std::span(ASN1_STRING_get0_data(text), static_cast<std::size_t>(ASN1_STRING_length(text)))) {
      shown += byte > ' ' && byte < 0x7f ? static_cast<char>(byte) : '?';
    }
    return shown;
  }
  if (name->type != GEN_IPADD) return {};
  const ASN1_STRING* bytes = name->d.iPAddress;
  const int length = ASN1_STRING_length(bytes);
  if (length != 4 && length != 16) return {};
  std::array<char, INET6_ADDRSTRLEN> shown{};
  inet_ntop(length == 4 ? AF_INET : AF_INET6, ASN1_STRING_get0_data(bytes), shown.data(), shown.size());
  return std::string("IP:") + shown.data();
}

std::vector<std::string> alternativeNames(X509* certificate) {
  std::vector<std::string> names;
  const Owned<GENERAL_NAMES> all(
      static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  const int count = all ? sk_GENERAL_NAME_num(all.get()) : 0;
  for (int i = 0; i < count; ++i) {
    std::string name = alternativeName(sk_GENERAL_NAME_value(all.get(), i));
    if (!name.empty()) names.push_back(std::move(name));
  }
  return names;
}

}  // namespace

PemPair& PemPair::operator=(PemPair&& other) noexcept {
  std::swap(certificate, other.certificate);
  std::swap(key, other.key);
  return *this;
}

PemPair::~PemPair() {
  OPENSSL_cleanse(key.data(), key.size());
}

std::expected<Identity, std::string> Identity::parse(const PemPair& pair) {
  auto chain = parseChain(pair.certificate);
  if (!chain) return std::unexpected(std::move(chain.error()));
  auto key = parseKey(pair.key);
  if (!key) return std::unexpected(std::move(key.error()));
  if (Problem problem = checkPair(*chain, key->get())) {
    ERR_clear_error();
    return std::unexpected(std::move(*problem));
  }
  return Identity(std::move(*chain), std::move(*key));
}

Facts Identity::describe() const {
  X509* leaf = certificate();
  Facts facts;
  facts.subject = nameText(X509_get_subject_name(leaf));
  facts.issuer = nameText(X509_get_issuer_name(leaf));
  facts.fingerprint = fingerprintOf(leaf);
  facts.notBefore = secondsOf(X509_get0_notBefore(leaf));
  facts.notAfter = secondsOf(X509_get0_notAfter(leaf));
  facts.names = alternativeNames(leaf);
  facts.pem = pemText(leaf);
  facts.ownMake = isSelfSigned(leaf);
  ERR_clear_error();
  return facts;
}

std::string takeOpensslError() {
  const unsigned long error = ERR_peek_last_error();
  const char* reason = error != 0 ? ERR_reason_error_string(error) : nullptr;
  std::string text = reason != nullptr ? reason : "unknown error";
  ERR_clear_error();
  return text;
}

}  // namespace tlsd
