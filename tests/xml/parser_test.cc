#include "platform/xml/parser.h"

#include <gtest/gtest.h>

#include "tests/xml/canonical.h"
#include "tests/xml/reading.h"

namespace {

// The canonical text of a document, or the text of its error.
std::string read(std::string_view document) {
  const auto root = readAs("d", document);
  return root.node ? canonical::text(*root.node) : root.error.text();
}

// The text of the single attribute of the single element.
std::string valueOf(std::string_view quoted) {
  const auto root = readAs("d", "<a v=" + std::string(quoted) + "/>");
  return root.node ? std::string(root.node->attributes().begin()->text()) : root.error.text();
}

std::string textOf(std::string_view content) {
  const auto root = readAs("d", "<a>" + std::string(content) + "</a>");
  return root.node ? std::string(root.node->text()) : root.error.text();
}

TEST(Elements, StandInsideEachOther) {
  EXPECT_EQ(read("<a/>"), "<a></a>");
  EXPECT_EQ(read("<a></a>"), "<a></a>");
  EXPECT_EQ(read("<a ></a\t\r\n >"), "<a></a>");
  EXPECT_EQ(read("<a><b><c/></b><b/></a>"), "<a><b><c></c></b><b></b></a>");
  EXPECT_EQ(read("<a><a><a/></a></a>"), "<a><a><a></a></a></a>");
}

TEST(Elements, MayHaveNamesOfAnyScript) {
  EXPECT_EQ(read("<_a-1.\xC2\xB7:\xC3\xA9/>"), "<_a-1.\xC2\xB7:\xC3\xA9></_a-1.\xC2\xB7:\xC3\xA9>");
  EXPECT_EQ(read("<\xE4\xB8\xAD/>"), "<\xE4\xB8\xAD></\xE4\xB8\xAD>");
  EXPECT_EQ(read("<\xF0\x90\x80\x80/>"), "<\xF0\x90\x80\x80></\xF0\x90\x80\x80>");
}

TEST(Attributes, KeepTheirOrder) {
  EXPECT_EQ(read("<a z='1' b=\"2\"\n\tm = '3' />"), "<a z=\"1\" b=\"2\" m=\"3\"></a>");
  EXPECT_EQ(read("<a xmlns:x='u' x:b='1' b='2'/>"), "<a xmlns:x=\"u\" x:b=\"1\" b=\"2\"></a>");
}

TEST(AttributeValues, HoldTheOtherQuoteAndGreaterThan) {
  EXPECT_EQ(valueOf("'\"'"), "\"");
  EXPECT_EQ(valueOf("\"'>]]>/>\""), "'>]]>/>");
  EXPECT_EQ(valueOf("''"), "");
}

TEST(AttributeValues, HaveEachSpaceCharacterAsASpace) {
  EXPECT_EQ(valueOf("' a\tb\nc\rd\r\ne '"), " a b c d e ");
  EXPECT_EQ(valueOf("'\r\r\n\n\r'"), "    ");
}

TEST(AttributeValues, KeepReferencedSpaceAsItIs) {
  EXPECT_EQ(valueOf("'&#9;&#10;&#13;&#x20;&#13;&#10;'"), "\t\n\r \r\n");
}

TEST(Text, IsJoinedAroundChildrenAndComments) {
  EXPECT_EQ(textOf("one<b>inner</b> two<!-- x --> three<?pi y?> four"), "one two three four");
  EXPECT_EQ(textOf(""), "");
  EXPECT_EQ(textOf(" \t "), " \t ");
}

TEST(Text, HasLineEndsAsLineFeeds) {
  EXPECT_EQ(textOf("a\r\nb\rc\n\rd\r\r\ne"), "a\nb\nc\n\nd\n\ne");
  EXPECT_EQ(textOf("<![CDATA[a\r\nb\rc]]>"), "a\nb\nc");
  EXPECT_EQ(textOf("a&#13;&#10;b"), "a\r\nb");
}

TEST(Text, MayHoldBracketsAndGreaterThan) {
  EXPECT_EQ(textOf("a > b ] c ]] d ]>"), "a > b ] c ]] d ]>");
  EXPECT_EQ(textOf("]]&gt;"), "]]>");
}

TEST(CdataSections, AreTakenAsTheyStand) {
  EXPECT_EQ(textOf("<![CDATA[<b> & &amp; ]] ]> -->]]>"), "<b> & &amp; ]] ]> -->");
  EXPECT_EQ(textOf("<![CDATA[]]>"), "");
  EXPECT_EQ(textOf("<![CDATA[]]]]><![CDATA[>]]>"), "]]>");
  EXPECT_EQ(textOf("x<![CDATA[y]]>z"), "xyz");
  EXPECT_EQ(textOf("<![CDATA[<![CDATA[]]>"), "<![CDATA[");
}

TEST(References, NameTheFiveEntities) {
  EXPECT_EQ(textOf("&amp;&lt;&gt;&apos;&quot;"), "&<>'\"");
  EXPECT_EQ(valueOf("'&amp;&lt;&gt;&apos;&quot;'"), "&<>'\"");
  EXPECT_EQ(textOf("&amp;lt;"), "&lt;");
}

TEST(References, NumberAnyCharacter) {
  EXPECT_EQ(textOf("&#65;&#x41;&#x4a;&#x4A;"), "AAJJ");
  EXPECT_EQ(textOf("&#0000000000000000000000000000065;"), "A");
  EXPECT_EQ(textOf("&#xE9;&#x20AC;&#x10FFFF;"), "\xC3\xA9\xE2\x82\xAC\xF4\x8F\xBF\xBF");
  EXPECT_EQ(textOf("&#60;b&#62;"), "<b>");
}

TEST(Comments, AreSkippedWhereverTheyMayStand) {
  EXPECT_EQ(read("<!----><!-- a - b > <c> & -->\n<a><!-- \xC3\xA9 --></a><!--x-->"), "<a></a>");
}

TEST(ProcessingInstructions, AreSkippedWhereverTheyMayStand) {
  EXPECT_EQ(read("<?xml-stylesheet href='x'?><?a?><a><?b ? > <c> & ?></a>\n<?d \r\n?>"), "<a></a>");
  EXPECT_EQ(read("<?xmlx?><a/>"), "<a></a>");
}

TEST(XmlDeclaration, HasVersionEncodingAndStandalone) {
  EXPECT_EQ(read("<?xml version='1.0'?><a/>"), "<a></a>");
  EXPECT_EQ(read("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a/>"), "<a></a>");
  EXPECT_EQ(read("<?xml version='1.0' encoding='utf-8' standalone='yes' ?><a/>"), "<a></a>");
  EXPECT_EQ(read("<?xml\tversion = '1.0'\n standalone\r\n=\t'no'?><a/>"), "<a></a>");
  EXPECT_EQ(read("<?xml version='1.0' encoding='US-ASCII'?><a/>"), "<a></a>");
  EXPECT_EQ(read("<?xml version='1.0' encoding='us-ascii'?><a>&#xE9;</a>"), "<a>\xC3\xA9</a>");
  EXPECT_EQ(read("<?xml version='1.15'?><a/>"), "<a></a>");
}

TEST(ByteOrderMark, IsSkippedAtTheVeryStart) {
  EXPECT_EQ(read("\xEF\xBB\xBF<a/>"), "<a></a>");
  EXPECT_EQ(read("\xEF\xBB\xBF<?xml version='1.0' encoding='utf-8'?><a/>"), "<a></a>");
  EXPECT_EQ(read("<a>\xEF\xBB\xBF</a>"), "<a>\xEF\xBB\xBF</a>");
}

TEST(Document, MayBeSurroundedBySpace) {
  EXPECT_EQ(read("\r\n\t <a/> \r\n"), "<a></a>");
}

TEST(Document, NeedNotBeText) {
  EXPECT_EQ(read("<?xml version='1.0'?>\n<www>\n  <server name=\"http\">\n    <servlet type='dir' path='/'/>\n  "
                 "</server>\n</www>\n"),
            "<www>&#10;  &#10;<server name=\"http\">&#10;    &#10;  <servlet type=\"dir\" "
            "path=\"/\"></servlet></server></www>");
}

}  // namespace
