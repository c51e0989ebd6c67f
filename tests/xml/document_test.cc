#include "platform/xml/document.h"

#include <gmock/gmock.h>

#include "platform/xml/names.h"
#include "platform/xml/parser.h"
#include "tests/xml/reading.h"

namespace {

using ::testing::ElementsAre;

xml::Node read(std::string_view document) {
  auto root = readAs("test.xml", document);
  EXPECT_TRUE(root.node.has_value()) << root.error.text();
  return root.node ? std::move(*root.node) : xml::Node();
}

// One attribute with the given text.
xml::Attribute attributeOf(const std::string& text) {
  return *read("<a v='" + text + "'/>").attributes().begin();
}

TEST(Ids, AreThoseOfTheTable) {
  EXPECT_EQ(xml::idOf("server"), 169U);
  EXPECT_EQ(xml::idOf("servlet"), 154U);
  EXPECT_EQ(xml::idOf("name"), 2U);
  EXPECT_EQ(xml::idOf("ssl"), 190U);
  EXPECT_EQ(xml::idOf("type"), 38U);
  EXPECT_EQ(xml::idOf("path"), 7U);
  EXPECT_EQ(xml::idOf("internal"), 40U);
  EXPECT_EQ(xml::idOf("target"), 42U);
  EXPECT_EQ(xml::idOf("root"), 28U);
  EXPECT_EQ(xml::idOf("cacheable"), 283U);
}

TEST(Ids, AreNoneForAnyOtherName) {
  for (const std::string_view name : {"", "serve", "servers", "Server", "x:server", "xmlns"}) {
    EXPECT_EQ(xml::idOf(name), 0U) << name;
  }
}

TEST(Ids, ServeElementsAndAttributesAlike) {
  const xml::Node root = read("<root server='a'><name root='b'/></root>");
  EXPECT_EQ(root.id(), 28U);
  ASSERT_NE(root.attributes().find(169), nullptr);
  EXPECT_EQ(root.attributes().find(169)->text(), "a");
  ASSERT_NE(root.find(2), nullptr);
  EXPECT_EQ(root.find(2)->attributes().find(28)->text(), "b");
}

TEST(AttributeBool, ReadsThreePairsOfWords) {
  for (const char* text : {"yes", "true", "1"})
    EXPECT_EQ(attributeOf(text).get<bool>(), true) << text;
  for (const char* text : {"no", "false", "0"})
    EXPECT_EQ(attributeOf(text).get<bool>(), false) << text;
}

TEST(AttributeBool, IsNothingForAnyOtherText) {
  for (const char* text : {"", "Yes", "YES", "y", "on", "2", "01", " yes", "yes ", "truefalse"}) {
    EXPECT_EQ(attributeOf(text).get<bool>(), std::nullopt) << '"' << text << '"';
  }
}

using Numbers = std::vector<std::uint32_t>;

TEST(AttributeNumbers, AreSeparatedByCommas) {
  EXPECT_EQ(attributeOf("63,15").get<Numbers>(), (Numbers{63, 15}));
  EXPECT_EQ(attributeOf("0").get<Numbers>(), Numbers{0});
  EXPECT_EQ(attributeOf("4294967295,0,1").get<Numbers>(), (Numbers{4294967295, 0, 1}));
  EXPECT_EQ(attributeOf("007").get<Numbers>(), Numbers{7});
}

TEST(AttributeNumbers, AreNothingForAnyOtherText) {
  for (const char* text : {"", ",", "63,", ",15", "63,,15", "63 ,15", "63, 15", " 63", "63 ", "-1", "+1", "4294967296",
                           "99999999999999999999", "0x10", "63;15", "sixty"}) {
    EXPECT_EQ(attributeOf(text).get<Numbers>(), std::nullopt) << '"' << text << '"';
  }
}

TEST(AttributeList, FindsByNumberAndByName) {
  const xml::Node root = read("<a path='p' other='o' type=''/>");
  const xml::AttributeList& list = root.attributes();
  EXPECT_EQ(list.size(), 3U);
  EXPECT_EQ(list.find(7)->text(), "p");
  EXPECT_EQ(list.find(7)->name(), "path");
  EXPECT_EQ(list.find(38)->text(), "");
  EXPECT_EQ(list.find("other")->text(), "o");
  EXPECT_EQ(list.find("other")->id(), 0U);
  EXPECT_EQ(list.find(2), nullptr);
  EXPECT_EQ(list.find("Path"), nullptr);
}

std::vector<std::string> names(const xml::Node& parent, xml::Id id) {
  std::vector<std::string> found;
  for (xml::NodeIterator it(parent, id); it; ++it)
    found.emplace_back(it->attributes().find(2)->text());
  return found;
}

TEST(NodeIterator, WalksTheChildrenOfOneIdInDocumentOrder) {
  const xml::Node root = read(
      "<www><other name='x'/><server name='a'/><servlet name='y'/><server name='b'><server name='deep'/></server>"
      "<server name='c'/><other name='z'/></www>");
  EXPECT_THAT(names(root, 169), ElementsAre("a", "b", "c"));
  EXPECT_THAT(names(root, 154), ElementsAre("y"));
  EXPECT_THAT(names(root, 0), ElementsAre("x", "z"));
  EXPECT_THAT(names(root, 2), ElementsAre());
}

TEST(NodeIterator, OfAnElementWithoutChildrenIsAtItsEnd) {
  const xml::Node root = read("<www/>");
  EXPECT_FALSE(xml::NodeIterator(root, 169));
  EXPECT_FALSE(xml::NodeIterator(root, 0));
}

TEST(Node, FindsTheFirstChildOfAnId) {
  const xml::Node root = read("<www><x/><server name='a'/><server name='b'/></www>");
  ASSERT_NE(root.find(169), nullptr);
  EXPECT_EQ(root.find(169)->attributes().find(2)->text(), "a");
  EXPECT_EQ(root.find(154), nullptr);
  EXPECT_EQ(root.children().size(), 3U);
}

TEST(Node, KnowsWhereItStands) {
  const xml::Node root = read("<www>\n  <server name='a'\n    ssl='yes'><x/></server>\n</www>");
  EXPECT_EQ(root.position().line, 1U);
  EXPECT_EQ(root.position().column, 1U);
  const xml::Node& server = root.children().at(0);
  EXPECT_EQ(server.position().line, 2U);
  EXPECT_EQ(server.position().column, 3U);
  EXPECT_EQ(server.attributes().find(2)->position().line, 2U);
  EXPECT_EQ(server.attributes().find(2)->position().column, 11U);
  EXPECT_EQ(server.attributes().find(190)->position().line, 3U);
  EXPECT_EQ(server.attributes().find(190)->position().column, 5U);
  EXPECT_EQ(server.children().at(0).position().column, 15U);
}

TEST(ParseError, TextNamesThePlace) {
  EXPECT_EQ((xml::ParseError{"a.xml", 3, 15, "a name"}).text(), "a.xml:3:15: expected a name");
  EXPECT_EQ((xml::ParseError{"a.xml", 0, 0, "a regular file"}).text(), "a.xml: expected a regular file");
}

}  // namespace
