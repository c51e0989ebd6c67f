#include "tests/servlets/forced_unmap.h"

#include <cerrno>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

bool failing = false;

}  // namespace

FailingUnmap::FailingUnmap() {
  failing = true;
}

FailingUnmap::~FailingUnmap() {
  failing = false;
}

extern "C" int munmap(void* address, size_t length) noexcept {
  const auto result = static_cast<int>(syscall(SYS_munmap, address, length));
  if (!failing) return result;
  errno = EINVAL;
  return -1;
}
