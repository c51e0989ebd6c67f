#pragma once

#include <cstddef>
#include <string>

// Empties a string for its next use on the same connection. Its memory is kept, so that the next request needs none,
// unless it has grown beyond what an idle connection may hold.
inline void clearForReuse(std::string& text, std::size_t kept = 128) {
  if (text.capacity() > kept) {
    std::string().swap(text);
  } else {
    text.clear();
  }
}
