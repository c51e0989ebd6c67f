#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "platform/web/headers.h"
#include "platform/web/ip_addr6.h"

// A macro of the compiler's GNU mode, and the name of a field here.
#ifdef unix
#undef unix
#endif

namespace tn {
class message;
}

// Methods by their number in stored requests.
enum class Method : std::uint8_t {
  unknown = 0,
  get = 1,
  head = 2,
  post = 3,
  options = 4,
  put = 5,
  del = 6,
  trace = 7,
  connect = 8,
};

enum class Protocol : std::uint8_t { unknown = 0, http = 1 };

inline constexpr std::uint32_t version09 = 9;    // a request line without a version
inline constexpr std::uint32_t version10 = 256;  // major x 256 + minor
inline constexpr std::uint32_t version11 = 257;

// One request: what the client sent, and how its servlet wants the body. Owned by its connection; the public members
// are the contract between the connection engine and the servlets.
class Request {
 public:
  Request(bool tls, bool unixListener) : ssl(tls), unix(unixListener) {}
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;

  // Takes the request line, without its line end (RFC 9112, 3): a method, a target and a version with one space between
  // them. Sets `uri`, `method`, `protocol` and `version`; a line of method and target alone is HTTP/0.9.
  //
  // False: the line is refused and `uri` is empty. `protocol` is then Protocol::unknown when the last piece is no
  // version of HTTP 1.x; else `method` is Method::unknown when the method is a token that this server does not know;
  // else the line is malformed: pieces missing, empty or too many, a method that is no token, a byte outside visible
  // US-ASCII or a "#" in the target, a target in a form that is not for this method.
  [[nodiscard]] bool parseStatusLine(std::string_view line);

  // Ready for the next request of the same connection: addresses, `forwardTag`, `ssl` and `unix` stay, and so does
  // `onRequestEnd`, which is the engine's to run and to clear.
  void reset();

  // Writes the request into a message for a service that answers in the server's place (docs/forwarded-requests.md).
  void store(tn::message& msg) const;

  Headers headers;
  std::string uri;       // target as received, query included
  std::string pathInfo;  // valid when pathInfoSet
  bool pathInfoSet = false;
  std::string query;  // after the first "?"; set by the engine when it chooses the servlet, as pathInfo
  Method method = Method::get;
  Protocol protocol = Protocol::http;
  std::uint32_t version = version11;

  IPAddr6 peerAddress;
  std::uint32_t peerPort = 0;
  IPAddr6 localAddress;
  std::uint32_t localPort = 0;
  const bool ssl;
  IPAddr6 originalAddress;  // before the firewall's translation; valid when hasOriginal
  std::uint32_t originalPort = 0;
  bool hasOriginal = false;
  const bool unix;
  std::uint32_t forwardTag = 0;

  // How the body of a POST is to arrive: -1 not at all, 0 as it comes, N in pieces of exactly N bytes.
  int bodyChunk = -1;
  std::function<void(std::string_view chunk, bool last)> bodyConsumer;
  // Runs once, when the request ends or its connection is destroyed.
  std::function<void()> onRequestEnd;
};
