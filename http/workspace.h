#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "platform/web/headers.h"

// The memory that a connection needs while it works on a request, and no longer. Connections hand it round: one that
// waits for its next request holds none of it, and one that gets a request finds it allocated, and warm in the cache.
struct Workspace {
  static constexpr std::size_t maxKeptBuffer = 2048;  // a larger buffer is not handed on
  static constexpr std::size_t maxSpare = 64;         // more are given back to the heap

  std::string buffer;
  Headers requestHeaders;
  Headers responseHeaders;
};

// One that is spare, with headers that are empty but have their memory, or a new one.
[[nodiscard]] std::unique_ptr<Workspace> takeWorkspace();
// Keeps it for others, or frees it. Its headers have been cleared.
void giveWorkspace(std::unique_ptr<Workspace> workspace);
