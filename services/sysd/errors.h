#pragma once

#include <cstdint>

// Errors of this service, beside those of every handler; docs/services.md.
namespace sysd::error {

inline constexpr std::uint32_t badRequest = 0xfe0010;
inline constexpr std::uint32_t notStored = 0xfe0011;
inline constexpr std::uint32_t tooMuch = 0xfe0012;
inline constexpr std::uint32_t conflict = 0xfe0013;

}  // namespace sysd::error
