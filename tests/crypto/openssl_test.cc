// The crypto library against OpenSSL, over thousands of random inputs.
#include <algorithm>
#include <array>
#include <gtest/gtest.h>
#include <memory>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <openssl/sha.h>
#include <random>
#include <vector>

#include "platform/crypto/curve25519.h"
#include "platform/crypto/rc4.h"
#include "platform/crypto/sha1.h"

namespace {

using Bytes32 = std::array<std::uint8_t, 32>;

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;
using Cipher = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER_free>>;
using Provider = std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER_unload>>;

std::vector<std::uint8_t> randomBytes(std::mt19937& random, std::size_t count) {
  std::vector<std::uint8_t> bytes(count);
  for (auto& b : bytes)
    b = static_cast<std::uint8_t>(random());
  return bytes;
}

Bytes32 reversed(Bytes32 bytes) {
  std::reverse(bytes.begin(), bytes.end());
  return bytes;
}

// Little-endian as OpenSSL has it. False: OpenSSL refuses points whose multiple is zero.
bool opensslX25519(const Bytes32& scalar, const Bytes32& u, Bytes32& out) {
  const Key own(EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, scalar.data(), scalar.size()));
  const Key peer(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, u.data(), u.size()));
  const KeyContext context(EVP_PKEY_CTX_new(own.get(), nullptr));
  std::size_t length = out.size();
  return EVP_PKEY_derive_init(context.get()) == 1 && EVP_PKEY_derive_set_peer(context.get(), peer.get()) == 1 &&
         EVP_PKEY_derive(context.get(), out.data(), &length) == 1;
}

Bytes32 ownX25519(Bytes32 scalar, const Bytes32& u) {
  scalar[0] &= 0xF8;
  scalar[31] = static_cast<std::uint8_t>((scalar[31] & 0x7F) | 0x40);
  WCurve point = Curve25519::map(BigNum(reversed(u)));
  point.mul(BigNum(reversed(scalar)));
  Bytes32 out;
  Curve25519::map(point).bin(out);
  return reversed(out);
}

TEST(AgainstOpenSsl, Curve25519) {
  std::mt19937 random(25519);
  for (int round = 0; round < 3000; ++round) {
    Bytes32 scalar;
    Bytes32 u;
    for (auto& b : scalar)
      b = static_cast<std::uint8_t>(random());
    for (auto& b : u)
      b = static_cast<std::uint8_t>(random());
    // Numbers near the ends of the range are where carries go wrong.
    if (round % 5 == 1) std::fill(u.begin() + 1, u.end(), std::uint8_t{0xFF});
    if (round % 5 == 2) std::fill(u.begin() + 2, u.end(), std::uint8_t{0});
    Bytes32 expected{};
    if (!opensslX25519(scalar, u, expected)) expected.fill(0);
    ASSERT_EQ(ownX25519(scalar, u), expected) << round;
  }
}

TEST(AgainstOpenSsl, RC4) {
  const Provider legacy(OSSL_PROVIDER_load(nullptr, "legacy"));
  const Provider standard(OSSL_PROVIDER_load(nullptr, "default"));
  ASSERT_TRUE(legacy && standard);
  const Cipher rc4(EVP_CIPHER_fetch(nullptr, "RC4", nullptr));
  ASSERT_TRUE(rc4);
  std::mt19937 random(4);
  for (int round = 0; round < 2000; ++round) {
    const auto key = randomBytes(random, 16);
    const auto text = randomBytes(random, 1 + random() % 2000);
    std::vector<std::uint8_t> expected(text.size());
    const CipherContext context(EVP_CIPHER_CTX_new());
    int length = 0;
    ASSERT_EQ(EVP_EncryptInit_ex2(context.get(), rc4.get(), key.data(), nullptr, nullptr), 1);
    ASSERT_EQ(EVP_EncryptUpdate(context.get(), expected.data(), &length, text.data(), static_cast<int>(text.size())),
              1);
    std::vector<std::uint8_t> own = text;
    RC4(key).encrypt(own);
    ASSERT_EQ(own, expected) << round;
  }
}

TEST(AgainstOpenSsl, SHA1) {
  std::mt19937 random(1);
  for (int round = 0; round < 3000; ++round) {
    const auto text = randomBytes(random, random() % 500);
    std::array<std::uint8_t, SHA_DIGEST_LENGTH> expected;
    ::SHA1(text.data(), text.size(), expected.data());
    class SHA1 hash;
    hash.update(text);
    ASSERT_EQ(hash.finish(), expected) << round;
  }
}

}  // namespace
