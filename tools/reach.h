#pragma once

#include <optional>
#include <string>

namespace tool {

// Whether something listens at the broker's socket: nothing when it does, else one line for a person that says why not.
// The loop would keep trying, which is right for a service; a person is to be told at once.
[[nodiscard]] std::optional<std::string> whyUnreachable(const std::string& socketPath);

}  // namespace tool
