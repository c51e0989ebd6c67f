#include "http/servlet_choice.h"

namespace {

std::string_view dropAuthority(std::string_view path) {
  const std::size_t scheme = path.find("://");
  if (scheme == std::string_view::npos || path.find('/') != scheme + 1) return path;
  const std::size_t root = path.find('/', scheme + 3);
  return root == std::string_view::npos ? "/" : path.substr(root);
}

std::string_view pathOf(std::string_view target) {
  return target.starts_with('/') ? target : dropAuthority(target);
}

// Character by character: the paths of servlets are short, and most of them differ from the request's at once.
bool begins(std::string_view path, std::string_view own) {
  if (path.size() < own.size()) return false;
  for (std::size_t i = 0; i < own.size(); ++i) {
    if (path[i] != own[i]) return false;
  }
  return true;
}

std::string_view pathBelow(std::string_view path, const Servlet& servlet) {
  path.remove_prefix(servlet.getPath().size());
  if (path.starts_with('/')) path.remove_prefix(1);
  return path;
}

}  // namespace

Target splitTarget(std::string_view uri) {
  const std::size_t mark = uri.find('?');
  if (mark == std::string_view::npos) return {pathOf(uri), {}};
  return {pathOf(uri.substr(0, mark)), uri.substr(mark + 1)};
}

ServletChoice chooseServlet(const Site& site, std::string_view path) {
  Servlet* best = nullptr;
  for (Servlet* servlet : site.servlets) {
    const std::string& own = servlet->getPath();
    if (!begins(path, own) || (best != nullptr && best->getPath().size() > own.size())) continue;
    if (servlet->isDirectory()) {
      best = servlet;
    } else if (own == path) {
      return {servlet, {}};
    }
  }
  if (best == nullptr) return {};
  return {best, pathBelow(path, *best)};
}
