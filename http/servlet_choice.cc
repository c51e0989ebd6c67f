#include "http/servlet_choice.h"

namespace {

std::string_view dropAuthority(std::string_view path) {
  if (path.starts_with('/')) return path;
  const std::size_t scheme = path.find("://");
  if (scheme == std::string_view::npos || path.find('/') != scheme + 1) return path;
  const std::size_t root = path.find('/', scheme + 3);
  return root == std::string_view::npos ? "/" : path.substr(root);
}

std::string_view pathBelow(std::string_view path, const Servlet& servlet) {
  path.remove_prefix(servlet.getPath().size());
  if (path.starts_with('/')) path.remove_prefix(1);
  return path;
}

}  // namespace

Target splitTarget(std::string_view uri) {
  const std::size_t mark = uri.find('?');
  if (mark == std::string_view::npos) return {dropAuthority(uri), {}};
  return {dropAuthority(uri.substr(0, mark)), uri.substr(mark + 1)};
}

ServletChoice chooseServlet(const Site& site, std::string_view path) {
  Servlet* best = nullptr;
  for (Servlet* servlet : site.servlets) {
    const std::string& own = servlet->getPath();
    if (!path.starts_with(own) || (best != nullptr && best->getPath().size() > own.size())) continue;
    if (servlet->isDirectory()) {
      best = servlet;
    } else if (own == path) {
      return {servlet, {}};
    }
  }
  if (best == nullptr) return {};
  return {best, pathBelow(path, *best)};
}
