#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/crypto/rc4.h"

// Which part of a browser's keystream has been used, and the keystream itself where frames may still need it.
//
// A browser sends frames over several connections, so they arrive in any order; each names the position of its first
// byte in the keystream. The window generates the keystream as far as a frame reaches, keeps what later frames leave
// open before it, and never lets a byte of it be used twice: that is what makes a copied frame worthless.
//
// Positions are counted from 1 and wrap at 2^32, so they are compared by their distance from `base`.
class ReceiveWindow {
 public:
  // How far before its first byte a frame may leave the keystream open.
  static constexpr std::uint32_t maxAhead = 0x20000;
  // Keystream that is kept once a frame has left a gap; with more the oldest gap is given up.
  static constexpr std::size_t maxKept = 65535;

  // Bytes that a frame has used up before those in front of it.
  struct Range {
    std::uint32_t start;
    std::uint32_t length;
    friend bool operator==(const Range&, const Range&) = default;
  };

  // `cipher` stands at position `first` of the keystream.
  explicit ReceiveWindow(RC4 cipher, std::uint32_t first = 1) : cipher_(std::move(cipher)), base_(first) {}

  // Deciphers a frame's bytes, which begin at keystream position `pos`, in place of what `out` held. Nothing counts as
  // used before recordReceived says so; a frame that fails may come again. False, and `out` is unchanged: a part of the
  // keystream was used or given up already, or the frame is too far ahead.
  [[nodiscard]] bool decipher(std::uint32_t pos, std::span<const std::uint8_t> bytes, std::string& out);

  // Marks `n` bytes from `pos` on, which decipher took, as used.
  void recordReceived(std::uint32_t pos, std::uint32_t n);

  // Position of the first byte that is neither used nor given up.
  [[nodiscard]] std::uint32_t base() const { return base_; }
  // In order; each begins behind the end of the one before it, or at it.
  [[nodiscard]] const std::vector<Range>& received() const { return received_; }
  // Bytes of keystream held, from `base` on.
  [[nodiscard]] std::size_t buffered() const { return keystream_.size(); }

 private:
  [[nodiscard]] std::uint32_t ahead(std::uint32_t pos) const { return pos - base_; }
  [[nodiscard]] bool overlaps(std::uint32_t from, std::uint64_t to) const;
  void generate(std::size_t size);
  void advance(std::uint32_t n);
  void insert(Range range);

  RC4 cipher_;
  std::uint32_t base_;
  std::vector<Range> received_;
  std::vector<std::uint8_t> keystream_;
};
