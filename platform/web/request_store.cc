#include <array>
#include <string>
#include <vector>

#include "platform/bus/message.h"
#include "platform/web/forwarding.h"
#include "platform/web/request.h"

// docs/forwarded-requests.md has the table of these fields. Nothing here can fail for its size: the head of a request
// is bounded by the connection engine far below what a message takes.
void Request::store(tn::message& msg) const {
  std::vector<std::string> lines;
  lines.reserve(headers.size());
  headers.forEach([&lines](std::string_view name, std::string_view value) {
    std::string& line = lines.emplace_back();
    line.reserve(name.size() + value.size() + 2);
    line.append(name).append(": ").append(value);
  });

  msg.insert(forwarding::method, static_cast<std::uint32_t>(method));
  msg.insert(forwarding::target, uri);
  msg.insert(forwarding::query, query);
  msg.insert(forwarding::version, version);
  msg.insert_vector(forwarding::headerLines, lines);
  msg.insert(forwarding::peerAddress, peerAddress.bytes());
  msg.insert(forwarding::peerPort, peerPort);
  msg.insert(forwarding::localAddress, localAddress.bytes());
  msg.insert(forwarding::localPort, localPort);
  if (hasOriginal) {
    msg.insert(forwarding::originalAddress, originalAddress.bytes());
    msg.insert(forwarding::originalPort, originalPort);
  }
  msg.insert(forwarding::tls, ssl);
  msg.insert(forwarding::unixListener, unix);
  msg.insert(forwarding::tag, forwardTag);
  if (pathInfoSet) msg.insert(forwarding::path, pathInfo);
}
