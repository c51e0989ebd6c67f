// What the tunnel is made of, measured part by part beside OpenSSL's where that has the same part. Every line that is
// printed is a name, our figure and the other one (0 when there is none), the best of some rounds in turn: whatever
// else the machine does makes none of them better.
//
//   tunnel_parts ROUNDS

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <memory>
#include <openssl/evp.h>
#include <openssl/provider.h>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "jsproxy/json_form.h"
#include "jsproxy/session_crypto.h"
#include "jsproxy/text_code.h"
#include "platform/bus/message.h"
#include "platform/crypto/curve25519.h"
#include "platform/crypto/rc4.h"

namespace {

// Processor time: others may be at work on this machine.
double seconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Key = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using KeyContext = std::unique_ptr<EVP_PKEY_CTX, Deleter<EVP_PKEY_CTX_free>>;
using Cipher = std::unique_ptr<EVP_CIPHER, Deleter<EVP_CIPHER_free>>;
using CipherContext = std::unique_ptr<EVP_CIPHER_CTX, Deleter<EVP_CIPHER_CTX_free>>;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "tunnel_parts: %s\n", what);
  std::exit(1);
}

// Runs of `work` per second of processor time, over a quarter of one.
double perSecond(const std::function<void()>& work) {
  const double begin = seconds();
  double spent = 0;
  std::uint64_t runs = 0;
  do {
    work();
    ++runs;
    spent = seconds() - begin;
  } while (spent < 0.25);
  return static_cast<double>(runs) / spent;
}

// Measures both in turn and prints the best of each, scaled.
void compare(const char* name, unsigned rounds, double scale, const std::function<void()>& own,
             const std::function<void()>& other = nullptr) {
  double ours = 0;
  double theirs = 0;
  for (unsigned round = 0; round < rounds; ++round) {
    ours = std::max(ours, perSecond(own) * scale);
    if (other) theirs = std::max(theirs, perSecond(other) * scale);
  }
  std::printf("%s %.1f %.1f\n", name, ours, theirs);
  std::fflush(stdout);
}

// A public value of one's own and the shared secret: the server's part of a key exchange.
void compareKeyExchange(unsigned rounds) {
  const Scalar scalar = randomScalar();
  PublicValue peer{};
  peer.back() = 9;
  peer = exchangeKeys(randomScalar(), peer).publicValue;
  std::array<std::uint8_t, 32> raw;
  std::reverse_copy(scalar.bytes().begin(), scalar.bytes().end(), raw.begin());
  PublicValue littleEndian;
  std::reverse_copy(peer.begin(), peer.end(), littleEndian.begin());
  const auto own = [&] { (void)exchangeKeys(scalar, peer); };
  const auto openssl = [&] {
    // Making a key of a scalar multiplies the base point.
    const Key key(EVP_PKEY_new_raw_private_key(EVP_PKEY_X25519, nullptr, raw.data(), raw.size()));
    const Key other(EVP_PKEY_new_raw_public_key(EVP_PKEY_X25519, nullptr, littleEndian.data(), littleEndian.size()));
    const KeyContext context(EVP_PKEY_CTX_new(key.get(), nullptr));
    std::array<std::uint8_t, 32> secret;
    std::size_t length = secret.size();
    if (EVP_PKEY_derive_init(context.get()) != 1 || EVP_PKEY_derive_set_peer(context.get(), other.get()) != 1 ||
        EVP_PKEY_derive(context.get(), secret.data(), &length) != 1) {
      fail("OpenSSL's X25519");
    }
  };
  compare("key-exchanges/s", rounds, 1, own, openssl);
}

void compareRc4(unsigned rounds) {
  constexpr std::size_t size = 65536;
  std::vector<std::uint8_t> bytes(size, 1);
  const std::array<std::uint8_t, 16> keyBytes{1, 2, 3};
  RC4 own(keyBytes);
  const Cipher cipher(EVP_CIPHER_fetch(nullptr, "RC4", nullptr));
  const CipherContext context(EVP_CIPHER_CTX_new());
  if (!cipher || EVP_EncryptInit_ex2(context.get(), cipher.get(), keyBytes.data(), nullptr, nullptr) != 1) {
    fail("OpenSSL's RC4");
  }
  const auto openssl = [&] {
    int length = 0;
    EVP_EncryptUpdate(context.get(), bytes.data(), &length, bytes.data(), static_cast<int>(size));
  };
  compare(
      "rc4-MB/s", rounds, size / 1e6, [&] { own.encrypt(bytes); }, openssl);
}

// About 64 KB of every type that services use, flattened.
tn::message mixedMessage() {
  std::mt19937 random(1);
  const auto words = [&random](std::size_t count) {
    std::string text;
    while (count-- > 0)
      text.append("interface ").append(std::to_string(random() % 1000)).append(" it's up\n");
    return text;
  };
  tn::message out;
  for (std::uint32_t id = 1; out.max_length() < 64000; id += 12) {
    tn::message nested;
    nested.insert(tn::string_id(1), words(2));
    nested.insert(tn::u32_id(2), static_cast<std::uint32_t>(random()));
    nested.insert(tn::bool_id(3), random() % 2 == 0);
    nested.insert(tn::u64_id(4), std::uint64_t{random()} << 20);
    out.insert(tn::u32_id(id), static_cast<std::uint32_t>(random()));
    out.insert(tn::bool_id(id), true);
    out.insert(tn::u64_id(id), std::uint64_t{random()} << 16);
    out.insert(tn::addr6_id(id), tn::Addr6{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 255, 10, 0, 0, 1});
    out.insert(tn::string_id(id), words(5));
    out.insert(tn::message_id(id), nested);
    out.insert_vector(tn::message_array_id(id), std::vector<tn::message>(5, nested));
    out.insert_vector(tn::u32_array_id(id),
                      std::vector<std::uint32_t>{1, 500, 100000, static_cast<std::uint32_t>(random())});
    out.insert_vector(tn::string_array_id(id), std::vector<std::string>(4, words(1)));
    const std::string raw = words(2);
    out.insert(tn::raw_id(id), asBytes(raw));
  }
  return out;
}

void measureJson(unsigned rounds) {
  const tn::message msg = mixedMessage();
  std::string text;
  writeJson(text, msg.flattened());
  std::printf("json-sizes %zu %zu\n", msg.max_length(), text.size());
  const double megabytes = static_cast<double>(text.size()) / 1e6;
  std::string out;
  compare("json-writer-MB/s", rounds, megabytes, [&] {
    out.clear();
    writeJson(out, msg.flattened());
  });
  compare("json-reader-MB/s", rounds, megabytes, [&] {
    tn::message back;
    if (*parseJson(text.c_str(), back, 0) != '}') fail("the reader");
  });
}

void measureText(unsigned rounds) {
  std::vector<std::uint8_t> bytes(65536);
  RC4(std::array<std::uint8_t, 3>{1, 2, 3}).gen(bytes);
  const std::string text = bytesToText(bytes);
  std::string back;
  const double megabytes = static_cast<double>(bytes.size()) / 1e6;
  compare("bytes-to-text-MB/s", rounds, megabytes, [&] { (void)bytesToText(bytes); });
  compare("text-to-bytes-MB/s", rounds, megabytes, [&] { textToBytes(text, back); });
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned rounds = argc == 2 ? static_cast<unsigned>(std::strtoul(argv[1], nullptr, 10)) : 0;
  if (rounds == 0) fail("usage: tunnel_parts ROUNDS");
  const std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER_unload>> legacy(OSSL_PROVIDER_load(nullptr, "legacy"));
  const std::unique_ptr<OSSL_PROVIDER, Deleter<OSSL_PROVIDER_unload>> standard(OSSL_PROVIDER_load(nullptr, "default"));
  compareKeyExchange(rounds);
  compareRc4(rounds);
  measureJson(rounds);
  measureText(rounds);
  return 0;
}
