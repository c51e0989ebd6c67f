#include "jsproxy/session_crypto.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

#include "jsproxy/json_form.h"
#include "jsproxy/session.h"
#include "jsproxy/text_code.h"
#include "platform/bus/files.h"
#include "platform/byte_order.h"
#include "platform/crypto/curve25519.h"
#include "platform/crypto/sha1.h"
#include "platform/log.h"
#include "platform/unique_fd.h"

namespace {

constexpr std::uint32_t basePoint = 9;
constexpr std::size_t discardedKeystream = 768;
// Largest flattened message in the binary form, whose length goes into 16 bits.
constexpr std::size_t maxBinaryBytes = 65535;
// Of a frame with bad padding no more is logged than a line of the log has room for.
constexpr std::size_t maxDumpedBytes = 4096;

constexpr std::string_view clientReceives =
    "On the client side, this is the receive key; on the server side, it is the send key.";
constexpr std::string_view clientSends =
    "On the client side, this is the send key; on the server side, it is the receive key.";
static_assert(clientReceives.size() == 84 && clientSends.size() == 84);

// False: the device cannot be opened or read; errno says why.
bool readRandom(const char* device, std::span<std::uint8_t> out) {
  const UniqueFd file(open(device, O_RDONLY | O_CLOEXEC));
  if (!file) return false;
  while (!out.empty()) {
    const ssize_t count = read(file.get(), out.data(), out.size());
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    out = out.subspan(static_cast<std::size_t>(count));
  }
  return true;
}

void appendBe32(std::string& out, std::uint32_t value) {
  std::array<std::uint8_t, 4> bytes;
  storeBe32(bytes.data(), value);
  out.append(bytes.begin(), bytes.end());
}

// Enciphers what follows the frame's header.
void encipher(JsSession& session, std::string& bytes) {
  const std::span<std::uint8_t> payload = asWritableBytes(bytes).subspan(frame::payloadAt);
  session.sendCipher.encrypt(payload);
  session.sendPosition += static_cast<std::uint32_t>(payload.size());
}

std::string frameHeader(const JsSession& session) {
  std::string header;
  appendBe32(header, session.id);
  appendBe32(header, session.sendPosition);
  return header;
}

std::string putBinary(JsSession& session, const tn::message& msg) {
  const std::size_t most = msg.max_length();
  if (most > maxBinaryBytes) {
    logLine("putEncrypted too long msg ", NumberText(most));
    return {};
  }
  std::string bytes = frameHeader(session);
  bytes.reserve(bytes.size() + most + frame::padding.size());
  bytes.resize(frame::payloadAt + most);
  const std::span<std::uint8_t> payload = asWritableBytes(bytes).subspan(frame::payloadAt);
  const std::size_t length = msg.flatten(payload);
  storeBe16(payload.data(), static_cast<std::uint16_t>(length));
  bytes.resize(frame::payloadAt + length);
  bytes += frame::padding;
  encipher(session, bytes);
  return bytes;
}

std::string putJson(JsSession& session, const tn::message& msg) {
  std::string bytes = frameHeader(session);
  writeJson(bytes, msg.flattened());
  bytes += frame::padding;
  encipher(session, bytes);
  return bytesToText(asBytes(bytes));
}

}  // namespace

Scalar randomScalar(const char* device) {
  Scalar scalar;
  const std::span<std::uint8_t, Scalar::size> bytes = scalar.bytes();
  if (!readRandom(device, bytes)) {
    logSystemError("urandom");
    for (std::uint8_t& byte : bytes)
      byte = static_cast<std::uint8_t>(rand());
  }
  bytes[31] &= 0xF8;
  bytes[0] &= 0x7F;
  bytes[0] |= 0x40;
  return scalar;
}

KeyExchange exchangeKeys(const Scalar& scalar, std::span<const std::uint8_t, publicValueBytes> other) {
  const BigNum factor(scalar.bytes());
  KeyExchange result;
  WCurve own = Curve25519::map(BigNum(basePoint));
  own.mul(factor);
  Curve25519::map(own).bin(result.publicValue);
  WCurve shared = Curve25519::map(BigNum(other));
  shared.mul(factor);
  Curve25519::map(shared).bin(result.master.bytes());
  return result;
}

SessionKey deriveSessionKey(const MasterKey& master, bool isServerSend) {
  std::array<std::uint8_t, 40> pad1{};
  std::array<std::uint8_t, 40> pad2;
  pad2.fill(0xF2);
  SHA1 hash;
  hash.update(master.bytes());
  hash.update(pad1);
  hash.update(asBytes(isServerSend ? clientReceives : clientSends));
  hash.update(pad2);
  SHA1::Digest digest = hash.finish();
  SessionKey key;
  std::copy_n(digest.begin(), SessionKey::size, key.bytes().begin());
  wipe(digest.data(), digest.size());
  return key;
}

SessionKeys deriveSessionKeys(const MasterKey& master) {
  return {deriveSessionKey(master, false), deriveSessionKey(master, true)};
}

RC4 startCipher(const SessionKey& key) {
  RC4 cipher(key.bytes());
  cipher.skip(discardedKeystream);
  return cipher;
}

std::string keyExchangeAnswer(std::uint32_t session, const PublicValue& publicValue) {
  std::string bytes;
  appendBe32(bytes, session);
  appendBe32(bytes, 0);
  bytes.append(publicValue.begin(), publicValue.end());
  return bytesToText(asBytes(bytes));
}

bool decryptFrame(JsSession& session, std::span<const std::uint8_t> bytes, std::string& payload) {
  if (bytes.size() < frame::least || loadBe32(bytes.data() + frame::sessionAt) != session.id) return false;
  const std::uint32_t position = loadBe32(bytes.data() + frame::positionAt);
  const std::span<const std::uint8_t> enciphered = bytes.subspan(frame::payloadAt);
  if (!session.receiving.decipher(position, enciphered, payload)) {
    logLine("bad seq");
    return false;
  }
  if (!payload.ends_with(frame::padding)) {
    logLine("bad padding");
    logLine("<", tn::hexdump(enciphered.first(std::min(enciphered.size(), maxDumpedBytes))), ">");
    return false;
  }
  session.receiving.recordReceived(position, static_cast<std::uint32_t>(enciphered.size()));
  payload.resize(payload.size() - frame::padding.size());
  return true;
}

std::string putEncrypted(JsSession& session, const tn::message& msg, Form form) {
  return form == Form::binary ? putBinary(session, msg) : putJson(session, msg);
}
