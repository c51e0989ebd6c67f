#pragma once

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <string>

#include "services/tlsd/identity.h"
#include "services/tlsd/self_signed.h"

// Certificates as strangers make them, for tests.

namespace tlsd::tests {

inline std::int64_t now() {
  return std::time(nullptr);
}

inline PemPair ownPair(std::string_view host = "box.example", std::int64_t when = now()) {
  auto pair = makeSelfSigned(host, when);
  EXPECT_TRUE(pair.has_value());
  return std::move(*pair);
}

inline PemPair copyOf(const PemPair& pair) {
  return PemPair(pair.certificate, pair.key);
}

inline std::string pemOf(X509* certificate) {
  const Owned<BIO> writer(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(writer.get(), certificate);
  char* data = nullptr;
  const long size = BIO_get_mem_data(writer.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

inline std::string pemOf(EVP_PKEY* key, const EVP_CIPHER* cipher = nullptr, const char* password = nullptr) {
  const Owned<BIO> writer(BIO_new(BIO_s_mem()));
  PEM_write_bio_PrivateKey(writer.get(), key, cipher, nullptr, 0, nullptr, const_cast<char*>(password));
  char* data = nullptr;
  const long size = BIO_get_mem_data(writer.get(), &data);
  return std::string(data, static_cast<std::size_t>(size));
}

inline Owned<EVP_PKEY> ecKey(const char* curve = "P-256") {
  return Owned<EVP_PKEY>(EVP_EC_gen(curve));
}
inline Owned<EVP_PKEY> rsaKey(unsigned bits) {
  return Owned<EVP_PKEY>(EVP_RSA_gen(bits));
}

// What a certificate of a test is made of.
struct Recipe {
  std::string name = "CN-of-it";
  EVP_PKEY* key = nullptr;
  X509* issuer = nullptr;  // null: itself
  EVP_PKEY* issuerKey = nullptr;
  std::string usage = "serverAuth";
  std::string names = "DNS:box.example";
  std::int64_t from = now() - 100;
  std::int64_t until = now() + 10'000'000;
};

inline Owned<X509> certificateOf(const Recipe& recipe) {
  Owned<X509> certificate(X509_new());
  X509* made = certificate.get();
  X509_set_version(made, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(made), std::rand());
  ASN1_TIME_set(X509_getm_notBefore(made), static_cast<time_t>(recipe.from));
  ASN1_TIME_set(X509_getm_notAfter(made), static_cast<time_t>(recipe.until));
  X509_NAME_add_entry_by_txt(X509_get_subject_name(made), "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(recipe.name.data()),
                             static_cast<int>(recipe.name.size()), -1, 0);
  X509_set_issuer_name(made, X509_get_subject_name(recipe.issuer != nullptr ? recipe.issuer : made));
  X509_set_pubkey(made, recipe.key);
  X509V3_CTX context{};
  X509V3_set_ctx(&context, made, made, nullptr, nullptr, 0);
  for (const auto& [kind, value] : {std::pair(NID_ext_key_usage, recipe.usage), {NID_subject_alt_name, recipe.names}}) {
    if (value.empty()) continue;
    const Owned<X509_EXTENSION> extension(X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str()));
    X509_add_ext(made, extension.get(), -1);
  }
  EVP_PKEY* signer = recipe.issuerKey != nullptr ? recipe.issuerKey : recipe.key;
  X509_sign(made, signer,
            EVP_PKEY_is_a(signer, "ED25519") + EVP_PKEY_is_a(signer, "ED448") > 0 ? nullptr : EVP_sha256());
  return certificate;
}

inline PemPair pairOf(EVP_PKEY* key) {
  Recipe recipe;
  recipe.key = key;
  return PemPair(pemOf(certificateOf(recipe).get()), pemOf(key));
}

// A folder of its own, gone with the object.
class Folder {
 public:
  Folder() : path_(testing::TempDir() + "tlsdXXXXXX") {
    if (mkdtemp(path_.data()) == nullptr) std::abort();
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  [[nodiscard]] const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}
inline void writeFile(const std::string& path, const std::string& text) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

}  // namespace tlsd::tests
