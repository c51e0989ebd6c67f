#include "platform/crypto/field25519.h"

#include "platform/byte_order.h"
#include "platform/crypto/wipe.h"

namespace {

#ifdef __SIZEOF_INT128__

__extension__ using Wide = unsigned __int128;

constexpr unsigned widthOf(std::size_t /*limb*/) {
  return 51;
}

#else

using Wide = std::uint64_t;

constexpr unsigned widthOf(std::size_t limb) {
  return limb % 2 == 0 ? 26 : 25;
}

#endif

// Bit at which a limb begins.
constexpr std::size_t startOf(std::size_t limb) {
  std::size_t bit = 0;
  for (std::size_t i = 0; i < limb; ++i)
    bit += widthOf(i);
  return bit;
}

// The limb `limb` of 2p, which is larger than any limb of a product: added before a subtraction it keeps limbs
// positive.
template <typename Limb>
constexpr Limb doubledPrime(std::size_t limb) {
  const Limb full = (Limb{1} << (widthOf(limb) + 1)) - 2;
  return limb == 0 ? full - 36 : full;
}

}  // namespace

Field25519 Field25519::one() {
  Field25519 r;
  r.v_[0] = 1;
  return r;
}

Field25519 Field25519::fromBytes(std::span<const std::uint8_t, byteCount> bytes) {
  // Each limb lies within eight bytes from its first one; the number is padded so that the last limbs may read so, too.
  std::array<std::uint8_t, byteCount + 8> padded{};
  for (std::size_t i = 0; i < byteCount; ++i)
    padded[i] = bytes[i];
  Field25519 r;
  for (std::size_t i = 0; i < limbs; ++i) {
    const std::uint64_t word = loadLe64(padded.data() + startOf(i) / 8) >> (startOf(i) % 8);
    r.v_[i] = static_cast<Limb>(word & ((std::uint64_t{1} << widthOf(i)) - 1));
  }
  wipe(padded.data(), padded.size());
  return r;
}

void Field25519::toBytes(std::span<std::uint8_t, byteCount> out) const {
  std::array<Limb, limbs> t = v_;
  const auto carry = [&t] {
    Limb c = 0;
    for (std::size_t i = 0; i < limbs; ++i) {
      t[i] += c;
      c = t[i] >> widthOf(i);
      t[i] &= (Limb{1} << widthOf(i)) - 1;
    }
    return c;
  };
  t[0] += 19 * carry();
  t[0] += 19 * carry();
  // The value is below 2^255 now. It is p or more exactly when adding 19 reaches bit 255; that bit then falls away.
  std::array<Limb, limbs> reduced = t;
  Limb c = 19;
  for (std::size_t i = 0; i < limbs; ++i) {
    reduced[i] += c;
    c = reduced[i] >> widthOf(i);
    reduced[i] &= (Limb{1} << widthOf(i)) - 1;
  }
  const Limb mask = Limb{0} - c;
  std::array<std::uint8_t, byteCount + 8> padded{};
  for (std::size_t i = 0; i < limbs; ++i) {
    const Limb limb = (reduced[i] & mask) | (t[i] & ~mask);
    std::uint8_t* at = padded.data() + startOf(i) / 8;
    storeLe64(at, loadLe64(at) | (std::uint64_t{limb} << (startOf(i) % 8)));
  }
  for (std::size_t i = 0; i < byteCount; ++i)
    out[i] = padded[i];
  wipe(padded.data(), padded.size());
  wipe(t.data(), sizeof t);
  wipe(reduced.data(), sizeof reduced);
}

Field25519 operator+(const Field25519& a, const Field25519& b) {
  Field25519 r;
  for (std::size_t i = 0; i < Field25519::limbs; ++i)
    r.v_[i] = a.v_[i] + b.v_[i];
  return r;
}

Field25519 operator-(const Field25519& a, const Field25519& b) {
  Field25519 r;
  for (std::size_t i = 0; i < Field25519::limbs; ++i) {
    r.v_[i] = a.v_[i] + doubledPrime<Field25519::Limb>(i) - b.v_[i];
  }
  return r;
}

namespace {

// Brings the wide sums of a product back to limbs. What leaves at the top comes back at the bottom times 19, since
// 2^255 is 19 modulo p.
template <typename Limb, std::size_t N>
std::array<Limb, N> carryWide(std::array<Wide, N>& sums) {
  std::array<Limb, N> v;
  Wide c = 0;
  for (std::size_t i = 0; i < N; ++i) {
    sums[i] += c;
    v[i] = static_cast<Limb>(sums[i]) & ((Limb{1} << widthOf(i)) - 1);
    c = sums[i] >> widthOf(i);
  }
  const Wide low = v[0] + 19 * c;
  v[0] = static_cast<Limb>(low) & ((Limb{1} << widthOf(0)) - 1);
  v[1] += static_cast<Limb>(low >> widthOf(0));
  return v;
}

}  // namespace

#ifdef __SIZEOF_INT128__

Field25519 operator*(const Field25519& x, const Field25519& y) {
  const auto& [a0, a1, a2, a3, a4] = x.v_;
  const auto& [b0, b1, b2, b3, b4] = y.v_;
  const std::uint64_t c1 = 19 * b1;
  const std::uint64_t c2 = 19 * b2;
  const std::uint64_t c3 = 19 * b3;
  const std::uint64_t c4 = 19 * b4;
  const auto by = [](std::uint64_t a, std::uint64_t b) { return static_cast<Wide>(a) * b; };
  std::array<Wide, 5> sums = {
      by(a0, b0) + by(a1, c4) + by(a2, c3) + by(a3, c2) + by(a4, c1),
      by(a0, b1) + by(a1, b0) + by(a2, c4) + by(a3, c3) + by(a4, c2),
      by(a0, b2) + by(a1, b1) + by(a2, b0) + by(a3, c4) + by(a4, c3),
      by(a0, b3) + by(a1, b2) + by(a2, b1) + by(a3, b0) + by(a4, c4),
      by(a0, b4) + by(a1, b3) + by(a2, b2) + by(a3, b1) + by(a4, b0),
  };
  Field25519 r;
  r.v_ = carryWide<std::uint64_t>(sums);
  return r;
}

Field25519 Field25519::square() const {
  const auto& [a0, a1, a2, a3, a4] = v_;
  const std::uint64_t d0 = 2 * a0;
  const std::uint64_t d1 = 2 * a1;
  const std::uint64_t e3 = 19 * a3;
  const std::uint64_t e4 = 19 * a4;
  const auto by = [](std::uint64_t a, std::uint64_t b) { return static_cast<Wide>(a) * b; };
  std::array<Wide, 5> sums = {
      by(a0, a0) + by(d1, e4) + by(2 * a2, e3), by(d0, a1) + by(2 * a2, e4) + by(a3, e3),
      by(d0, a2) + by(a1, a1) + by(2 * a3, e4), by(d0, a3) + by(d1, a2) + by(a4, e4),
      by(d0, a4) + by(d1, a3) + by(a2, a2),
  };
  Field25519 r;
  r.v_ = carryWide<std::uint64_t>(sums);
  return r;
}

#else

// Limb i begins at bit ceil(25.5 i). Two odd limbs begin half a bit early each, so their product counts twice; a
// product beyond bit 255 counts 19 times at the bottom.
Field25519 operator*(const Field25519& x, const Field25519& y) {
  constexpr std::size_t n = Field25519::limbs;
  std::array<Wide, n> sums{};
  for (std::size_t i = 0; i < n; ++i) {
    const Wide once = x.v_[i];
    const Wide twice = once << (i % 2);
    for (std::size_t j = 0; j < n; ++j) {
      const Wide product = (j % 2 == 0 ? once : twice) * y.v_[j];
      if (i + j < n) {
        sums[i + j] += product;
      } else {
        sums[i + j - n] += 19 * product;
      }
    }
  }
  Field25519 r;
  r.v_ = carryWide<std::uint32_t>(sums);
  return r;
}

Field25519 Field25519::square() const {
  return *this * *this;
}

#endif

Field25519 Field25519::mulSmall(std::uint32_t factor) const {
  std::array<Wide, limbs> sums;
  for (std::size_t i = 0; i < limbs; ++i)
    sums[i] = static_cast<Wide>(v_[i]) * factor;
  Field25519 r;
  r.v_ = carryWide<Limb>(sums);
  return r;
}

Field25519 Field25519::squareTimes(unsigned count) const {
  Field25519 r = *this;
  for (unsigned i = 0; i < count; ++i)
    r = r.square();
  return r;
}

// The exponent is p - 2 = 2^255 - 21: 250 ones, then 01011. `onesN` is this number to the power 2^N - 1.
Field25519 Field25519::inverse() const {
  const Field25519& z = *this;
  const Field25519 z2 = z.square();
  const Field25519 z9 = z2.squareTimes(2) * z;
  const Field25519 z11 = z9 * z2;
  const Field25519 ones5 = z11.square() * z9;
  const Field25519 ones10 = ones5.squareTimes(5) * ones5;
  const Field25519 ones20 = ones10.squareTimes(10) * ones10;
  const Field25519 ones40 = ones20.squareTimes(20) * ones20;
  const Field25519 ones50 = ones40.squareTimes(10) * ones10;
  const Field25519 ones100 = ones50.squareTimes(50) * ones50;
  const Field25519 ones200 = ones100.squareTimes(100) * ones100;
  const Field25519 ones250 = ones200.squareTimes(50) * ones50;
  return ones250.squareTimes(5) * z11;
}

void Field25519::swapIf(std::uint32_t bit, Field25519& a, Field25519& b) {
  const Limb mask = Limb{0} - static_cast<Limb>(bit);
  for (std::size_t i = 0; i < limbs; ++i) {
    const Limb difference = (a.v_[i] ^ b.v_[i]) & mask;
    a.v_[i] ^= difference;
    b.v_[i] ^= difference;
  }
}

void Field25519::wipeOut() {
  wipe(v_.data(), sizeof v_);
}
