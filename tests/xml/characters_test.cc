#include "platform/xml/characters.h"

#include <gtest/gtest.h>

namespace {

using xml::appendUtf8;
using xml::decodeUtf8;

bool isScalar(char32_t code) {
  return code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

TEST(Utf8, EveryCharacterComesBackWithTheLengthItWasWrittenIn) {
  for (char32_t code = 0; code <= 0x10FFFF; ++code) {
    if (!isScalar(code)) continue;
    std::string text;
    appendUtf8(text, code);
    const unsigned length = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    ASSERT_EQ(text.size(), length);
    const xml::Character read = decodeUtf8(text);
    ASSERT_EQ(read.code, code);
    ASSERT_EQ(read.length, length);
  }
}

TEST(Utf8, ExactlyTheValidSequencesOfTwoAndThreeBytesAreRead) {
  std::size_t two = 0;
  std::size_t three = 0;
  for (unsigned first = 0x80; first <= 0xFF; ++first) {
    for (unsigned second = 0; second <= 0xFF; ++second) {
      const std::string pair = {static_cast<char>(first), static_cast<char>(second)};
      if (decodeUtf8(pair).length == 2) ++two;
      for (unsigned third = 0; third <= 0xFF; ++third) {
        if (decodeUtf8(pair + static_cast<char>(third)).length == 3) ++three;
      }
    }
  }
  EXPECT_EQ(two, 0x800U - 0x80U);
  EXPECT_EQ(three, 0x10000U - 0x800U - 0x800U);
}

TEST(Utf8, RefusesWhatIsCutOverlongOrBeyondTheLastCharacter) {
  const std::string_view refused[] = {
      "",                  // nothing
      "\x80",              // a continuation byte first
      "\xBF",              //
      "\xC3",              // cut
      "\xE2\x82",          //
      "\xF0\x9F\x98",      //
      "\xC3(",             // no continuation byte
      "\xE2(\xA1",         //
      "\xE2\x82(",         //
      "\xC0\xAF",          // overlong "/"
      "\xC1\xBF",          //
      "\xE0\x80\xAF",      //
      "\xF0\x80\x80\xAF",  //
      "\xF0\x8F\xBF\xBF",  //
      "\xED\xA0\x80",      // surrogates
      "\xED\xBF\xBF",      //
      "\xF4\x90\x80\x80",  // 0x110000
      "\xF7\xBF\xBF\xBF",  //
      "\xF8\x88\x80\x80",  // five and six bytes
      "\xFC\x84\x80\x80",  //
      "\xFE",              //
      "\xFF",
  };
  for (const std::string_view text : refused)
    EXPECT_EQ(decodeUtf8(text).length, 0U) << ::testing::PrintToString(text);
}

TEST(Utf8, ReadsOneCharacterAndLeavesTheRest) {
  EXPECT_EQ(decodeUtf8("ab").code, U'a');
  EXPECT_EQ(decodeUtf8("\xC3\xA9\xFF").code, U'\u00E9');
  EXPECT_EQ(decodeUtf8(std::string_view("\0", 1)).length, 1U);
}

struct Count {
  std::size_t characters = 0;
  std::size_t starts = 0;
  std::size_t names = 0;
};

Count countClasses() {
  Count count;
  for (char32_t code = 0; code <= 0x110000; ++code) {
    if (xml::isXmlCharacter(code)) ++count.characters;
    if (xml::isNameStart(code)) ++count.starts;
    if (xml::isNameCharacter(code)) ++count.names;
    EXPECT_TRUE(xml::isNameCharacter(code) || !xml::isNameStart(code));
  }
  return count;
}

// The sizes of the three classes, added up from the productions of the recommendation.
TEST(XmlClasses, HaveTheSizesOfTheRecommendation) {
  const Count count = countClasses();
  EXPECT_EQ(count.characters, 3U + (0xD800 - 0x20) + (0xFFFE - 0xE000) + 0x100000);
  constexpr std::size_t starts = 1 + 26 + 1 + 26 + (0xD7 - 0xC0) + (0xF7 - 0xD8) + (0x300 - 0xF8) + (0x37E - 0x370) +
                                 (0x2000 - 0x37F) + 2 + (0x2190 - 0x2070) + (0x2FF0 - 0x2C00) + (0xD800 - 0x3001) +
                                 (0xFDD0 - 0xF900) + (0xFFFE - 0xFDF0) + (0xF0000 - 0x10000);
  EXPECT_EQ(count.starts, starts);
  EXPECT_EQ(count.names, starts + 2 + 10 + 1 + (0x370 - 0x300) + 2);
}

TEST(XmlClasses, KnowTheirEdges) {
  for (const char32_t code :
       {U'\t', U'\n', U'\r', U' ', U'\uD7FF', U'\uE000', U'\uFFFD', U'\U00010000', U'\U0010FFFF'}) {
    EXPECT_TRUE(xml::isXmlCharacter(code)) << static_cast<std::uint32_t>(code);
  }
  for (const std::uint32_t code : {0x0U, 0x8U, 0xBU, 0x1FU, 0xD800U, 0xDFFFU, 0xFFFEU, 0xFFFFU, 0x110000U}) {
    EXPECT_FALSE(xml::isXmlCharacter(static_cast<char32_t>(code))) << code;
  }
  for (const char32_t code : {U':', U'_', U'A', U'z', U'\u00E9', U'\u4E2D'})
    EXPECT_TRUE(xml::isNameStart(code));
  for (const char32_t code : {U'-', U'.', U'0', U'9', U'\u00B7', U'\u0301'}) {
    EXPECT_FALSE(xml::isNameStart(code));
    EXPECT_TRUE(xml::isNameCharacter(code));
  }
  for (const char32_t code : {U' ', U'/', U'<', U'@', U'`', U'{', U'\u00D7', U'\u037E'}) {
    EXPECT_FALSE(xml::isNameCharacter(code));
  }
}

}  // namespace
