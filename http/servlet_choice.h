#pragma once

#include <string_view>

#include "http/site.h"

// A request target taken apart.
struct Target {
  std::string_view path;
  std::string_view query;  // after the first "?"; empty when there is nothing
};

// Views into `uri`, or of a literal. Of a target in absolute form (RFC 9112, 3.2.2) the path alone is used, "/" when
// it has none.
[[nodiscard]] Target splitTarget(std::string_view uri);

struct ServletChoice {
  Servlet* servlet = nullptr;  // null: no servlet is for that path
  std::string_view pathInfo;   // what follows a directory servlet's path, without a leading "/"; a view into the path
};

// The servlet for a path: the first exact one with that very path, else the directory servlet with the longest path
// that begins it (the later of two equal ones). A servlet that could not win either way is not asked whether it is a
// directory.
[[nodiscard]] ServletChoice chooseServlet(const Site& site, std::string_view path);
