#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

namespace busd {

// A block of memory of fixed size, not initialised; the empty one owns nothing.
class Bytes {
 public:
  Bytes() = default;

  // Empty when there is no memory.
  [[nodiscard]] static Bytes tryMake(std::size_t size) {
    Bytes made;
    made.data_ = std::unique_ptr<std::uint8_t[]>(new (std::nothrow) std::uint8_t[size]);
    if (made.data_) made.size_ = size;
    return made;
  }

  Bytes(Bytes&& other) noexcept : data_(std::move(other.data_)), size_(std::exchange(other.size_, 0)) {}
  Bytes& operator=(Bytes&& other) noexcept {
    data_ = std::move(other.data_);
    size_ = std::exchange(other.size_, 0);
    return *this;
  }
  Bytes(const Bytes&) = delete;
  Bytes& operator=(const Bytes&) = delete;
  ~Bytes() = default;

  [[nodiscard]] explicit operator bool() const { return data_ != nullptr; }
  [[nodiscard]] std::uint8_t* data() const { return data_.get(); }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  std::unique_ptr<std::uint8_t[]> data_;
  std::size_t size_ = 0;
};

}  // namespace busd
