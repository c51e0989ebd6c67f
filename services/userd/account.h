#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace userd {

inline constexpr std::size_t maxUsers = 256;
inline constexpr std::size_t maxGroups = 64;
inline constexpr std::size_t maxNameBytes = 64;  // of a user, a group, a skin
inline constexpr std::size_t maxFullNameBytes = 128;
inline constexpr std::uint32_t maxNumber = 0xFFFFFFFE;
// The user that the system is born with.
inline constexpr std::uint32_t firstUser = 1;

struct Group {
  std::uint32_t number = 0;  // 0: not stored yet
  std::string name;
  std::uint32_t policies = 0;
  std::string skin = "default";

  friend bool operator==(const Group&, const Group&) = default;
};

struct User {
  std::uint32_t number = 0;  // 0: not stored yet
  std::string name;
  std::string fullName;
  std::uint32_t group = 0;
  bool hidden = true;  // not shown on the start page
  bool disabled = false;
  std::string hash;  // of the password

  friend bool operator==(const User&, const User&) = default;
};

// Why something is not done: an error code of the bus, and what is wrong in words for a person.
struct Refusal {
  std::uint32_t code;
  std::string text;
};
// Nothing: it is done.
using Outcome = std::optional<Refusal>;

// Errors of this service, beside those of the bus; docs/services.md.
namespace error {
inline constexpr std::uint32_t badRequest = 0xfe0010;
inline constexpr std::uint32_t notStored = 0xfe0011;
inline constexpr std::uint32_t tooMuch = 0xfe0012;
inline constexpr std::uint32_t conflict = 0xfe0013;
}  // namespace error

// What is wrong with a value, in words; nothing when all is well.
using Problem = std::optional<std::string>;

[[nodiscard]] Problem checkName(std::string_view name);
[[nodiscard]] Problem checkFullName(std::string_view name);
[[nodiscard]] Problem checkSkin(std::string_view skin);

// Whether two names are too alike to be told apart: they differ at most in the case of letters.
[[nodiscard]] bool isSameName(std::string_view one, std::string_view other);

}  // namespace userd
