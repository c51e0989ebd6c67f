#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <sys/types.h>

#include "platform/unique_fd.h"

class CachedFile;

// What of a response is still to be written, beside its head.
struct Outgoing {
  std::size_t sent = 0;   // bytes of the head and of `text` that have left
  std::string_view text;  // the body when it is a text; it lies in the response
  // The file that the body comes from: its own descriptor, or one of the cache, which also has it mapped.
  UniqueFd fileFd;
  std::shared_ptr<const CachedFile> cached;
  std::uint32_t fileRemaining = 0;
  off_t fileOffset = 0;
  // Which of the heads that `cached` was sent with is this one: as long as it is the last, head and file are one piece
  // there. 0: none of them.
  std::uint64_t cachedHead = 0;
  bool tried = false;      // a write was tried: what is left may find its file changed
  bool keepAlive = false;  // what follows a complete response: the next request, or the end
};
