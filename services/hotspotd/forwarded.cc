#include "services/hotspotd/forwarded.h"

#include "platform/web/ascii.h"
#include "platform/web/forwarding.h"

namespace hotspot {
namespace {

constexpr std::uint32_t methodGet = 1;
constexpr std::uint32_t methodHead = 2;
constexpr std::uint32_t methodPost = 3;

Method methodOf(std::uint32_t number) {
  switch (number) {
    case methodGet:
      return Method::get;
    case methodHead:
      return Method::head;
    case methodPost:
      return Method::post;
    default:
      return Method::other;
  }
}

// The value of a line, when its field has that name.
std::optional<std::string_view> valueOf(std::string_view line, std::string_view name) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos || !ascii::equalsIgnoreCase(line.substr(0, colon), name)) return std::nullopt;
  return ascii::trimBlanks(line.substr(colon + 1));
}

void takeHeadings(ForwardedRequest& request, const tn::message& msg) {
  const auto lines = msg.get(forwarding::headerLines);
  if (!lines) return;
  for (const std::string& line : *lines) {
    if (const auto host = valueOf(line, "host")) request.host = *host;
    if (const auto origin = valueOf(line, "origin")) request.origin = *origin;
    if (const auto type = valueOf(line, "content-type")) request.contentType = *type;
  }
}

// The target's path without the part below the servlet. It goes into links and redirections: with a second "/" in front
// the word behind it would be the name of another host.
std::string baseOf(std::string_view target, std::string_view below) {
  target = target.substr(0, target.find('?'));
  if (target.ends_with(below)) target.remove_suffix(below.size());
  while (target.starts_with('/'))
    target.remove_prefix(1);
  while (target.ends_with('/'))
    target.remove_suffix(1);
  std::string base = "/";
  if (!target.empty()) base.append(target).push_back('/');
  return base;
}

Endpoint endpointOf(const tn::message& msg, tn::addr6_id address, tn::u32_id port) {
  return {msg.get(address).value_or(tn::Addr6{}), msg.get(port).value_or(0)};
}

}  // namespace

ForwardedRequest readForwarded(const tn::message& msg) {
  ForwardedRequest request;
  request.method = methodOf(msg.get(forwarding::method).value_or(0));
  request.path = msg.get(forwarding::path).value_or(std::string_view());
  request.base = baseOf(msg.get(forwarding::target).value_or(std::string_view()), request.path);
  request.body = msg.get(forwarding::body).value_or(std::string_view());
  takeHeadings(request, msg);
  request.client = endpointOf(msg, forwarding::peerAddress, forwarding::peerPort);
  request.local = endpointOf(msg, forwarding::localAddress, forwarding::localPort);
  if (msg.has(forwarding::originalAddress)) {
    request.original = endpointOf(msg, forwarding::originalAddress, forwarding::originalPort);
  }
  request.tag = msg.get(forwarding::tag).value_or(0);
  request.tls = msg.get(forwarding::tls).value_or(false);
  return request;
}

tn::message answerOf(const Page& page) {
  tn::message answer;
  answer.insert(forwarding::status, page.status);
  if (!page.statusText.empty()) answer.insert(forwarding::statusText, page.statusText);
  answer.insert_vector(forwarding::headerLines, page.headings);
  if (!page.body.empty() && !answer.insert(forwarding::body, page.body)) return answerOf({500, {}, {}, {}});
  return answer;
}

}  // namespace hotspot
