#include "tools/check.h"

#include <algorithm>
#include <optional>

#include "platform/xml/www_document.h"
#include "tools/arguments.h"

namespace tool {

namespace {

namespace attribute = xml::www::attribute;
namespace element = xml::www::element;
using xml::Attribute;
using xml::Id;
using xml::Node;
using xml::www::ServletKind;
using enum Finding::Gravity;

enum class Type : unsigned char { text, boolean, numbers };

// Which attribute stands in which element, and of which servlets it is; bits of ServletKind.
struct AttributeRule {
  Id element;
  Id attribute;
  std::string_view name;
  Type type;
  unsigned kinds;  // 0: of all
};

constexpr unsigned bitOf(ServletKind kind) {
  return 1U << static_cast<unsigned>(kind);
}
constexpr unsigned directories = bitOf(ServletKind::dir) | bitOf(ServletKind::pubdir);

constexpr AttributeRule rules[] = {
    {element::server, attribute::name, "name", Type::text, 0},
    {element::server, attribute::ssl, "ssl", Type::boolean, 0},
    {element::servlet, attribute::type, "type", Type::text, 0},
    {element::servlet, attribute::path, "path", Type::text, 0},
    {element::servlet, attribute::internal, "internal", Type::boolean, 0},
    {element::servlet, attribute::root, "root", Type::text, directories},
    {element::servlet, attribute::cacheable, "cacheable", Type::boolean, directories},
    {element::servlet, attribute::target, "target", Type::numbers, bitOf(ServletKind::remote)},
};

const AttributeRule* ruleOf(Id inElement, std::string_view name) {
  for (const AttributeRule& rule : rules) {
    if (rule.element == inElement && rule.name == name) return &rule;
  }
  return nullptr;
}

std::string oneOf(Id inElement) {
  std::string out = "one of";
  std::string_view separator = " ";
  for (const AttributeRule& rule : rules) {
    if (rule.element != inElement) continue;
    out.append(separator).append(rule.name);
    separator = ", ";
  }
  return out;
}

std::string keywords() {
  std::string out = "one of";
  std::string_view separator = " ";
  for (const xml::www::ServletKeyword& known : xml::www::servletKeywords) {
    out.append(separator).append(known.keyword);
    separator = ", ";
  }
  return out;
}

std::string_view textOf(const Node& node, Id id) {
  const Attribute* const found = node.attributes().find(id);
  return found == nullptr ? std::string_view() : found->text();
}

ServletKind kindOf(const Node& node) {
  return xml::www::servletKind(textOf(node, attribute::type));
}

bool isPrintable(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= ' ' && c <= '~'; });
}

}  // namespace

std::string Finding::text() const {
  std::string out = file;
  if (line != 0) out.append(":").append(std::to_string(line)).append(":").append(std::to_string(column));
  out.append(gravity == error ? ": error: " : ": warning: ").append(found);
  if (!expected.empty()) out.append(found.empty() ? "expected " : "; expected ").append(expected);
  return out;
}

std::size_t Checker::errors() const {
  return static_cast<std::size_t>(std::ranges::count(findings_, error, &Finding::gravity));
}

void Checker::report(Finding::Gravity gravity, const xml::Position& at, std::string found, std::string expected) {
  findings_.push_back({gravity, file_, at.line, at.column, std::move(found), std::move(expected)});
}

void Checker::reportAttribute(Finding::Gravity gravity, const Attribute& attribute, std::string expected) {
  std::string found = "attribute ";
  found.append(attribute.name()).append(" is ").append(quoted(attribute.text()));
  report(gravity, attribute.position(), std::move(found), std::move(expected));
}

void Checker::checkDirectory(const std::string& path) {
  xml::ParseError problem{};
  const auto documents = xml::listDocuments(path, problem);
  if (!documents) {
    findings_.push_back({error, problem.file, 0, 0, {}, problem.expected});
    return;
  }
  if (documents->empty()) findings_.push_back({warning, path, 0, 0, "no documents", "files *.xml"});
  for (const std::string& document : *documents)
    checkFile(document);
}

void Checker::checkFile(const std::string& path) {
  ++documents_;
  file_ = path;
  xml::ParseError problem{};
  const auto root = xml::readDocument(path, problem);
  if (root) {
    checkRoot(*root);
  } else {
    findings_.push_back({error, path, problem.line, problem.column, {}, problem.expected});
  }
}

void Checker::checkRoot(const Node& root) {
  if (root.name() != "www") report(warning, root.position(), "element <" + std::string(root.name()) + ">", "<www>");
  for (const Attribute& extra : root.attributes())
    report(warning, extra.position(), "attribute " + quoted(extra.name()), "none here");
  if (root.children().empty()) report(warning, root.position(), "no servers", "<server>");
  for (const Node& child : root.children()) {
    if (child.id() == element::server) {
      checkServer(child);
    } else {
      report(error, child.position(), "element <" + std::string(child.name()) + ">, which is skipped", "<server>");
    }
  }
}

void Checker::checkAttributes(const Node& node) {
  for (const Attribute& given : node.attributes()) {
    const AttributeRule* const rule = ruleOf(node.id(), given.name());
    if (rule == nullptr) {
      report(error, given.position(), "attribute " + quoted(given.name()) + ", which is skipped", oneOf(node.id()));
    } else if (rule->type == Type::boolean && !given.get<bool>()) {
      reportAttribute(error, given, "yes or no");
    } else if (rule->type == Type::numbers && !given.get<std::vector<std::uint32_t>>()) {
      reportAttribute(error, given, "numbers with commas between them such as 63,15");
    } else if (rule->kinds != 0 && kindOf(node) != ServletKind::unknown && (rule->kinds & bitOf(kindOf(node))) == 0) {
      report(
          warning, given.position(),
          "attribute " + quoted(given.name()) + ", which " + std::string(textOf(node, attribute::type)) + " ignores");
    }
  }
}

Checker::Server& Checker::serverOf(const Node& node, const std::string& name) {
  const Attribute* const ssl = node.attributes().find(attribute::ssl);
  const auto isSsl = ssl == nullptr ? std::optional(false) : ssl->get<bool>();
  const auto found = std::ranges::find(servers_, name, &Server::name);
  if (found == servers_.end()) return servers_.emplace_back(Server{name, isSsl.value_or(false), {}});
  if (ssl != nullptr && isSsl && *isSsl != found->ssl) {
    reportAttribute(error, *ssl,
                    std::string("what the first element of this server says, ") + (found->ssl ? "yes" : "no"));
  }
  return *found;
}

void Checker::checkServer(const Node& node) {
  constexpr std::size_t longestName = 64;  // of a server record
  checkAttributes(node);
  const Attribute* const name = node.attributes().find(attribute::name);
  if (name == nullptr) {
    report(error, node.position(), "a server without a name", "the attribute name");
  } else if (name->text().empty() || name->text().size() > longestName || !isPrintable(name->text())) {
    reportAttribute(error, *name, "1 to 64 printable ASCII characters, as in the server's record");
  }
  Server& server = serverOf(node, std::string(textOf(node, attribute::name)));
  if (node.children().empty()) report(warning, node.position(), "a server that serves nothing", "<servlet>");
  for (const Node& child : node.children()) {
    if (child.id() == element::servlet) {
      checkServlet(child, server);
    } else {
      report(error, child.position(), "element <" + std::string(child.name()) + ">, which is skipped", "<servlet>");
    }
  }
}

void Checker::checkServlet(const Node& node, Server& server) {
  checkAttributes(node);
  for (const Node& child : node.children())
    report(error, child.position(), "element <" + std::string(child.name()) + ">, which is skipped", "none here");
  const Attribute* const type = node.attributes().find(attribute::type);
  if (type == nullptr) {
    report(error, node.position(), "a servlet without a type, which is skipped", "the attribute type, " + keywords());
  } else if (kindOf(node) == ServletKind::unknown) {
    reportAttribute(error, *type, keywords());
  } else {
    checkServletKind(node, *type);
    checkPlace(node, server);
  }
}

// What a servlet of this kind cannot do without.
void Checker::checkServletKind(const Node& node, const Attribute& type) {
  const ServletKind kind = xml::www::servletKind(type.text());
  const Attribute* const root = node.attributes().find(attribute::root);
  if ((bitOf(kind) & directories) != 0) {
    if (root == nullptr) {
      report(error, node.position(), "a " + std::string(type.text()) + " servlet without a root", "the attribute root");
    } else if (!root->text().starts_with('/')) {
      reportAttribute(error, *root, "a path from the top, such as /home/web");
    }
  }
  if (kind == ServletKind::remote && node.attributes().find(attribute::target) == nullptr) {
    report(error, node.position(), "a remote servlet without a target", "the attribute target, such as 63,15");
  }
}

// Of two that answer the same, one alone is ever asked.
void Checker::checkPlace(const Node& node, Server& server) {
  const Attribute* const path = node.attributes().find(attribute::path);
  if (path == nullptr) {
    report(error, node.position(), "a servlet without a path", "the attribute path");
    return;
  }
  if (!path->text().starts_with('/')) {
    reportAttribute(error, *path, "a path that begins with /");
    return;
  }
  const ServletKind kind = kindOf(node);
  const bool isExact = kind == ServletKind::index || kind == ServletKind::varnox;
  std::string place = (isExact ? "=" : "^") + std::string(path->text());
  if (std::ranges::find(server.places, place) != server.places.end()) {
    reportAttribute(warning, *path, "a path that no other servlet of this server answers in the same way");
  }
  server.places.push_back(std::move(place));
}

}  // namespace tool
