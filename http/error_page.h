#pragma once

#include <string>
#include <string_view>

// The page that stands in for the body of every response of status 300 and above. The description comes from servlets
// and services, which may quote the client in it, so it is escaped for HTML.
[[nodiscard]] std::string errorPage(int status, std::string_view description);
