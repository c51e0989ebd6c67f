#pragma once

#include <cstdint>

// The rights of a user, as bits of the policies word that a message of a session carries (docs/services.md).
namespace tn::policies {

inline constexpr std::uint32_t read = 0x10;              // status and settings; needed for every right to files
inline constexpr std::uint32_t readFiles = 0x40;         // of the user store
inline constexpr std::uint32_t writeFiles = 0x80;        // of the user store
inline constexpr std::uint32_t changeSettings = 0x100;   // server records, network
inline constexpr std::uint32_t manageUsers = 0x200;      // users and groups
inline constexpr std::uint32_t sensitiveFiles = 0x4000;  // files with secrets as well

inline constexpr std::uint32_t all = read | readFiles | writeFiles | changeSettings | manageUsers | sensitiveFiles;

}  // namespace tn::policies
