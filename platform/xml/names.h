#pragma once

#include <string_view>

#include "platform/xml/document.h"

namespace xml {

// The number of an element's or attribute's name, 0 when it has none. Names are compared byte by byte.
[[nodiscard]] Id idOf(std::string_view name);

}  // namespace xml
