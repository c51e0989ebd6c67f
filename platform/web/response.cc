#include "platform/web/response.h"

#include <charconv>
#include <utility>

#include "platform/web/ascii.h"
#include "platform/web/functions.h"
#include "platform/web/request.h"
#include "platform/web/reuse.h"
#include "platform/web/status_line.h"

static_assert(sizeof(Request) + sizeof(Response) < 1000, "an idle connection is to cost less than 2 KiB in all");

namespace {

constexpr std::string_view errorPageType = "text/html";

}  // namespace

void Response::initFrom(const Request& request) {
  // The engine reads the bodies of POST alone.
  std::uint32_t length = 0;
  if (request.method != Method::post && request.headers.getHeader("content-length", &length) && length != 0) {
    keepAlivePermitted = false;
  }
}

void Response::reset() {
  headers.clear();
  status = 200;
  clearForReuse(statusText);
  clearForReuse(body);
  clearForReuse(file);
  sent = false;
  deleteFile = false;
  cacheable = true;
  keepAlivePermitted = true;
  onComplete = nullptr;
}

void Response::send(std::string text) {
  body = std::move(text);
  file.clear();
  sent = true;
}

void Response::sendFile(std::string_view path, std::string_view contentType, bool remove) {
  if (!contentType.empty()) {
    headers.addHeader("Content-Type", contentType, false);
  } else if (!headers.hasHeader("content-type")) {
    headers.addHeader("Content-Type", getContentType(path, nullptr), false);
  }
  body.clear();
  assignForReuse(file, path);
  deleteFile = remove;
}

void Response::sendError(int code, std::string_view text) {
  setStatus(code, text);
  dropBody();
  sent = true;
}

void Response::setStatus(int code, std::string_view text) {
  status = code;
  statusText.assign(text);
  for (char& c : statusText) {
    if (ascii::isControl(c)) c = ' ';
  }
}

void Response::dropBody() {
  body.clear();
  file.clear();
  deleteFile = false;
  headers.removeHeader("content-encoding");
  const std::optional<std::string_view> type = headers.getHeader("content-type");
  if (type && !ascii::equalsIgnoreCase(type->substr(0, type->find(';')), errorPageType)) {
    headers.removeHeader("content-type");
  }
}

std::string_view Response::getStatusDescription() const {
  if (!statusText.empty()) return statusText;
  const std::string_view standard = reasonPhrase(status);
  return standard.empty() ? "Unknown" : standard;
}

void Response::printHeading(std::string& out) const {
  const std::string_view standard = statusText.empty() ? statusLine(status) : std::string_view();
  if (!standard.empty()) {
    out.append(standard);
  } else {
    char digits[12];
    const std::to_chars_result result = std::to_chars(digits, digits + sizeof digits, status);
    out.append("HTTP/1.1 ").append(digits, result.ptr).append(" ").append(getStatusDescription()).append("\r\n");
  }
  headers.printHeaders(out);
  out.append("\r\n");
}
