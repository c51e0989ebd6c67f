#pragma once

#include <cstdint>

namespace hotspot::error {

// Error codes of this service, as those of the others (docs/services.md).
inline constexpr std::uint32_t badRequest = 0xfe0010;
inline constexpr std::uint32_t notStored = 0xfe0011;

}  // namespace hotspot::error
