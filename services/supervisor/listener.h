#pragma once

#include <cstddef>
#include <string_view>

#include "platform/unique_fd.h"
#include "services/supervisor/journal.h"

namespace tnrun {

// Who takes what programs write, and what the supervisor itself has to say. Tests note it down.
class Listener {
 public:
  Listener() = default;
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;
  virtual ~Listener() = default;

  // A program, known by its index, was started; these are the ends of its pipes to read from.
  virtual void began(std::size_t program, UniqueFd output, UniqueFd errors) = 0;
  // It has ended: what is left in its pipes is its last words.
  virtual void ended(std::size_t program) = 0;
  // A line of the supervisor's own.
  virtual void say(Stream stream, std::string_view line) = 0;
};

}  // namespace tnrun
