#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <string_view>

#include "services/tlsd/identity.h"

namespace tlsd {

// How long a certificate of one's own is good: a little less than what browsers accept of one that its user trusts.
inline constexpr std::int64_t selfSignedDays = 820;

// A new key (ECDSA, P-256) and a certificate for it that it signed itself: for the host names of the loopback interface
// and `hostName`, unless that is no name of a host. It is good from a day before `now` (clocks differ) on. The error
// says what OpenSSL could not do.
[[nodiscard]] std::expected<PemPair, std::string> makeSelfSigned(std::string_view hostName, std::int64_t now);

// Whether a certificate is one that makeSelfSigned made.
[[nodiscard]] bool isSelfSigned(const X509* certificate);

// Whether a text can stand in a certificate as the name of a host: letters, digits, "-" and "." where names have them.
[[nodiscard]] bool isHostName(std::string_view text);

}  // namespace tlsd
