#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "services/hotspotd/forwarded.h"

namespace hotspot {

// Text as it can stand in HTML, between tags and in quoted attributes.
[[nodiscard]] std::string escapeHtml(std::string_view text);

// The page for a client that is not logged in. `notice` says what went wrong, empty for nothing.
[[nodiscard]] Page loginPage(std::string_view title, const ForwardedRequest& request, std::string_view notice);

// The page for one that is, for as long as is left.
[[nodiscard]] Page welcomePage(std::string_view title, const ForwardedRequest& request, std::chrono::seconds left);

}  // namespace hotspot
