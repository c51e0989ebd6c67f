#include "platform/crypto/sha1.h"

#include <algorithm>
#include <bit>

#include "platform/byte_order.h"
#include "platform/crypto/wipe.h"

SHA1::~SHA1() {
  wipe(state_.data(), sizeof state_);
  wipe(block_.data(), sizeof block_);
}

void SHA1::update(std::span<const std::uint8_t> bytes) {
  length_ += bytes.size();
  if (held_ != 0) {
    const std::size_t take = std::min(bytes.size(), blockBytes - held_);
    std::copy_n(bytes.begin(), take, block_.begin() + static_cast<std::ptrdiff_t>(held_));
    held_ += take;
    bytes = bytes.subspan(take);
    if (held_ < blockBytes) return;
    takeBlock(block_.data());
    held_ = 0;
  }
  while (bytes.size() >= blockBytes) {
    takeBlock(bytes.data());
    bytes = bytes.subspan(blockBytes);
  }
  std::copy(bytes.begin(), bytes.end(), block_.begin());
  held_ = bytes.size();
}

SHA1::Digest SHA1::finish() {
  constexpr std::size_t lengthOffset = blockBytes - 8;
  const std::uint64_t bits = length_ * 8;
  block_[held_++] = 0x80;
  if (held_ > lengthOffset) {
    std::fill(block_.begin() + static_cast<std::ptrdiff_t>(held_), block_.end(), std::uint8_t{0});
    takeBlock(block_.data());
    held_ = 0;
  }
  std::fill(block_.begin() + static_cast<std::ptrdiff_t>(held_), block_.end(), std::uint8_t{0});
  storeBe64(block_.data() + lengthOffset, bits);
  takeBlock(block_.data());
  Digest digest;
  for (std::size_t i = 0; i < state_.size(); ++i)
    storeBe32(digest.data() + 4 * i, state_[i]);
  return digest;
}

void SHA1::takeBlock(const std::uint8_t* block) {
  std::array<std::uint32_t, 80> w;
  for (std::size_t t = 0; t < 16; ++t)
    w[t] = loadBe32(block + 4 * t);
  for (std::size_t t = 16; t < 80; ++t)
    w[t] = std::rotl(w[t - 3] ^ w[t - 8] ^ w[t - 14] ^ w[t - 16], 1);

  std::uint32_t a = state_[0];
  std::uint32_t b = state_[1];
  std::uint32_t c = state_[2];
  std::uint32_t d = state_[3];
  std::uint32_t e = state_[4];
  const auto step = [&](std::uint32_t f, std::uint32_t k, std::uint32_t word) {
    const std::uint32_t next = std::rotl(a, 5) + f + e + k + word;
    e = d;
    d = c;
    c = std::rotl(b, 30);
    b = a;
    a = next;
  };
  for (std::size_t t = 0; t < 20; ++t)
    step((b & c) | (~b & d), 0x5A827999, w[t]);
  for (std::size_t t = 20; t < 40; ++t)
    step(b ^ c ^ d, 0x6ED9EBA1, w[t]);
  for (std::size_t t = 40; t < 60; ++t)
    step((b & c) | (b & d) | (c & d), 0x8F1BBCDC, w[t]);
  for (std::size_t t = 60; t < 80; ++t)
    step(b ^ c ^ d, 0xCA62C1D6, w[t]);

  state_[0] += a;
  state_[1] += b;
  state_[2] += c;
  state_[3] += d;
  state_[4] += e;
  wipe(w.data(), sizeof w);
}
