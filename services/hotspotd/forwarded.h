#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/bus/message.h"

namespace hotspot {

// The command that asks for the answer to a request (docs/forwarded-requests.md).
inline constexpr std::uint32_t forwardedRequest = 0x50001;

enum class Method : std::uint8_t { get, head, post, other };

// An end of a connection.
struct Endpoint {
  tn::Addr6 address{};
  std::uint32_t port = 0;

  friend bool operator==(const Endpoint&, const Endpoint&) = default;
};

// What this service needs of a forwarded request. Views are into the message.
struct ForwardedRequest {
  Method method = Method::other;
  std::string base;       // the path that the servlet stands at, from one "/" to one "/"
  std::string_view path;  // below it
  std::string_view body;
  std::string host;  // header fields; empty when there is none
  std::string origin;
  std::string contentType;
  Endpoint client;
  Endpoint local;
  std::optional<Endpoint> original;  // where the client wanted to go
  std::uint32_t tag = 0;
  bool tls = false;

  // The client wanted to go elsewhere, and a firewall sent it here.
  [[nodiscard]] bool redirected() const { return original && *original != local; }
};

[[nodiscard]] ForwardedRequest readForwarded(const tn::message& msg);

// What becomes the response.
struct Page {
  std::uint32_t status = 200;
  std::string statusText;             // empty: the standard one
  std::vector<std::string> headings;  // "Name: value"
  std::string body;
};

// Not sent as it is when the body is larger than a message can hold: that becomes an empty page of status 500.
[[nodiscard]] tn::message answerOf(const Page& page);

}  // namespace hotspot
