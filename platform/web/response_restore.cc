#include <algorithm>
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "platform/bus/message.h"
#include "platform/web/ascii.h"
#include "platform/web/forwarding.h"
#include "platform/web/response.h"

namespace {

constexpr std::uint32_t lowestStatus = 200;
constexpr std::uint32_t highestStatus = 599;

// Fields that the response writer makes itself, and those that speak of this one connection: a service's word on either
// would contradict the bytes that follow.
constexpr std::array<std::string_view, 13> ownFields{
    "content-length", "date",       "expires", "cache-control", "pragma", "connection",       "last-modified",
    "content-range",  "keep-alive", "upgrade", "trailer",       "te",     "transfer-encoding"};

bool isOwnField(std::string_view name) {
  return std::any_of(ownFields.begin(), ownFields.end(),
                     [name](std::string_view own) { return ascii::equalsIgnoreCase(name, own); });
}

}  // namespace

void Response::restore(const tn::message& msg) {
  if (const std::optional<std::uint32_t> code = msg.get(tn::field::errorCode)) {
    sendError(*code == tn::error::timeout ? 504 : 502, {});
  } else {
    takeAnswer(msg);
  }
  if (const std::function<void()> complete = std::exchange(onComplete, nullptr)) complete();
}

void Response::takeAnswer(const tn::message& msg) {
  const std::uint32_t code = msg.get(forwarding::status).value_or(lowestStatus);
  if (code < lowestStatus || code > highestStatus || !takeHeaderLines(msg)) {
    sendError(502, {});
    return;
  }
  setStatus(static_cast<int>(code), msg.get(forwarding::statusText).value_or(std::string_view()));
  cacheable = msg.get(forwarding::cacheable).value_or(false);
  sent = true;
  // From 300 on the writer makes the page, and after 204 and 205 no client reads a body.
  if (status >= 300 || status == 204 || status == 205) {
    dropBody();
  } else {
    body.assign(msg.get(forwarding::body).value_or(std::string_view()));
  }
  // A client ends a 304 at its head; the page behind it would be taken for the next response.
  if (status == 304) keepAlivePermitted = false;
}

// False: the block is too large.
bool Response::takeHeaderLines(const tn::message& msg) {
  const std::optional<std::vector<std::string>> lines = msg.get(forwarding::headerLines);
  if (!lines) return true;
  std::size_t bytes = 0;
  for (const std::string& line : *lines) {
    bytes += line.size();
    if (bytes > maxRestoredHeaderBytes) return false;
  }
  for (const std::string_view line : *lines) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || std::any_of(line.begin(), line.end(), ascii::isControl)) continue;
    const std::string_view name = line.substr(0, colon);
    if (!ascii::isToken(name) || isOwnField(name)) continue;
    headers.addHeader(name, ascii::trimBlanks(line.substr(colon + 1)), true);
  }
  return true;
}
