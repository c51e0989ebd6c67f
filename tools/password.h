#pragma once

#include <optional>
#include <string>

namespace tool {

// Asks for a new password: at a terminal twice and without showing it, else it is the first line of standard input.
// Nothing, and `error` says why, when there is none.
[[nodiscard]] std::optional<std::string> askPassword(int fd, std::string& error);

}  // namespace tool
