#include "platform/crypto/rc4.h"

#include <cassert>
#include <utility>

#include "platform/crypto/wipe.h"

namespace {

// Runs the generator over `count` bytes, with its indices in registers: `use(k, byte)` gets byte k of the keystream.
template <typename Use>
inline void run(std::array<std::uint32_t, 256>& state, std::uint32_t& iAt, std::uint32_t& jAt, std::size_t count,
                Use use) {
  std::uint32_t i = iAt;
  std::uint32_t j = jAt;
  std::uint32_t* const s = state.data();
  for (std::size_t k = 0; k < count; ++k) {
    i = (i + 1) & 0xFF;
    const std::uint32_t a = s[i];
    j = (j + a) & 0xFF;
    const std::uint32_t b = s[j];
    s[i] = b;
    s[j] = a;
    use(k, static_cast<std::uint8_t>(s[(a + b) & 0xFF]));
  }
  iAt = i;
  jAt = j;
}

}  // namespace

RC4::RC4(std::span<const std::uint8_t> key) {
  assert(!key.empty() && key.size() <= state_.size());
  for (std::uint32_t n = 0; n < state_.size(); ++n)
    state_[n] = n;
  std::uint32_t j = 0;
  for (std::uint32_t n = 0; n < state_.size(); ++n) {
    j = (j + state_[n] + key[n % key.size()]) & 0xFF;
    std::swap(state_[n], state_[j]);
  }
}

RC4::~RC4() {
  wipe(state_.data(), sizeof state_);
}

void RC4::skip(std::size_t count) {
  run(state_, i_, j_, count, [](std::size_t, std::uint8_t) {});
}

std::uint8_t RC4::gen() {
  std::uint8_t byte = 0;
  run(state_, i_, j_, 1, [&byte](std::size_t, std::uint8_t b) { byte = b; });
  return byte;
}

void RC4::gen(std::span<std::uint8_t> out) {
  run(state_, i_, j_, out.size(), [out](std::size_t k, std::uint8_t b) { out[k] = b; });
}

void RC4::encrypt(std::span<std::uint8_t> bytes) {
  run(state_, i_, j_, bytes.size(), [bytes](std::size_t k, std::uint8_t b) { bytes[k] ^= b; });
}
