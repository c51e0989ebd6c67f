#pragma once

#include <cstddef>
#include <string>

#include "platform/web/headers.h"

// The memory that a connection needs while it works on a request, and no longer. Connections hand it round: one that
// waits for its next request holds none of it, and one that gets a request finds it allocated, and warm in the cache.
struct Workspace {
  static constexpr std::size_t maxKeptBuffer = 8192;  // a larger buffer is not handed on
  static constexpr std::size_t maxSpare = 16;         // more are given back to the heap

  std::string buffer;
  Headers requestHeaders;
  Headers responseHeaders;
};

[[nodiscard]] Workspace takeWorkspace();
// The headers have been cleared.
void giveWorkspace(Workspace workspace);
