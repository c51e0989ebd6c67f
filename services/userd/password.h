#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "services/userd/secret.h"

namespace userd {

inline constexpr std::size_t minPasswordBytes = 8;
// Longer than any hash that is made here.
inline constexpr std::size_t maxHashBytes = 255;

// The text as a password, or nothing when no password can look like that: empty, too long, or with control characters
// (a NUL would cut it short in the library that hashes).
[[nodiscard]] std::optional<Secret> acceptedPassword(std::string_view text);
// What is wrong with a password that somebody wants to have, in words; nothing when it may be one.
[[nodiscard]] std::optional<std::string> checkNewPassword(std::string_view text);

// The yescrypt hash of a password, with a fresh salt. Takes some 20 ms and 16 MiB. Nothing when the system has no
// randomness or no memory for it.
[[nodiscard]] std::optional<std::string> hashPassword(const Secret& password);
// Whether the password is the one that the hash was made of. Takes as long as hashing, whatever the answer; the
// comparison's time tells nothing.
[[nodiscard]] bool isRight(const Secret& password, const std::string& hash);
// Whether a text is a hash as hashPassword makes it, at a cost that can be paid.
[[nodiscard]] bool isPasswordHash(std::string_view text);

// A password of 20 random characters in groups of four, none of which is taken for another one; 100 bits. Nothing when
// the system has no randomness.
[[nodiscard]] std::optional<Secret> makePassword();

}  // namespace userd
