#include "servlets/dir_servlet.h"

#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <utility>

#include "http/file_facts.h"
#include "platform/bus/files.h"
#include "platform/web/functions.h"

namespace {

constexpr std::string_view publicMarker = "/.public";

// Letters and digits of US-ASCII, whatever the locale.
bool isAlphanumeric(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool mayPrecedeDot(char c) {
  return isAlphanumeric(c) || c == '_' || c == '-';
}

// Nothing is decoded, and a dot stands only behind a plain character: this alone keeps "..", hidden files and whatever
// the file system may take specially out.
bool isPlainPath(std::string_view path) {
  char before = '/';
  for (const char c : path) {
    const bool allowed = mayPrecedeDot(c) || c == '/' || (c == '.' && mayPrecedeDot(before));
    if (!allowed) return false;
    before = c;
  }
  return true;
}

// Whether a directory on the way to the file, or the last piece itself, holds the marker.
bool isMarkedPublic(std::string_view path) {
  std::string prefix;
  for (const std::string& piece : tokenize(path, '/')) {
    if (!prefix.empty()) prefix += '/';
    prefix += piece;
    if (tn::fileExists(prefix + std::string(publicMarker), 0)) return true;
  }
  return false;
}

bool offersGzip(const Request& request) {
  const auto accepted = request.headers.getHeader("accept-encoding");
  return accepted && accepted->find("gzip") != std::string_view::npos;
}

}  // namespace

DirServlet::DirServlet(std::string root, bool isPublic, bool cacheable)
    : Servlet("GET, HEAD"), root_(std::move(root)), isPublic_(isPublic), cacheable_(cacheable) {}

bool DirServlet::isDirectory() {
  struct stat status {};
  knownDirectory_ = stat(root_.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
  return *knownDirectory_;
}

void DirServlet::doGet(Request& request, Response& response) {
  const std::optional<bool> known = std::exchange(knownDirectory_, std::nullopt);
  const std::string& wanted = request.pathInfoSet ? request.pathInfo : request.uri;
  if (!isPlainPath(wanted)) {
    response.sendError(404, "");
    return;
  }
  std::string path = root_;
  if (known ? *known : isDirectory()) path.append("/").append(wanted);
  if (isPublic_ && !isMarkedPublic(path)) {
    response.sendError(403, "");
    return;
  }
  serve(std::move(path), request, response);
}

void DirServlet::serve(std::string path, const Request& request, Response& response) const {
  tn::FoundFile found = tn::lookupFile(path);
  while (found.status && S_ISDIR(found.status->st_mode)) {
    path += "/index.html";
    found = tn::lookupFile(path);
  }
  // A compressed variant has the content type of the file it stands for.
  const std::string_view contentType = getContentType(found.path, nullptr);
  if (found.status) {
    sendFile(std::move(found), contentType, response);
    return;
  }
  found = tn::lookupFile(path + ".gz");
  if (!found.status) {
    response.sendError(404, "");
  } else if (!offersGzip(request)) {
    response.sendError(406, "");
  } else {
    response.headers.addHeader("Content-Encoding", "gzip", false);
    sendFile(std::move(found), contentType, response);
  }
}

void DirServlet::sendFile(tn::FoundFile found, std::string_view contentType, Response& response) const {
  rememberFile(found.path, *found.status);
  response.sendFile(std::move(found.path), contentType, false);
  response.cacheable = cacheable_;
}
