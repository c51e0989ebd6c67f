#pragma once

#include "platform/bus/files.h"

namespace tn {

// lookupFile in a file tree that begins at the folder `root` instead of "/"; the path found is told without it. For
// tests, which cannot write to the folders of the system.
[[nodiscard]] FoundFile lookupFileUnder(std::string_view root, std::string_view path);

}  // namespace tn
