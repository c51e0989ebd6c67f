#include "core/configuration.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/process_lifetime.h"
#include "jsproxy/jsproxy_servlet.h"
#include "platform/log.h"
#include "platform/xml/www_document.h"
#include "servlets/dir_servlet.h"
#include "servlets/index_servlet.h"
#include "servlets/remote_servlet.h"
#include "servlets/varnox_servlet.h"

namespace {

namespace attribute = xml::www::attribute;
namespace element = xml::www::element;
using xml::www::ServletKind;

// The handler below the hotspot service that answers forwarded requests.
constexpr std::array<std::uint32_t, 2> forwardTarget{63, 15};

std::string textOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* found = node.attributes().find(id);
  return found == nullptr ? std::string() : std::string(found->text());
}

// A text that is no boolean counts as absent.
bool boolOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* found = node.attributes().find(id);
  return found != nullptr && found->get<bool>().value_or(false);
}

std::vector<std::uint32_t> numbersOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* found = node.attributes().find(id);
  if (found == nullptr) return {};
  return found->get<std::vector<std::uint32_t>>().value_or(std::vector<std::uint32_t>());
}

// Servlets serve requests until the process ends.
template <typename Kind, typename... Arguments>
Kind* makeServlet(Arguments&&... arguments) {
  return &keepForProcess(std::make_unique<Kind>(std::forward<Arguments>(arguments)...));
}

ServerEntry& addServer(ServerMap& servers, std::string_view name, bool ssl) {
  logLine("adding server ", name, ", ssl=", boolText(ssl));
  ServerEntry& entry = keepForProcess(std::make_unique<ServerEntry>());
  entry.ssl = ssl;
  servers.emplace(name, &entry);
  return entry;
}

class Builder {
 public:
  explicit Builder(ServerMap& servers) : servers_(servers) {}

  void buildServer(const xml::Node& node);

 private:
  void buildServlet(ServerEntry& entry, const xml::Node& node);
  Servlet* createServlet(ServletKind kind, const xml::Node& node);
  Servlet* sharedJsProxy();

  ServerMap& servers_;
  JsProxyServlet* jsProxy_ = nullptr;
};

void Builder::buildServer(const xml::Node& node) {
  const std::string name = textOf(node, attribute::name);
  const auto found = servers_.find(name);
  ServerEntry& entry =
      found != servers_.end() ? *found->second : addServer(servers_, name, boolOf(node, attribute::ssl));
  for (xml::NodeIterator it(node, element::servlet); it; ++it)
    buildServlet(entry, *it);
}

void Builder::buildServlet(ServerEntry& entry, const xml::Node& node) {
  const std::string kind = textOf(node, attribute::type);
  Servlet* servlet = createServlet(xml::www::servletKind(kind), node);
  if (servlet == nullptr) return;
  servlet->setPath(textOf(node, attribute::path));
  servlet->setBaseFlag(!boolOf(node, attribute::internal));
  entry.servlets.push_back(servlet);
  logLine("adding servlet ", entry.ssl ? "ssl " : "", kind, ", path=", servlet->getPath());
}

Servlet* Builder::createServlet(ServletKind kind, const xml::Node& node) {
  switch (kind) {
    case ServletKind::dir:
    case ServletKind::pubdir:
      return makeServlet<DirServlet>(textOf(node, attribute::root), kind == ServletKind::pubdir,
                                     boolOf(node, attribute::cacheable));
    case ServletKind::index:
      return makeServlet<IndexServlet>();
    case ServletKind::varnox:
      return makeServlet<VarnoxServlet>();
    case ServletKind::jsproxy:
      return sharedJsProxy();
    case ServletKind::remote:
      return makeServlet<RemoteServlet>(numbersOf(node, attribute::target));
    case ServletKind::unknown:
      break;
  }
  return nullptr;
}

Servlet* Builder::sharedJsProxy() {
  if (jsProxy_ == nullptr) jsProxy_ = makeServlet<JsProxyServlet>();
  return jsProxy_;
}

}  // namespace

void buildServers(const xml::DocumentCollection& documents, ServerMap& servers) {
  Builder builder(servers);
  for (const auto& root : documents.roots()) {
    for (xml::NodeIterator it(*root, element::server); it; ++it)
      builder.buildServer(*it);
  }
}

ServerEntry& addForwardingServer(ServerMap& servers, std::string_view name, bool ssl) {
  ServerEntry& entry = addServer(servers, name, ssl);
  entry.listenUnix = true;
  entry.listenTcp = !ssl;
  auto* forward = makeServlet<RemoteServlet>(std::vector<std::uint32_t>(forwardTarget.begin(), forwardTarget.end()));
  forward->setPath("/");
  forward->setBaseFlag(true);
  entry.servlets.push_back(forward);
  return entry;
}
