#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include "services/tlsd/limits.h"

namespace tlsd {

// Memory for what is on its way, lent to connections while they need it.
class BlockPool {
 public:
  using Memory = std::array<std::uint8_t, blockBytes>;

  [[nodiscard]] std::unique_ptr<Memory> take() {
    if (kept_.empty()) return std::make_unique_for_overwrite<Memory>();
    std::unique_ptr<Memory> memory = std::move(kept_.back());
    kept_.pop_back();
    return memory;
  }
  void give(std::unique_ptr<Memory> memory) {
    if (kept_.size() < keptBlocks) kept_.push_back(std::move(memory));
  }
  [[nodiscard]] std::size_t kept() const { return kept_.size(); }

 private:
  std::vector<std::unique_ptr<Memory>> kept_;
};

// Bytes on their way in one direction: appended behind, taken in front. It holds memory only while there are any, and
// gives it back to the pool, which must outlive it.
class Block {
 public:
  explicit Block(BlockPool& pool) : pool_(pool) {}
  Block(const Block&) = delete;
  Block& operator=(const Block&) = delete;
  ~Block() { clear(); }

  [[nodiscard]] bool empty() const { return begin_ == end_; }
  [[nodiscard]] std::span<const std::uint8_t> held() const {
    return memory_ ? std::span<const std::uint8_t>(*memory_).subspan(begin_, end_ - begin_)
                   : std::span<const std::uint8_t>();
  }
  // Where the next bytes go; `added` says how many came. What is left unused goes back with `clear`, or is used next.
  [[nodiscard]] std::span<std::uint8_t> room() {
    if (!memory_) memory_ = pool_.take();
    return std::span<std::uint8_t>(*memory_).subspan(end_);
  }
  void added(std::size_t count) { end_ += count; }
  void taken(std::size_t count) {
    begin_ += count;
    if (empty()) clear();
  }
  void clear() {
    if (memory_) pool_.give(std::exchange(memory_, nullptr));
    begin_ = 0;
    end_ = 0;
  }
  // Gives the memory back when nothing came after all.
  void settle() {
    if (empty()) clear();
  }

 private:
  BlockPool& pool_;
  std::unique_ptr<BlockPool::Memory> memory_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

}  // namespace tlsd
