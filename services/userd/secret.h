#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/crypto/wipe.h"

namespace userd {

// A password as it was typed: wiped wherever it leaves, and never copied.
class Secret {
 public:
  static constexpr std::size_t maxBytes = 256;

  // No password: nothing that is kept matches it.
  Secret() = default;
  // Cut at maxBytes; whoever takes a password in checks it before (acceptedPassword).
  explicit Secret(std::string_view text) : length_(static_cast<std::uint16_t>(std::min(text.size(), maxBytes))) {
    std::copy_n(text.begin(), length_, bytes_.begin());
  }
  Secret(Secret&& other) noexcept { take(other); }
  Secret& operator=(Secret&& other) noexcept {
    if (this != &other) take(other);
    return *this;
  }
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;
  ~Secret() { clear(); }

  [[nodiscard]] std::string_view text() const { return {bytes_.data(), length_}; }
  // Ended by a NUL; the same bytes.
  [[nodiscard]] const char* c_str() const { return bytes_.data(); }
  [[nodiscard]] bool empty() const { return length_ == 0; }

 private:
  void take(Secret& other) {
    bytes_ = other.bytes_;
    length_ = other.length_;
    other.clear();
  }
  void clear() {
    wipe(bytes_.data(), bytes_.size());
    length_ = 0;
  }

  std::array<char, maxBytes + 1> bytes_{};
  std::uint16_t length_ = 0;
};

}  // namespace userd
