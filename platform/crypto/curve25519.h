#pragma once

#include "platform/crypto/big_num.h"

// A point of Curve25519 or of its twist, known by its u-coordinate alone (RFC 7748).
class WCurve {
 public:
  // Multiplies the point by a scalar of 256 bits, which the caller has clamped: bits 0 to 2 and 255 clear, bit 254 set.
  // The time does not depend on the scalar or on the point.
  void mul(const BigNum& scalar);

 private:
  friend class Curve25519;
  BigNum u_;
};

// The mapping between numbers and points of the curve.
class Curve25519 {
 public:
  // The point with that u-coordinate. As RFC 7748 has it, bit 255 is left out of account and the rest is taken modulo
  // 2^255 - 19, so every number is a point.
  [[nodiscard]] static WCurve map(const BigNum& u);
  // The u-coordinate of a point, below 2^255 - 19. It is 0 for every multiple of a point of small order: whoever sent
  // such a point has chosen that the secret is no secret.
  [[nodiscard]] static BigNum map(const WCurve& point);
};
