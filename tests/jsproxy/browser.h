#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "jsproxy/session_crypto.h"
#include "jsproxy/text_code.h"
#include "platform/byte_order.h"

namespace jsproxy_test {

// The browser's end of a session. It keeps its whole keystream, so a frame can be made for any position of it.
class Browser {
 public:
  static constexpr std::size_t keystreamBytes = 0x60000;

  // The end that belongs to a session whose two sides have agreed on `master`.
  void agree(std::uint32_t session, const MasterKey& master) {
    id = session;
    keystream_.resize(keystreamBytes);
    startCipher(deriveSessionKey(master, false)).gen(keystream_);
    receive_.emplace(startCipher(deriveSessionKey(master, true)));
    sendPosition = 1;
    receivePosition = 1;
  }

  // The body that begins a key exchange, as bytes.
  [[nodiscard]] std::string hello() const {
    PublicValue nine{};
    nine.back() = 9;
    const PublicValue own = exchangeKeys(scalar_, nine).publicValue;
    return std::string(8, '\0').append(own.begin(), own.end());
  }

  // Takes the answer to it.
  void takeAnswer(std::string_view text) {
    std::string bytes;
    ASSERT_TRUE(textToBytes(text, bytes));
    ASSERT_EQ(bytes.size(), 40U);
    EXPECT_EQ(loadBe32(asBytes(bytes).data() + 4), 0U);
    const auto server = asBytes(bytes).subspan<8, 32>();
    agree(loadBe32(asBytes(bytes).data()), exchangeKeys(scalar_, server).master);
  }

  // A frame for a position of the keystream; the payload is enciphered as it is, padding and all.
  [[nodiscard]] std::string rawFrame(std::uint32_t position, std::string payload) const {
    for (std::size_t i = 0; i < payload.size(); ++i)
      payload[i] = static_cast<char>(static_cast<std::uint8_t>(payload[i]) ^ keystream_[position - 1 + i]);
    return header(id, position) + payload;
  }
  [[nodiscard]] std::string frameAt(std::uint32_t position, std::string_view payload) const {
    return rawFrame(position, std::string(payload).append(8, ' '));
  }
  // The next frame in order.
  std::string frame(std::string_view payload) {
    const std::uint32_t position = sendPosition;
    sendPosition += static_cast<std::uint32_t>(payload.size()) + 8;
    return frameAt(position, payload);
  }

  // The payload of a frame of the server, given as bytes.
  std::string open(std::string bytes) {
    EXPECT_GE(bytes.size(), 16U);
    if (bytes.size() < 16) return {};
    EXPECT_EQ(loadBe32(asBytes(bytes).data()), id);
    EXPECT_EQ(loadBe32(asBytes(bytes).data() + 4), receivePosition);
    receivePosition += static_cast<std::uint32_t>(bytes.size() - 8);
    receive_->encrypt(asWritableBytes(bytes).subspan(8));
    EXPECT_TRUE(bytes.ends_with("        "));
    return bytes.substr(8, bytes.size() - 16);
  }
  // The same, given as text.
  std::string openText(std::string_view text) {
    std::string bytes;
    EXPECT_TRUE(textToBytes(text, bytes));
    return open(std::move(bytes));
  }

  [[nodiscard]] static std::string header(std::uint32_t session, std::uint32_t position) {
    std::array<std::uint8_t, 8> bytes;
    storeBe32(bytes.data(), session);
    storeBe32(bytes.data() + 4, position);
    return {bytes.begin(), bytes.end()};
  }

  std::uint32_t id = 0;
  std::uint32_t sendPosition = 1;
  std::uint32_t receivePosition = 1;

 private:
  [[nodiscard]] static Scalar fixedScalar() {
    Scalar scalar;
    std::fill(scalar.bytes().begin(), scalar.bytes().end(), std::uint8_t{0x48});
    return scalar;
  }

  Scalar scalar_ = fixedScalar();
  std::vector<std::uint8_t> keystream_;
  std::optional<RC4> receive_;
};

}  // namespace jsproxy_test
