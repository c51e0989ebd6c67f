#include <gtest/gtest.h>

#include "platform/xml/document.h"

// The shipped configuration documents, and one that uses everything they may hold, as the server reads them.
namespace {

constexpr xml::Id server = 169;
constexpr xml::Id servlet = 154;

std::string textOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* attribute = node.attributes().find(id);
  return attribute == nullptr ? "-" : std::string(attribute->text());
}

std::string boolOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* attribute = node.attributes().find(id);
  if (attribute == nullptr) return "-";
  const std::optional<bool> value = attribute->get<bool>();
  return value ? (*value ? "yes" : "no") : "?";
}

std::string numbersOf(const xml::Node& node, xml::Id id) {
  const xml::Attribute* attribute = node.attributes().find(id);
  if (attribute == nullptr) return "-";
  const auto values = attribute->get<std::vector<std::uint32_t>>();
  if (!values) return "?";
  std::string text = "[";
  for (const std::uint32_t value : *values)
    text += std::to_string(value) + ' ';
  text.back() = ']';
  return text;
}

// One line for each server and servlet: "server <name> <ssl>" and "<type> <path> <root> <cacheable> <internal>
// <target>".
std::string show(const xml::DocumentCollection& collection) {
  std::string lines;
  for (const auto& root : collection.roots()) {
    for (xml::NodeIterator it(*root, server); it; ++it) {
      lines += "server " + textOf(*it, 2) + ' ' + boolOf(*it, 190) + '\n';
      for (xml::NodeIterator inner(*it, servlet); inner; ++inner) {
        lines += textOf(*inner, 38) + ' ' + textOf(*inner, 7) + ' ' + textOf(*inner, 28) + ' ' + boolOf(*inner, 283) +
                 ' ' + boolOf(*inner, 40) + ' ' + numbersOf(*inner, 42) + '\n';
      }
    }
  }
  return lines;
}

TEST(ShippedConfiguration, HasBothServersWithTheirServlets) {
  const xml::DocumentCollection collection("image/tarn/etc/www");
  EXPECT_TRUE(collection.errors().empty());
  EXPECT_EQ(show(collection),
            "server http -\n"
            "index / - - - -\n"
            "index /index.html - - - -\n"
            "varnox /varnox/list - - - -\n"
            "dir / /home/web no - -\n"
            "dir /assets /home/web/assets yes - -\n"
            "jsproxy /jsproxy - - - -\n"
            "pubdir /pub /rw/pub - - -\n"
            "server https yes\n"
            "index / - - - -\n"
            "index /index.html - - - -\n"
            "varnox /varnox/list - - - -\n"
            "dir / /home/web no - -\n"
            "dir /assets /home/web/assets yes - -\n"
            "jsproxy /jsproxy - - - -\n"
            "pubdir /pub /rw/pub - - -\n");
}

TEST(Configuration, IsReadWithAllItsAttributes) {
  const xml::DocumentCollection collection("tests/xml/valid");
  EXPECT_TRUE(collection.errors().empty());
  EXPECT_EQ(show(collection),
            "server inside no\n"
            "dir / /home/web no yes -\n"
            "dir /skins /home/web/skins yes no -\n"
            "pubdir /pub /rw/pub yes - -\n"
            "index /index - - - -\n"
            "varnox /varnox/list - - no -\n"
            "jsproxy /jsproxy - - - -\n"
            "remote /login - - - [63 15]\n"
            "remote /one - - - [4294967295]\n"
            "server empty -\n");
}

}  // namespace
