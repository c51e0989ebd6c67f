#include "services/tlsd/self_signed.h"

#include <algorithm>
#include <array>
#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/pem.h>

namespace tlsd {
namespace {

constexpr std::int64_t daySeconds = 86'400;
constexpr int serialBits = 127;  // unpredictable, and positive in 16 bytes
constexpr std::size_t maxCommonName = 64;
// By this a certificate is known as this system's own work.
constexpr std::string_view ownOrganization = "Made by this machine for itself";

bool setSerial(X509* certificate) {
  const Owned<BIGNUM> serial(BN_new());
  return serial && BN_rand(serial.get(), serialBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ANY) == 1 &&
         BN_to_ASN1_INTEGER(serial.get(), X509_get_serialNumber(certificate)) != nullptr;
}

bool setDates(X509* certificate, std::int64_t now) {
  const std::int64_t from = std::max<std::int64_t>(now - daySeconds, 0);
  return ASN1_TIME_set(X509_getm_notBefore(certificate), static_cast<time_t>(from)) != nullptr &&
         ASN1_TIME_set(X509_getm_notAfter(certificate), static_cast<time_t>(from + selfSignedDays * daySeconds)) !=
             nullptr;
}

bool addName(X509_NAME* name, const char* field, std::string_view value) {
  return X509_NAME_add_entry_by_txt(name, field, MBSTRING_UTF8, reinterpret_cast<const unsigned char*>(value.data()),
                                    static_cast<int>(value.size()), -1, 0) == 1;
}

bool setNames(X509* certificate, std::string_view commonName) {
  X509_NAME* name = X509_get_subject_name(certificate);
  return addName(name, "O", ownOrganization) && addName(name, "CN", commonName) &&
         X509_set_issuer_name(certificate, name) == 1;
}

bool addExtension(X509* certificate, X509V3_CTX& context, int kind, const std::string& value) {
  const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
  return extension && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool addExtensions(X509* certificate, std::string_view hostName) {
  std::string names = "DNS:localhost,IP:127.0.0.1,IP:::1";
  if (isHostName(hostName) && hostName != "localhost") names.append(",DNS:").append(hostName);
  X509V3_CTX context{};
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  // No authority: whoever is told to trust it trusts this machine, and no other in its name.
  return addExtension(certificate, context, NID_basic_constraints, "critical,CA:FALSE") &&
         addExtension(certificate, context, NID_key_usage, "critical,digitalSignature") &&
         addExtension(certificate, context, NID_ext_key_usage, "serverAuth") &&
         addExtension(certificate, context, NID_subject_alt_name, names) &&
         addExtension(certificate, context, NID_subject_key_identifier, "hash");
}

bool build(X509* certificate, EVP_PKEY* key, std::string_view hostName, std::int64_t now) {
  const bool named = isHostName(hostName) && hostName.size() <= maxCommonName;
  return X509_set_version(certificate, X509_VERSION_3) == 1 && setSerial(certificate) && setDates(certificate, now) &&
         setNames(certificate, named ? hostName : "localhost") && X509_set_pubkey(certificate, key) == 1 &&
         addExtensions(certificate, hostName) && X509_sign(certificate, key, EVP_sha256()) != 0;
}

// What was written to a BIO in memory that wipes it when it is freed.
std::string takeText(BIO* writer) {
  char* data = nullptr;
  const long size = BIO_get_mem_data(writer, &data);
  return size > 0 ? std::string(data, static_cast<std::size_t>(size)) : std::string();
}

bool isLabelCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
}

bool isLabel(std::string_view label) {
  constexpr std::size_t maxLabel = 63;
  return !label.empty() && label.size() <= maxLabel && label.front() != '-' && label.back() != '-' &&
         std::all_of(label.begin(), label.end(), isLabelCharacter);
}

}  // namespace

std::expected<PemPair, std::string> makeSelfSigned(std::string_view hostName, std::int64_t now) {
  const Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  const Owned<X509> certificate(X509_new());
  const Owned<BIO> certificateText(BIO_new(BIO_s_mem()));
  const Owned<BIO> keyText(BIO_new(BIO_s_secmem()));
  const bool made = key && certificate && certificateText && keyText &&
                    build(certificate.get(), key.get(), hostName, now) &&
                    PEM_write_bio_X509(certificateText.get(), certificate.get()) == 1 &&
                    PEM_write_bio_PrivateKey(keyText.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  if (!made) return std::unexpected("no certificate can be made: " + takeOpensslError());
  return PemPair(takeText(certificateText.get()), takeText(keyText.get()));
}

bool isSelfSigned(const X509* certificate) {
  const X509_NAME* subject = X509_get_subject_name(certificate);
  if (X509_NAME_cmp(subject, X509_get_issuer_name(certificate)) != 0) return false;
  std::array<char, ownOrganization.size() + 2> organization{};
  const int length = X509_NAME_get_text_by_NID(subject, NID_organizationName, organization.data(),
                                               static_cast<int>(organization.size()));
  return length >= 0 && std::string_view(organization.data(), static_cast<std::size_t>(length)) == ownOrganization;
}

bool isHostName(std::string_view text) {
  constexpr std::size_t maxName = 253;
  if (text.size() > maxName) return false;
  for (std::size_t dot = text.find('.'); dot != std::string_view::npos; dot = text.find('.')) {
    if (!isLabel(text.substr(0, dot))) return false;
    text.remove_prefix(dot + 1);
  }
  return isLabel(text);
}

}  // namespace tlsd
