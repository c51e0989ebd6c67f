#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace forwarder {

// Largest head that a server takes, and some room for its line ends.
inline constexpr std::size_t maxHeadBytes = 32768;

// Length of a request's head, the empty line included, at the front of `bytes`; for a request line without a version,
// that of the line. Nothing: there is more to come.
[[nodiscard]] std::optional<std::size_t> headLength(std::string_view bytes);

// A whole head as it is to be sent on: what the client says about keeping the connection is replaced by
// "Connection: close". Only one request may pass on a connection to the server, since each wants a forwarding header of
// its own in front: bytes of a client that came to stand in its place would be taken for one.
[[nodiscard]] std::string closingHead(std::string_view head);

}  // namespace forwarder
