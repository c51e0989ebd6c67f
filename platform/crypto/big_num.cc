#include "platform/crypto/big_num.h"

#include <algorithm>
#include <cassert>

#include "platform/byte_order.h"
#include "platform/crypto/wipe.h"

BigNum::BigNum(std::uint32_t value) {
  storeLe32(bytes_.data(), value);
}

BigNum::BigNum(std::span<const std::uint8_t> bigEndian) {
  assert(bigEndian.size() <= maxBytes);
  std::copy(bigEndian.rbegin(), bigEndian.rend(), bytes_.begin());
}

BigNum::~BigNum() {
  wipe(bytes_.data(), sizeof bytes_);
}

void BigNum::bin(std::span<std::uint8_t, maxBytes> out) const {
  std::copy(bytes_.rbegin(), bytes_.rend(), out.begin());
}

BigNum BigNum::fromLittleEndian(std::span<const std::uint8_t, maxBytes> bytes) {
  BigNum number;
  std::copy(bytes.begin(), bytes.end(), number.bytes_.begin());
  return number;
}
