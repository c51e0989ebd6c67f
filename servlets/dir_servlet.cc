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

// Whether a directory on the way to the file, or the last piece itself, holds the marker. Pieces are joined as from
// "/".
bool isMarkedPublic(std::string_view path, tn::FileView& view) {
  std::string prefix;
  for (const std::string& piece : tokenize(path, '/')) {
    prefix.append("/").append(piece);
    if (view.status(prefix + std::string(publicMarker))) return true;
  }
  return false;
}

bool offersGzip(const Request& request) {
  const auto accepted = request.headers.getHeader("accept-encoding");
  return accepted && accepted->find("gzip") != std::string_view::npos;
}

}  // namespace

DirServlet::DirServlet(std::string root, bool isPublic, bool cacheable)
    : Servlet("GET, HEAD"), root_(std::move(root)), isPublic_(isPublic), cacheable_(cacheable) {
  fileAnswers().prepare();
}

bool DirServlet::rootIsDirectory(tn::FileView& view) const {
  const std::optional<struct stat> status = view.status(root_);
  return status && S_ISDIR(status->st_mode);
}

bool DirServlet::isDirectory() {
  const FileAnswer* const known = fileAnswers().find(&root_, {}, rootPlace_);
  knownDirectory_ = known != nullptr ? S_ISDIR(known->status.st_mode) : lookAtRoot();
  return *knownDirectory_;
}

bool DirServlet::lookAtRoot() {
  const FileAnswer* const kept = fileAnswers().keep(&root_, {}, [this](tn::FileView& view, FileAnswer& answer) {
    const std::optional<struct stat> status = view.status(root_);
    if (!status) return false;
    answer.path = root_;
    answer.status = *status;
    return true;
  });
  tn::FileView view;
  return kept != nullptr ? S_ISDIR(kept->status.st_mode) : rootIsDirectory(view);
}

void DirServlet::doGet(Request& request, Response& response) {
  const std::optional<bool> directory = std::exchange(knownDirectory_, std::nullopt);
  const std::string& wanted = request.pathInfoSet ? request.pathInfo : request.uri;
  if (const FileAnswer* known = fileAnswers().find(this, wanted)) {
    answerKept(*known, request, response);
  } else {
    answerNew(wanted, directory, request, response);
  }
}

void DirServlet::answerNew(std::string_view wanted, std::optional<bool> directory, const Request& request,
                           Response& response) {
  if (!isPlainPath(wanted)) {
    response.sendError(404, "");
    return;
  }
  const auto lookAnew = [&](tn::FileView& view, FileAnswer& found) {
    return look(wanted, rootIsDirectory(view), view, found) == 0;
  };
  if (const FileAnswer* kept = fileAnswers().keep(this, wanted, lookAnew)) {
    answerKept(*kept, request, response);
    return;
  }
  tn::FileView view;
  FileAnswer found;
  if (const int error = look(wanted, directory ? *directory : isDirectory(), view, found); error != 0) {
    response.sendError(error, "");
  } else {
    rememberFile(found.path, found.status);
    answer(found, request, response);
  }
}

void DirServlet::answerKept(const FileAnswer& kept, const Request& request, Response& response) const {
  rememberFile(kept);
  answer(kept, request, response);
}

int DirServlet::look(std::string_view wanted, bool directory, tn::FileView& view, FileAnswer& answer) const {
  std::string path = root_;
  if (directory) path.append("/").append(wanted);
  if (isPublic_ && !isMarkedPublic(path, view)) return 403;
  tn::FoundFile found = tn::lookupFile(path, view);
  while (found.status && S_ISDIR(found.status->st_mode)) {
    path += "/index.html";
    found = tn::lookupFile(path, view);
  }
  // A compressed variant has the content type of the file it stands for.
  answer.contentType = getContentType(found.path, nullptr);
  answer.compressed = !found.status;
  if (answer.compressed) found = tn::lookupFile(path + ".gz", view);
  if (!found.status) return 404;
  answer.path = std::move(found.path);
  answer.status = *found.status;
  return 0;
}

void DirServlet::answer(const FileAnswer& found, const Request& request, Response& response) const {
  if (found.compressed) {
    if (!offersGzip(request)) {
      response.sendError(406, "");
      return;
    }
    response.headers.addHeader("Content-Encoding", "gzip", false);
  }
  response.sendFile(found.path, found.contentType, false);
  response.cacheable = cacheable_;
}
