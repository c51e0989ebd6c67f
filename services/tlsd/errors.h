#pragma once

#include <cstdint>

namespace tlsd::error {

// Error codes of this service, beside those of every handler; docs/tls.md.
inline constexpr std::uint32_t badRequest = 0xfe0010;       // a field is missing, or the certificate cannot be used
inline constexpr std::uint32_t notStored = 0xfe0011;        // nothing has changed
inline constexpr std::uint32_t handshakeFailed = 0xfe0018;  // there is no connection any more

}  // namespace tlsd::error
