#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <utility>

#include "platform/crypto/wipe.h"

// Key material of a fixed size. It moves from owner to owner and leaves nothing behind: what was moved from, and what
// ends, is overwritten with zeros.
template <std::size_t Size>
class Secret {
 public:
  static constexpr std::size_t size = Size;

  Secret() = default;
  Secret(Secret&& other) noexcept : bytes_(other.bytes_) { other.wipeOut(); }
  Secret& operator=(Secret&& other) noexcept {
    if (this != &other) {
      bytes_ = other.bytes_;
      other.wipeOut();
    }
    return *this;
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { wipeOut(); }

  [[nodiscard]] std::span<std::uint8_t, Size> bytes() { return bytes_; }
  [[nodiscard]] std::span<const std::uint8_t, Size> bytes() const { return bytes_; }

 private:
  void wipeOut() { wipe(bytes_.data(), Size); }

  std::array<std::uint8_t, Size> bytes_{};
};
