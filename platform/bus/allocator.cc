#include "platform/bus/allocator.h"

#include <cassert>
#include <iterator>

namespace tn {

Allocator::Allocator(std::uint32_t first, std::uint32_t last) : first_(first), last_(last), next_(first) {
  assert(first <= last);
}

Allocator::Runs::iterator Allocator::runOf(std::uint32_t id) {
  auto after = runs_.upper_bound(id);
  if (after == runs_.begin()) return runs_.end();
  const auto run = std::prev(after);
  return id <= run->second ? run : runs_.end();
}

std::optional<std::uint32_t> Allocator::allocate() {
  std::uint32_t id = next_;
  auto run = runOf(id);
  if (run != runs_.end() && run->second == last_) {
    id = first_;
    run = runOf(id);
  }
  if (run != runs_.end()) {
    if (run->second == last_) return std::nullopt;
    // Runs never touch, so what follows one is free.
    id = run->second + 1;
  }
  join(id);
  next_ = id == last_ ? first_ : id + 1;
  return id;
}

// Takes a free number into the runs, closing the gap between its neighbours when it was the only one.
void Allocator::join(std::uint32_t id) {
  std::uint32_t end = id;
  const auto after = id == last_ ? runs_.end() : runs_.find(id + 1);
  if (after != runs_.end()) {
    end = after->second;
    runs_.erase(after);
  }
  const auto before = id == first_ ? runs_.end() : runOf(id - 1);
  if (before != runs_.end()) {
    before->second = end;
  } else {
    runs_.emplace(id, end);
  }
}

void Allocator::release(std::uint32_t id) {
  const auto run = runOf(id);
  if (run == runs_.end()) return;
  const std::uint32_t end = run->second;
  if (run->first == id) {
    runs_.erase(run);
  } else {
    run->second = id - 1;
  }
  if (id != end) runs_.emplace(id + 1, end);
}

}  // namespace tn
