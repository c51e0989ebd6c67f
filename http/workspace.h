#pragma once

#include <cstddef>
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

// Puts spare memory, when there is some, in the place of these, which are empty.
void takeWorkspace(std::string& buffer, Headers& requestHeaders, Headers& responseHeaders);
// Takes the memory of all three, which become empty. The headers have been cleared.
void giveWorkspace(std::string& buffer, Headers& requestHeaders, Headers& responseHeaders);
