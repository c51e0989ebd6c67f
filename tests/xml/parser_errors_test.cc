#include <gtest/gtest.h>

#include "platform/xml/parser.h"
#include "tests/xml/reading.h"

// Every rule that a document can break, with the exact place and text of the error.
namespace {

struct Case {
  std::string_view document;
  unsigned line;
  unsigned column;
  std::string_view expected;
};

void check(const Case& c) {
  const auto root = readAs("d", c.document);
  const std::string shown = ::testing::PrintToString(c.document);
  ASSERT_FALSE(root.node.has_value()) << shown;
  EXPECT_EQ(root.error.file, "d");
  EXPECT_EQ(root.error.line, c.line) << shown;
  EXPECT_EQ(root.error.column, c.column) << shown;
  EXPECT_EQ(root.error.expected, c.expected) << shown;
}

using namespace std::string_view_literals;

constexpr std::string_view notUtf8 = "valid UTF-8";
constexpr std::string_view notXml = "a character that XML allows";
constexpr std::string_view tagEnd = R"(white space, "/>" or ">")";
constexpr std::string_view attributeOrEnd = R"(an attribute, "/>" or ">")";
constexpr std::string_view anyReference = R"("&amp;" or another reference)";
constexpr std::string_view allowedReference = "a reference to a character that XML allows";
constexpr std::string_view fiveEntities = "one of the entities amp, lt, gt, apos, quot";

constexpr Case outside[] = {
    {"", 1, 1, "the root element"},
    {" \n\t", 2, 2, "the root element"},
    {"text", 1, 1, "the root element"},
    {"<!-- only -->", 1, 14, "the root element"},
    {"&amp;<a/>", 1, 1, "the root element"},
    {"\xEF\xBB\xBF!", 1, 1, "the root element"},
    {"\xEF\xBB\xBF\xEF\xBB\xBF<a/>", 1, 1, "the root element"},
    {"<a/><b/>", 1, 5, "the end of the document"},
    {"<a/>\n text", 2, 2, "the end of the document"},
    {"<a></a></a>", 1, 8, "the end of the document"},
    {"<a/><![CDATA[x]]>", 1, 5, "the end of the document"},
    {"<a/>&#10;", 1, 5, "the end of the document"},
    {"<a/>\0"sv, 1, 5, notXml},
};

constexpr Case declarations[] = {
    {"<?xml?><a/>", 1, 6, R"(version "1.0")"},
    {"<?xml ?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml", 1, 6, R"(version "1.0")"},
    {"<?xml encoding='utf-8'?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version='2.0'?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version='1.'?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version='1.0a'?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version='1'?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version=''?><a/>", 1, 7, R"(version "1.0")"},
    {"<?xml version '1.0'?><a/>", 1, 15, R"("=")"},
    {"<?xml version=1.0?><a/>", 1, 15, "a value in quotes"},
    {"<?xml version='1.0?><a/>", 1, 15, "a value in quotes"},
    {"<?xml version='1.0\"?><a/>", 1, 15, "a value in quotes"},
    {"<?xml version='1.0", 1, 15, "a value in quotes"},
    {"<?xml version='1.0'encoding='utf-8'?><a/>", 1, 20, R"("?>" at the end of the XML declaration)"},
    {"<?xml version='1.0' encoding='latin1'?><a/>", 1, 21, R"(encoding "utf-8" or "us-ascii")"},
    {"<?xml version='1.0'\n encoding='utf-16'?><a/>", 2, 2, R"(encoding "utf-8" or "us-ascii")"},
    {"<?xml version='1.0' encoding=''?><a/>", 1, 21, R"(encoding "utf-8" or "us-ascii")"},
    {"<?xml version='1.0' encoding?><a/>", 1, 29, R"("=")"},
    {"\xEF\xBB\xBF<?xml version='1.0' encoding='us-ascii'?><a/>", 1, 21, R"(encoding "utf-8" after a byte order mark)"},
    {"<?xml version='1.0' standalone='maybe'?><a/>", 1, 21, R"(standalone "yes" or "no")"},
    {"<?xml version='1.0' standalone='YES'?><a/>", 1, 21, R"(standalone "yes" or "no")"},
    {"<?xml version='1.0' standalone='yes' encoding='utf-8'?><a/>", 1, 38, R"("?>" at the end of the XML declaration)"},
    {"<?xml version='1.0' other='x'?><a/>", 1, 21, R"("?>" at the end of the XML declaration)"},
    {"<?xml version='1.0'><a/>", 1, 20, R"("?>" at the end of the XML declaration)"},
    {"<?xml version='1.0' ", 1, 21, R"("?>" at the end of the XML declaration)"},
    {" <?xml version='1.0'?><a/>", 1, 2, "an XML declaration at the very start alone"},
    {"<a/><?xml version='1.0'?>", 1, 5, "an XML declaration at the very start alone"},
    {"<a><?XmL x?></a>", 1, 4, "an XML declaration at the very start alone"},
    {"<?XML version='1.0'?><a/>", 1, 1, "an XML declaration at the very start alone"},
};

constexpr Case doctypes[] = {
    {"<!DOCTYPE a><a/>", 1, 1, "the root element, not a document type declaration"},
    {"<?xml version='1.0'?>\n<!DOCTYPE a [<!ENTITY x 'y'>]>\n<a>&x;</a>", 2, 1,
     "the root element, not a document type declaration"},
    {"<!-- c --> <!DOCTYPE a SYSTEM 'file:///etc/passwd'><a/>", 1, 12,
     "the root element, not a document type declaration"},
    {"<a><!DOCTYPE a></a>", 1, 4, "a comment or a CDATA section"},
    {"<a/><!DOCTYPE a>", 1, 5, "the end of the document"},
    {"<!ENTITY x 'y'><a/>", 1, 2, "a name"},
    {"<!doctype a><a/>", 1, 2, "a name"},
    {"<a><!ENTITY x 'y'></a>", 1, 4, "a comment or a CDATA section"},
    {"<a><!ELEMENT a ANY></a>", 1, 4, "a comment or a CDATA section"},
    {"<a><![INCLUDE[x]]></a>", 1, 4, "a comment or a CDATA section"},
    {"<a><![cdata[x]]></a>", 1, 4, "a comment or a CDATA section"},
};

constexpr Case tags[] = {
    {"<", 1, 2, "a name"},
    {"<>", 1, 2, "a name"},
    {"< a/>", 1, 2, "a name"},
    {"<1a/>", 1, 2, "a name"},
    {"<-a/>", 1, 2, "a name"},
    {"</a>", 1, 2, "a name"},
    {"<a", 1, 3, tagEnd},
    {"<a/", 1, 3, tagEnd},
    {"<a/ >", 1, 3, tagEnd},
    {"<a<b/>", 1, 3, tagEnd},
    {"<a\xC3\x97/>", 1, 3, tagEnd},
    {"<a ", 1, 4, attributeOrEnd},
    {"<a /", 1, 4, attributeOrEnd},
    {"<a =''/>", 1, 4, attributeOrEnd},
    {"<a\n'x'/>", 2, 1, attributeOrEnd},
    {"<a><b></a>", 1, 7, "end tag </b>"},
    {"<a>\n  <b>\n  </c>", 3, 3, "end tag </b>"},
    {"<a></A>", 1, 4, "end tag </a>"},
    {"<a></ a>", 1, 6, "a name"},
    {"<a></>", 1, 6, "a name"},
    {"<a></a", 1, 7, R"(">")"},
    {"<a></a b='c'>", 1, 8, R"(">")"},
    {"<a></a/>", 1, 7, R"(">")"},
    {"<a>", 1, 4, "end tag </a>"},
    {"<a><b>text", 1, 11, "end tag </b>"},
    {"<a><b/>\r\n\r\n", 3, 1, "end tag </a>"},
};

constexpr Case attributes[] = {
    {"<a b/>", 1, 5, R"("=")"},
    {"<a b c='d'/>", 1, 6, R"("=")"},
    {"<a b=/>", 1, 6, "a value in quotes"},
    {"<a b=c/>", 1, 6, "a value in quotes"},
    {"<a b=", 1, 6, "a value in quotes"},
    {"<a b='c", 1, 8, "the closing quote"},
    {"<a b='c\"/>", 1, 11, "the closing quote"},
    {"<a b='<'/>", 1, 7, R"("&lt;" for "<" in a value)"},
    {"<a b='\n\n <'/>", 3, 2, R"("&lt;" for "<" in a value)"},
    {"<a b='1'c='2'/>", 1, 9, tagEnd},
    {"<a b='1' b='2'/>", 1, 10, R"(each attribute once, not another "b")"},
    {"<a b='1'\n c='2' b='1'/>", 2, 8, R"(each attribute once, not another "b")"},
    {"<a b='\x01'/>", 1, 7, notXml},
    {"<a b='x&'/>", 1, 8, anyReference},
    {"<a b='&nbsp;'/>", 1, 7, fiveEntities},
};

constexpr Case references[] = {
    {"<a>&</a>", 1, 4, anyReference},
    {"<a>& b</a>", 1, 4, anyReference},
    {"<a>x &amp</a>", 1, 6, anyReference},
    {"<a>&;</a>", 1, 4, anyReference},
    {"<a>&#;</a>", 1, 4, anyReference},
    {"<a>&#65</a>", 1, 4, anyReference},
    {"<a>&am p;</a>", 1, 4, anyReference},
    {"<a>&\xC3\xA9;</a>", 1, 4, anyReference},
    {"<a>&#-1;</a>", 1, 4, anyReference},
    {"<a>&#65", 1, 4, anyReference},
    {"<a>&", 1, 4, anyReference},
    {"<a>&AMP;</a>", 1, 4, fiveEntities},
    {"<a>\n&eacute;</a>", 2, 1, fiveEntities},
    {"<a>&amp;&x;</a>", 1, 9, fiveEntities},
    {"<a>&#x;</a>", 1, 4, allowedReference},
    {"<a>&#X41;</a>", 1, 4, allowedReference},
    {"<a>&#6a;</a>", 1, 4, allowedReference},
    {"<a>&#xg;</a>", 1, 4, allowedReference},
    {"<a>&#0;</a>", 1, 4, allowedReference},
    {"<a>&#1;</a>", 1, 4, allowedReference},
    {"<a>&#xD800;</a>", 1, 4, allowedReference},
    {"<a>&#xDFFF;</a>", 1, 4, allowedReference},
    {"<a>&#xFFFE;</a>", 1, 4, allowedReference},
    {"<a>&#x110000;</a>", 1, 4, allowedReference},
    {"<a>&#4294967361;</a>", 1, 4, allowedReference},
    {"<a>&#x10000000000000041;</a>", 1, 4, allowedReference},
};

constexpr Case content[] = {
    {"<a>]]></a>", 1, 4, R"("]]&gt;" for "]]>" in text)"},
    {"<a>]]]></a>", 1, 5, R"("]]&gt;" for "]]>" in text)"},
    {"<a><![CDATA[x", 1, 14, R"("]]>" at the end of the CDATA section)"},
    {"<a><![CDATA[x]]", 1, 16, R"("]]>" at the end of the CDATA section)"},
    {"<a><![CDATA[\n</a>", 2, 5, R"("]]>" at the end of the CDATA section)"},
    {"<a><![CDATA[]]>]]></a>", 1, 16, R"("]]&gt;" for "]]>" in text)"},
    {"<a><!-- x", 1, 10, R"("-->" at the end of the comment)"},
    {"<a><!-- -- --></a>", 1, 9, R"("-->" at the end of the comment)"},
    {"<!---><a/>", 1, 11, R"("-->" at the end of the comment)"},
    {"<!-- ---><a/>", 1, 6, R"("-->" at the end of the comment)"},
    {"<!-", 1, 2, "a name"},
    {"<?", 1, 3, "a name"},
    {"<?"
     "?><a/>",
     1, 3, "a name"},
    {"<? a?><a/>", 1, 3, "a name"},
    {"<?a", 1, 4, R"("?>" at the end of the processing instruction)"},
    {"<?a+?><a/>", 1, 4, R"("?>" at the end of the processing instruction)"},
    {"<?a b ?", 1, 8, R"("?>" at the end of the processing instruction)"},
};

constexpr Case characters[] = {
    {"<a>\xFF</a>", 1, 4, notUtf8},
    {"<a>\xC3</a>", 1, 4, notUtf8},
    {"<a>\xC0\xAF</a>", 1, 4, notUtf8},
    {"<a>\xED\xA0\x80</a>", 1, 4, notUtf8},
    {"<a>\xE2\x82", 1, 4, notUtf8},
    {"<a>\xC3\xA9\xFF</a>", 1, 6, notUtf8},
    {"<a b='\xFF'/>", 1, 7, notUtf8},
    {"<a\xFF/>", 1, 3, notUtf8},
    {"<\xFF/>", 1, 2, notUtf8},
    {"<a \xFF/>", 1, 4, notUtf8},
    {"<!-- \xFF --><a/>", 1, 6, notUtf8},
    {"<?a \xFF?><a/>", 1, 5, notUtf8},
    {"<a><![CDATA[\xFF]]></a>", 1, 13, notUtf8},
    {"<a></a\xFF>", 1, 7, notUtf8},
    {"\xFF\xFE<\0a\0/\0>\0"sv, 1, 1, notUtf8},
    {"\xFE\xFF\0<\0a\0/\0>"sv, 1, 1, notUtf8},
    {"<\0a\0/\0>\0"sv, 1, 2, notXml},
    {"<a>\0</a>"sv, 1, 4, notXml},
    {"<a>\x0B</a>", 1, 4, notXml},
    {"<a>\x1F</a>", 1, 4, notXml},
    {"<a>\xEF\xBF\xBE</a>", 1, 4, notXml},
    {"<a>\r\n\x08</a>", 2, 1, notXml},
    {"<?xml version='1.0' encoding='us-ascii'?><a>\xC3\xA9</a>", 1, 45, "a US-ASCII character"},
    {"<?xml version='1.0' encoding='US-ASCII'?>\n<\xC3\xA9/>", 2, 2, "a US-ASCII character"},
    {"<?xml version='1.0' encoding='us-ascii'?><a b='\xFF'/>", 1, 48, "a US-ASCII character"},
};

class Errors : public ::testing::TestWithParam<Case> {};

TEST_P(Errors, AreToldWithTheirPlace) {
  check(GetParam());
}

INSTANTIATE_TEST_SUITE_P(OutsideTheRoot, Errors, ::testing::ValuesIn(outside));
INSTANTIATE_TEST_SUITE_P(Declarations, Errors, ::testing::ValuesIn(declarations));
INSTANTIATE_TEST_SUITE_P(Doctypes, Errors, ::testing::ValuesIn(doctypes));
INSTANTIATE_TEST_SUITE_P(Tags, Errors, ::testing::ValuesIn(tags));
INSTANTIATE_TEST_SUITE_P(Attributes, Errors, ::testing::ValuesIn(attributes));
INSTANTIATE_TEST_SUITE_P(References, Errors, ::testing::ValuesIn(references));
INSTANTIATE_TEST_SUITE_P(Content, Errors, ::testing::ValuesIn(content));
INSTANTIATE_TEST_SUITE_P(Characters, Errors, ::testing::ValuesIn(characters));

// Lines are counted by line ends of all three kinds, columns in bytes.
TEST(Positions, CountLinesAndBytes) {
  check({"<a>\n\n\n<", 4, 2, "a name"});
  check({"<a>\r\r\r<", 4, 2, "a name"});
  check({"<a>\r\n\r\n\r\n<", 4, 2, "a name"});
  check({"<a>\n\r\r\n<", 4, 2, "a name"});
  check({"<a>\xE2\x82\xAC\xC3\xA9<", 1, 10, "a name"});
  check({"<a b='\n\t'\n<", 3, 1, attributeOrEnd});
  check({"<!--\n\n--> <!--\r--><", 4, 5, "a name"});
}

}  // namespace
