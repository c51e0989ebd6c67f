#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "jsproxy/secret.h"
#include "platform/crypto/rc4.h"

struct JsSession;
namespace tn {
class message;
}

// The cryptographic core of the tunnel: how two sides agree on keys, and how frames are enciphered and checked.
// docs/tunnel.md has the bytes.

// Offsets and sizes of a frame; all its numbers are big-endian.
namespace frame {
inline constexpr std::size_t sessionAt = 0;
inline constexpr std::size_t positionAt = 4;
inline constexpr std::size_t payloadAt = 8;
inline constexpr std::string_view padding = "        ";
inline constexpr std::size_t least = payloadAt + padding.size();
}  // namespace frame

inline constexpr std::size_t publicValueBytes = 32;
using PublicValue = std::array<std::uint8_t, publicValueBytes>;  // big-endian
using Scalar = Secret<32>;                                       // big-endian
using MasterKey = Secret<32>;
using SessionKey = Secret<16>;

struct SessionKeys {
  SessionKey receive;
  SessionKey send;
};

// How the messages of one request and its answer are written.
enum class Form : std::uint8_t {
  json,    // the JSON form, and the whole frame as text
  binary,  // the flattened form
};

// A random scalar from the system's random device, as the curve wants it. Without the device it is made from rand() and
// the trouble told: a box that cannot open it has worse ones, and its owner has to get in.
[[nodiscard]] Scalar randomScalar(const char* device = "/dev/urandom");

struct KeyExchange {
  PublicValue publicValue;  // for the browser
  MasterKey master;
};

// One side of the exchange: what `scalar` gives with the other side's public value.
[[nodiscard]] KeyExchange exchangeKeys(const Scalar& scalar, std::span<const std::uint8_t, publicValueBytes> other);

// The asymmetric start keys of RFC 3079 for 16 bytes: that of the server's sending or of its receiving direction.
[[nodiscard]] SessionKey deriveSessionKey(const MasterKey& master, bool isServerSend);
[[nodiscard]] SessionKeys deriveSessionKeys(const MasterKey& master);

// A cipher that stands where a direction's keystream begins.
[[nodiscard]] RC4 startCipher(const SessionKey& key);

// The answer to a key exchange, in the text encoding.
[[nodiscard]] std::string keyExchangeAnswer(std::uint32_t session, const PublicValue& publicValue);

// Deciphers a frame of the browser; the payload, padding taken off, replaces what `payload` held. False: it is too
// short, for another session, out of sequence or badly padded; the last two are logged. A frame that fails uses nothing
// up. `payload` then holds nothing that may be used.
[[nodiscard]] bool decryptFrame(JsSession& session, std::span<const std::uint8_t> bytes, std::string& payload);

// The frame with a message for the browser, as the body of a response. Empty, with the keystream unchanged: the message
// is too long for the binary form; that is logged. The JSON form has no limit.
[[nodiscard]] std::string putEncrypted(JsSession& session, const tn::message& msg, Form form);
