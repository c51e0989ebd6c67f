#include "tests/web/allocations.h"

#include <cstdlib>
#include <new>

namespace {

unsigned long count = 0;

}  // namespace

unsigned long allocations() {
  return count;
}

// The one place where memory is managed by hand: these are the operators that everything else relies on.
// NOLINTBEGIN(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)
void* operator new(std::size_t size) {
  ++count;
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) std::abort();
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc, cppcoreguidelines-owning-memory)
