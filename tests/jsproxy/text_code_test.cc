#include "jsproxy/text_code.h"

#include <gtest/gtest.h>

#include "tests/crypto/hex.h"

namespace {

std::string encode(std::string_view hex) {
  return bytesToText(fromHex(hex));
}

// The bytes in hexadecimal, or "none".
std::string decode(std::string_view hex) {
  const auto text = fromHex(hex);
  std::string bytes = "what was there before";
  if (textToBytes(std::string_view(reinterpret_cast<const char*>(text.data()), text.size()), bytes)) {
    return toHex(asBytes(bytes));
  }
  EXPECT_EQ(bytes, "");
  return "none";
}

TEST(TextCode, BytesBecomeCharacters) {
  EXPECT_EQ(toHex(asBytes(encode("007f80ff"))), "c4807fc280c3bf");
  EXPECT_EQ(toHex(asBytes(encode("0102030d0a41"))), "0102030d0a41");
  EXPECT_EQ(toHex(asBytes(encode("bfc0"))), "c2bfc380");
  EXPECT_EQ(encode(""), "");
}

TEST(TextCode, CharactersBecomeTheirLowBytes) {
  EXPECT_EQ(decode("c4807fc280c3bf"), "007f80ff");
  EXPECT_EQ(decode(""), "");
  EXPECT_EQ(decode("00"), "00");
  EXPECT_EQ(decode("c7bf"), "ff");
  EXPECT_EQ(decode("c580"), "40");
  // Forms that are longer than need be.
  EXPECT_EQ(decode("c080"), "00");
  EXPECT_EQ(decode("c1bf"), "7f");
}

TEST(TextCode, EveryByteComesBack) {
  std::string all;
  for (unsigned b = 0; b < 256; ++b)
    all += static_cast<char>(b);
  const std::string text = bytesToText(asBytes(all));
  EXPECT_EQ(text.find('\0'), std::string::npos);
  std::string back;
  EXPECT_TRUE(textToBytes(text, back));
  EXPECT_EQ(back, all);
}

// Each of the four ways at the front, in the middle and at the end.
TEST(TextCode, WhatIsNoTextBecomesNothing) {
  for (const std::string_view bad :
       {"c880", "df80", "e08080", "f0808080", "80", "bf", "ff", "c2", "c241", "c2c2", "c2ff"}) {
    const std::string middle = "41" + std::string(bad) + "41";
    EXPECT_EQ(decode(bad), "none") << bad;
    EXPECT_EQ(decode(middle), "none") << middle;
    EXPECT_EQ(decode("4141" + std::string(bad)), "none") << bad;
  }
}

TEST(UrlDecode, PercentAndTwoCharactersAreAByte) {
  EXPECT_EQ(urlDecode(""), "");
  EXPECT_EQ(urlDecode("plain+text"), "plain+text");
  EXPECT_EQ(urlDecode("%41%6a%6A"), "Ajj");
  EXPECT_EQ(urlDecode("a%20b"), "a b");
  EXPECT_EQ(urlDecode("%c4%80"), "\xc4\x80");
  EXPECT_EQ(urlDecode("%00x"), std::string("\0x", 2));
  EXPECT_EQ(urlDecode("%2541"), "%41");
}

TEST(UrlDecode, WhatIsNoDigitCountsAsZero) {
  EXPECT_EQ(urlDecode("%4g"), "@");
  EXPECT_EQ(urlDecode("%g1"), "\x01");
  EXPECT_EQ(urlDecode("%%41"),
            "\x04"
            "1");
}

TEST(UrlDecode, APercentAtTheEndSpoilsAll) {
  EXPECT_EQ(urlDecode("%"), "");
  EXPECT_EQ(urlDecode("abc%4"), "");
  EXPECT_EQ(urlDecode("abc%"), "");
  EXPECT_EQ(urlDecode("abc%41"), "abcA");
}

}  // namespace
