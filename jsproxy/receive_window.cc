#include "jsproxy/receive_window.h"

#include <algorithm>
#include <iterator>

namespace {

// Memory of the keystream that a session keeps while it holds none: enough for the frames of everyday calls.
constexpr std::size_t idleCapacity = 256;

}  // namespace

bool ReceiveWindow::decipher(std::uint32_t pos, std::span<const std::uint8_t> bytes, std::string& out) {
  const std::uint32_t from = ahead(pos);
  if (from > INT32_MAX) return false;  // behind
  const std::uint64_t to = std::uint64_t{from} + bytes.size();
  if (keystream_.size() < to) {
    if (from > maxAhead) return false;
    generate(static_cast<std::size_t>(to));
  }
  if (overlaps(from, to)) return false;
  out.resize_and_overwrite(bytes.size(), [this, from, bytes](char* plain, std::size_t) {
    const std::uint8_t* const key = keystream_.data() + from;
    for (std::size_t i = 0; i < bytes.size(); ++i)
      plain[i] = static_cast<char>(bytes[i] ^ key[i]);
    return bytes.size();
  });
  return true;
}

// The ranges do not overlap each other, so of those that begin before the frame's end the last one reaches furthest.
bool ReceiveWindow::overlaps(std::uint32_t from, std::uint64_t to) const {
  const auto behind = std::ranges::partition_point(received_, [&](const Range& r) { return ahead(r.start) < to; });
  if (behind == received_.begin()) return false;
  const Range& last = *std::prev(behind);
  return from < std::uint64_t{ahead(last.start)} + last.length;
}

void ReceiveWindow::generate(std::size_t size) {
  const std::size_t held = keystream_.size();
  keystream_.resize(size);
  cipher_.gen(std::span(keystream_).subspan(held));
}

void ReceiveWindow::recordReceived(std::uint32_t pos, std::uint32_t n) {
  if (pos == base_) {
    advance(n);
    return;
  }
  insert({pos, n});
  if (keystream_.size() <= maxKept) return;
  // The oldest gap is given up, or as much of it as makes room: what would come late for it comes too late.
  const std::size_t excess = keystream_.size() - maxKept;
  advance(static_cast<std::uint32_t>(std::min<std::size_t>(ahead(received_.front().start), excess)));
}

// Moves the base over `n` bytes and over the ranges that it then meets.
void ReceiveWindow::advance(std::uint32_t n) {
  auto next = received_.begin();
  const std::uint32_t old = base_;
  base_ += n;
  for (; next != received_.end() && next->start == base_; ++next)
    base_ += next->length;
  received_.erase(received_.begin(), next);
  keystream_.erase(keystream_.begin(), keystream_.begin() + static_cast<std::ptrdiff_t>(base_ - old));
  if (keystream_.empty() && keystream_.capacity() > idleCapacity) std::vector<std::uint8_t>().swap(keystream_);
  if (received_.empty() && received_.capacity() != 0) std::vector<Range>().swap(received_);
}

void ReceiveWindow::insert(Range range) {
  const auto behind =
      std::ranges::partition_point(received_, [&](const Range& r) { return ahead(r.start) < ahead(range.start); });
  if (behind == received_.end() || behind->start != range.start) received_.insert(behind, range);
}
