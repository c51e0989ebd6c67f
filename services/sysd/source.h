#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/bus/message.h"

namespace sysd {

// The objects of the status; docs/services.md.
enum class Object : std::uint8_t { system = 1, memory = 2, storage = 3, interfaces = 4, processes = 5 };
inline constexpr std::size_t objectCount = 5;

// Where the status comes from: the kernel. Tests make it up.
class Source {
 public:
  Source() = default;
  Source(const Source&) = delete;
  Source& operator=(const Source&) = delete;
  virtual ~Source() = default;

  // The fields of an object as they are now; those of a failure when the kernel does not tell.
  [[nodiscard]] virtual tn::message read(Object object) = 0;
};

}  // namespace sysd
