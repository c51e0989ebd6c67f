#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/web/headers.h"

class Request;
namespace tn {
class message;
}

// One response: what a servlet answers. Owned by its connection, which turns it into bytes once it is answered.
class Response {
 public:
  // Largest header block that restore takes from a service.
  static constexpr std::size_t maxRestoredHeaderBytes = 65536;

  Response() = default;
  Response(const Response&) = delete;
  Response& operator=(const Response&) = delete;

  // Takes from the request what the answer depends on: after a request whose body nobody will read, the connection may
  // not go on, since what follows on it would be taken for the next request.
  void initFrom(const Request& request);
  // Back to the default state, for the next request of the connection. Capacity is kept.
  void reset();

  // Answers with a text body; an empty text is an answer too.
  void send(std::string text);
  // Answers with a file of the system; with `remove` it is deleted once it has been opened. With an empty `contentType`
  // the response gets the type that belongs to the path's suffix, unless it has one already.
  void sendFile(std::string_view path, std::string_view contentType, bool remove);
  // Answers with an error, or with a status without a body. An empty text means the standard reason phrase; control
  // characters in it become spaces. A body or a file set before is dropped, and with it the header fields that
  // described it: Content-Encoding, and a Content-Type other than that of the error page, "text/html".
  void sendError(int code, std::string_view text);

  // Fills the response from a service's answer to a stored request (docs/forwarded-requests.md), then runs onComplete
  // when it is set: this response may be gone when restore returns. An error message becomes 504 for a time-out and 502
  // otherwise; so does an answer whose status is outside 200 to 599 or whose header block is larger than
  // maxRestoredHeaderBytes become 502.
  void restore(const tn::message& msg);

  // The text given with the status, or the standard reason phrase (RFC 9110, 15), or "Unknown".
  [[nodiscard]] std::string_view getStatusDescription() const;
  // Appends the status line, the header fields and the empty line. The version told is always HTTP/1.1 (RFC 9110, 2.5).
  void printHeading(std::string& out) const;

  // A response counts as answered when its status is 300 or more, or a text or a file has been sent.
  [[nodiscard]] bool answered() const { return status >= 300 || sent || !body.empty() || !file.empty(); }

  Headers headers;
  int status = 200;
  std::string statusText;
  std::string body;
  std::string file;
  bool deleteFile = false;
  bool cacheable = true;
  bool keepAlivePermitted = true;
  // Set by the connection while it is parked; a servlet that answers later calls it exactly once, after which this
  // response may no longer exist. Move it out before calling it.
  std::function<void()> onComplete;
  bool sent = false;  // by send, sendError or restore

 private:
  void setStatus(int code, std::string_view text);
  void dropBody();
  [[nodiscard]] bool takeHeaderLines(const tn::message& msg);
  void takeAnswer(const tn::message& msg);
};
