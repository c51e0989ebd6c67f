#pragma once

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <optional>
#include <string>
#include <unistd.h>

#include "platform/unique_fd.h"

namespace service {

// The whole of a file; nothing when it cannot be read, or holds more than so many bytes (EFBIG): errno says why.
[[nodiscard]] inline std::optional<std::string> readFile(const char* path, std::size_t maxBytes) {
  const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
  if (!file) return std::nullopt;
  std::string text(maxBytes + 1, '\0');
  std::size_t held = 0;
  while (held < text.size()) {
    const ssize_t got = ::read(file.get(), text.data() + held, text.size() - held);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return std::nullopt;
    if (got == 0) break;
    held += static_cast<std::size_t>(got);
  }
  text.resize(held);
  if (held <= maxBytes) return text;
  errno = EFBIG;
  return std::nullopt;
}

}  // namespace service
