#include "platform/crypto/curve25519.h"

#include "platform/crypto/field25519.h"
#include "platform/crypto/wipe.h"

namespace {

constexpr std::uint32_t ladderConstant = 121665;  // (A - 2) / 4 of the curve's equation
constexpr int highestBit = 254;                   // of a scalar

// Two points whose difference is the one that is multiplied, in projective coordinates (RFC 7748, 5).
struct Ladder {
  Field25519 base;
  Field25519 x2 = Field25519::one();
  Field25519 z2;
  Field25519 x3;
  Field25519 z3 = Field25519::one();

  explicit Ladder(const Field25519& u) : base(u), x3(u) {}
  Ladder(const Ladder&) = delete;
  Ladder& operator=(const Ladder&) = delete;
  ~Ladder() {
    for (Field25519* f : {&base, &x2, &z2, &x3, &z3})
      f->wipeOut();
  }

  void swapIf(std::uint32_t bit) {
    Field25519::swapIf(bit, x2, x3);
    Field25519::swapIf(bit, z2, z3);
  }

  // Doubles the one point and adds it to the other.
  void step() {
    const Field25519 sum = x2 + z2;
    const Field25519 difference = x2 - z2;
    const Field25519 crossed = (x3 - z3) * sum;
    const Field25519 straight = (x3 + z3) * difference;
    const Field25519 sumSquared = sum.square();
    const Field25519 differenceSquared = difference.square();
    const Field25519 e = sumSquared - differenceSquared;
    x3 = (crossed + straight).square();
    z3 = base * (crossed - straight).square();
    x2 = sumSquared * differenceSquared;
    z2 = e * (sumSquared + e.mulSmall(ladderConstant));
  }
};

}  // namespace

void WCurve::mul(const BigNum& scalar) {
  const auto& bits = scalar.littleEndian();
  Ladder ladder(Field25519::fromBytes(u_.littleEndian()));
  std::uint32_t swapped = 0;
  for (int at = highestBit; at >= 0; --at) {
    const auto index = static_cast<std::size_t>(at);
    const std::uint32_t bit = (bits[index / 8] >> (index % 8)) & 1U;
    ladder.swapIf(swapped ^ bit);
    swapped = bit;
    ladder.step();
  }
  ladder.swapIf(swapped);
  std::array<std::uint8_t, BigNum::maxBytes> bytes;
  (ladder.x2 * ladder.z2.inverse()).toBytes(bytes);
  u_ = BigNum::fromLittleEndian(bytes);
  wipe(bytes.data(), bytes.size());
}

WCurve Curve25519::map(const BigNum& u) {
  WCurve point;
  point.u_ = u;
  return point;
}

BigNum Curve25519::map(const WCurve& point) {
  return point.u_;
}
