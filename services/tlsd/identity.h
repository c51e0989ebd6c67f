#pragma once

#include <cstddef>
#include <cstdint>
#include <expected>
#include <string>
#include <string_view>
#include <vector>

#include "services/tlsd/openssl_types.h"

namespace tlsd {

// Largest text of certificates or of a key that is taken: what a field of a message can hold.
inline constexpr std::size_t maxPemBytes = 65535;
// Certificates of one chain.
inline constexpr std::size_t maxChain = 8;
// A signature with a larger key would hold up all other connections for too long on a small machine.
inline constexpr int minRsaBits = 2048;
inline constexpr int maxRsaBits = 4096;

// A certificate and its key as texts, the key wiped when the object ends.
struct PemPair {
  std::string certificate;  // the server's first, then those that signed it
  std::string key;

  PemPair() = default;
  PemPair(std::string certificateText, std::string keyText)
      : certificate(std::move(certificateText)), key(std::move(keyText)) {}
  PemPair(PemPair&& other) noexcept = default;
  PemPair& operator=(PemPair&& other) noexcept;
  PemPair(const PemPair&) = delete;
  PemPair& operator=(const PemPair&) = delete;
  ~PemPair();
};

// What a certificate says, for people.
struct Facts {
  std::string subject;  // as "CN=router,O=..."
  std::string issuer;
  std::string fingerprint;     // SHA-256 of the certificate, as "0A:1B:..."
  std::int64_t notBefore = 0;  // seconds since 1970
  std::int64_t notAfter = 0;
  std::vector<std::string> names;  // whom it is for: "DNS:localhost", "IP:127.0.0.1"
  std::string pem;                 // the certificate itself
  bool ownMake = false;            // it is one of makeSelfSigned
};

// A certificate chain with the private key of its first certificate.
class Identity {
 public:
  // Reads a pair and checks that it can serve: the key belongs to the certificate and is of a kind and size that this
  // service takes, each certificate of the chain was issued by the next one, and the first may be a server's. Dates are
  // not looked at. The error says what is wrong, in words.
  [[nodiscard]] static std::expected<Identity, std::string> parse(const PemPair& pair);

  [[nodiscard]] X509* certificate() const { return chain_.front().get(); }
  // All certificates, the server's first.
  [[nodiscard]] const std::vector<Owned<X509>>& chain() const { return chain_; }
  [[nodiscard]] EVP_PKEY* key() const { return key_.get(); }
  [[nodiscard]] Facts describe() const;

 private:
  Identity(std::vector<Owned<X509>> chain, Owned<EVP_PKEY> key) : chain_(std::move(chain)), key_(std::move(key)) {}

  std::vector<Owned<X509>> chain_;
  Owned<EVP_PKEY> key_;
};

// What went wrong in OpenSSL last, in its words; empties its list of errors.
[[nodiscard]] std::string takeOpensslError();

}  // namespace tlsd
