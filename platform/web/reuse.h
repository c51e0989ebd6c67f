#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

// Empties a string for its next use on the same connection. Its memory is kept, so that the next request needs none,
// unless it has grown beyond what an idle connection may hold.
inline void clearForReuse(std::string& text, std::size_t kept = 128) {
  if (text.capacity() > kept) {
    std::string().swap(text);
  } else {
    text.clear();
  }
}

// As text.assign(value) does, for a value that lies elsewhere: the few bytes of a path cost that more than their
// copying.
inline void assignForReuse(std::string& text, std::string_view value) {
  text.resize_and_overwrite(value.size(), [value](char* bytes, std::size_t) {
    std::copy(value.begin(), value.end(), bytes);
    return value.size();
  });
}
