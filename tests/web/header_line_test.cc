#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

#include "platform/web/headers.h"

namespace {

constexpr std::string_view tokenChars = "!#$%&'*+-.^_`|~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";

bool takes(std::string_view line) {
  Headers headers;
  return headers.parseHeaderLine(line);
}

TEST(HeaderLine, TakesTheValueWithoutTheBlanksAroundIt) {
  for (const char* line : {"Name:value", "Name: value", "Name:\tvalue", "Name:  value \t ", "Name: \t value"}) {
    Headers headers;
    ASSERT_TRUE(headers.parseHeaderLine(line)) << line;
    EXPECT_EQ(headers.getHeader("name"), "value");
  }
}

TEST(HeaderLine, ValueMayBeEmptyAndMayHoldColonsAndBlanks) {
  Headers headers;
  EXPECT_TRUE(headers.parseHeaderLine("A:"));
  EXPECT_TRUE(headers.parseHeaderLine("B: \t "));
  EXPECT_TRUE(headers.parseHeaderLine("C: x:y: z\tw"));
  EXPECT_EQ(headers.getHeader("a"), "");
  EXPECT_EQ(headers.getHeader("b"), "");
  EXPECT_EQ(headers.getHeader("c"), "x:y: z\tw");
}

TEST(HeaderLine, RefusesWhatIsNoField) {
  for (const char* line : {"", ":", ": value", "name", "name value", " ", "\t", " Name: value", "\tName: value",
                           "Name : value", "Name\t: value", "Na me: value", "Na\tme: value", "N\xc3\xa4me: value",
                           "Na(me: value", "\"Name\": value", "Name=: value", "Name/x: value", "[Name]: value"}) {
    EXPECT_FALSE(takes(line)) << line;
  }
}

// Every byte at every place of a line. In the name: the characters of a token; in the value: all but control
// characters, of which the tab is allowed.
TEST(HeaderLine, EveryByteAtEveryPlace) {
  const std::string line = "Xname: value";
  const std::size_t colon = line.find(':');
  for (std::size_t place = 0; place <= line.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      const char c = static_cast<char>(byte);
      std::string changed = line;
      changed.insert(place, 1, c);
      const bool control = byte < 0x20 || byte == 0x7f;
      bool expected = false;
      if (place > colon) {
        expected = !control || c == '\t';
      } else if (c == ':') {
        expected = place > 0;
      } else {
        expected = tokenChars.find(c) != std::string_view::npos;
      }
      EXPECT_EQ(takes(changed), expected) << "byte " << byte << " at " << place;
    }
  }
}

// Long values are looked at by several bytes at a time.
TEST(HeaderLine, EveryByteAtEveryPlaceOfALongValue) {
  const std::string value = "a value of some length; with \xc3\xa4 in it";
  for (std::size_t place = 0; place < value.size(); ++place) {
    for (int byte = 0; byte < 256; ++byte) {
      std::string changed = value;
      changed[place] = static_cast<char>(byte);
      const bool control = byte < 0x20 || byte == 0x7f;
      EXPECT_EQ(takes("Name: " + changed), !control || byte == '\t') << "byte " << byte << " at " << place;
    }
  }
}

TEST(HeaderLine, IsKeptWithOneSpaceHoweverItWasWritten) {
  for (const char* name : {"Host", "Accept"}) {
    for (const char* blanks : {"", " ", "\t", "  ", " \t"}) {
      for (const char* behind : {"", " ", "\t", "  "}) {
        for (const char* value : {"", "a", "a.b"}) {
          const std::string line = std::string(name) + ":" + blanks + value + behind;
          for (int time = 0; time < 2; ++time) {
            Headers headers;
            ASSERT_TRUE(headers.parseHeaderLine(line)) << line;
            EXPECT_EQ(headers.text(), std::string(name) + ": " + value + "\r\n") << line;
          }
        }
      }
    }
  }
}

TEST(HeaderLine, NulAndLineEndsAreRefusedEverywhere) {
  using namespace std::string_view_literals;
  for (const std::string_view line : {"A: b\0"sv, "A: b\0c"sv, "A\0: b"sv, "\0A: b"sv, "A: b\r"sv, "A: b\rX: c"sv,
                                      "A: b\nX: c"sv, "A:\r b"sv, "A: b\r\nX: c"sv, "A: \x7f"sv, "A: \x1b[0m"sv}) {
    EXPECT_FALSE(takes(line));
  }
}

TEST(HeaderLine, ARefusedLineChangesNothing) {
  Headers headers;
  ASSERT_TRUE(headers.parseHeaderLine("Host: a"));
  ASSERT_TRUE(headers.parseHeaderLine("Content-Length: 4"));
  EXPECT_FALSE(headers.parseHeaderLine("Host: b"));
  EXPECT_FALSE(headers.parseHeaderLine("Content-Length: 5"));
  EXPECT_FALSE(headers.parseHeaderLine("Transfer-Encoding: chunked"));
  EXPECT_FALSE(headers.parseHeaderLine("bad line"));
  std::string out;
  headers.printHeaders(out);
  EXPECT_EQ(out, "Host: a\r\nContent-Length: 4\r\n");
}

TEST(HeaderLine, FieldsOfOneNameAreJoined) {
  Headers headers;
  ASSERT_TRUE(headers.parseHeaderLine("Accept: a"));
  ASSERT_TRUE(headers.parseHeaderLine("X: y"));
  ASSERT_TRUE(headers.parseHeaderLine("accept: b;q=1"));
  ASSERT_TRUE(headers.parseHeaderLine("Z: z"));
  EXPECT_EQ(headers.getHeader("accept"), "a, b;q=1");
  EXPECT_EQ(headers.getHeader("x"), "y");
  EXPECT_EQ(headers.getHeader("z"), "z");
  EXPECT_EQ(headers.size(), 3U);
}

TEST(HeaderLine, EmptyValuesAddNothing) {
  Headers headers;
  ASSERT_TRUE(headers.parseHeaderLine("A:"));
  ASSERT_TRUE(headers.parseHeaderLine("Z: z"));
  ASSERT_TRUE(headers.parseHeaderLine("a: "));
  EXPECT_EQ(headers.getHeader("a"), "");
  ASSERT_TRUE(headers.parseHeaderLine("a: x"));
  ASSERT_TRUE(headers.parseHeaderLine("a:"));
  ASSERT_TRUE(headers.parseHeaderLine("a: y"));
  EXPECT_EQ(headers.getHeader("a"), "x, y");
  EXPECT_EQ(headers.getHeader("z"), "z");
}

TEST(HeaderLine, JoiningEndsWhereTheSearchDoes) {
  Headers headers;
  for (std::size_t i = 0; i < Headers::searchedFields; ++i) {
    ASSERT_TRUE(headers.parseHeaderLine("X-" + std::to_string(i) + ": a"));
  }
  ASSERT_TRUE(headers.parseHeaderLine("Late: a"));
  ASSERT_TRUE(headers.parseHeaderLine("Late: b"));
  ASSERT_TRUE(headers.parseHeaderLine("X-127: b"));
  EXPECT_EQ(headers.size(), Headers::searchedFields + 2);
  EXPECT_EQ(headers.getHeader("x-127"), "a, b");
  EXPECT_EQ(headers.getHeader("late"), "a");
  EXPECT_TRUE(headers.headerHasToken("late", "b"));
}

// What guards the framing looks at every field, however many came before.
TEST(HeaderLine, ManyFieldsHideNothing) {
  Headers headers;
  for (int i = 0; i < 1000; ++i)
    ASSERT_TRUE(headers.parseHeaderLine("X-" + std::to_string(i) + ": a"));
  ASSERT_TRUE(headers.parseHeaderLine("Host: a"));
  ASSERT_TRUE(headers.parseHeaderLine("Content-Length: 4"));
  EXPECT_FALSE(headers.parseHeaderLine("Host: a"));
  EXPECT_FALSE(headers.parseHeaderLine("Content-Length: 5"));
  EXPECT_TRUE(headers.parseHeaderLine("Content-Length: 4"));
  EXPECT_FALSE(headers.parseHeaderLine("Transfer-Encoding: identity"));
}

TEST(HeaderLine, LengthsOfBodies) {
  for (const char* value : {"0", "1", "65536", "4294967294", "0005", " 5 "}) {
    EXPECT_TRUE(takes(std::string("Content-Length:") + value)) << value;
  }
  for (const char* value : {"", " ", "-1", "+1", "1.0", "0x10", "1e3", "1 2", "5, 5", "5,6", "5;", "a", "4294967295",
                            "4294967296", "18446744073709551616", "99999999999999999999999999", "1_0", "\xd9\xa1"}) {
    EXPECT_FALSE(takes(std::string("content-length: ") + value)) << value;
  }
}

TEST(HeaderLine, ALengthSaidTwiceIsHeldOnce) {
  Headers headers;
  ASSERT_TRUE(headers.parseHeaderLine("Content-Length: 5"));
  ASSERT_TRUE(headers.parseHeaderLine("content-length: 05"));
  EXPECT_EQ(headers.size(), 1U);
  std::uint32_t length = 0;
  ASSERT_TRUE(headers.getHeader("content-length", &length));
  EXPECT_EQ(length, 5U);
  EXPECT_FALSE(headers.parseHeaderLine("CONTENT-LENGTH: 50"));
}

TEST(HeaderLine, NoTransferCoding) {
  for (const char* line : {"Transfer-Encoding: chunked", "transfer-encoding:", "TRANSFER-ENCODING: identity",
                           "Transfer-encoding: gzip, chunked", "Transfer-Encoding: xchunked"}) {
    EXPECT_FALSE(takes(line)) << line;
  }
  EXPECT_TRUE(takes("TE: trailers"));
  EXPECT_TRUE(takes("X-Transfer-Encoding: chunked"));
}

TEST(HeaderLine, Hosts) {
  for (const char* value : {"", "router", "router.local", "10.0.0.1:8080", "[::1]", "[fe80::1%25eth0]:80", "a_b",
                            "xn--bcher-kva.example", "h:", "%41.b"}) {
    EXPECT_TRUE(takes(std::string("Host: ") + value)) << value;
  }
  for (const char* value :
       {"a b", "a,b c", "a/b",  "user@a", "a:80:90", "a:x",     "[::1", "::1",      "[]",    "[::1]x",
        "a?b", "a#b",   "a\\b", "<a>",    "\"a\"",   "a:80 ,b", ":80",  "\xc3\xbc", "[a/b]", "http://a/"}) {
    EXPECT_FALSE(takes(std::string("Host: ") + value)) << value;
  }
}

// The host taken last need not be looked at again: nothing else passes as it.
TEST(HeaderLine, AHostLikeTheOneBefore) {
  ASSERT_TRUE(takes("Host: router.local:80"));
  for (const char* value : {"router.local:80", "router.local:8", "router.local", "ROUTER.local:80"})
    EXPECT_TRUE(takes(std::string("Host: ") + value)) << value;
  ASSERT_TRUE(takes("Host: router.local:80"));
  for (const char* value :
       {"router.local:80\x01", "router.local:80 x", "router.local:80x", "router.local:80/", "router\x7f.local:80"})
    EXPECT_FALSE(takes(std::string("Host: ") + value)) << value;
  for (const char* line : {"Host : router.local:80", "Hos: router.local:80", "Host; router.local:80", ""}) {
    Headers headers;
    EXPECT_TRUE(!headers.parseHeaderLine(line) || !headers.hasHeader("host")) << line;
  }
  Headers lower;
  ASSERT_TRUE(lower.parseHeaderLine("host: router.local:80"));
  EXPECT_EQ(lower.text(), "host: router.local:80\r\n");
  ASSERT_TRUE(takes("Host: " + std::string(1000, 'a')));
  EXPECT_FALSE(takes("Host: " + std::string(1000, 'a') + "\x01"));
}

TEST(HeaderLine, OneHost) {
  Headers headers;
  ASSERT_TRUE(headers.parseHeaderLine("Host: a"));
  EXPECT_FALSE(headers.parseHeaderLine("Host: a"));
  EXPECT_FALSE(headers.parseHeaderLine("hOST:"));
  Headers empty;
  ASSERT_TRUE(empty.parseHeaderLine("Host:"));
  EXPECT_FALSE(empty.parseHeaderLine("Host: a"));
}

// The largest block that the engine lets through, in the smallest fields: nothing is lost.
TEST(HeaderLine, ThousandsOfTinyFields) {
  constexpr std::string_view digits = "0123456789abcdefghijklmnopqrstuvwxyz!#$%&'*+-.^_`|~";
  Headers headers;
  std::size_t count = 0;
  for (const char a : digits) {
    for (const char b : digits) {
      ASSERT_TRUE(headers.parseHeaderLine(std::string{a, b, ':'}));
      ++count;
    }
  }
  EXPECT_EQ(headers.size(), count);
  for (int i = 0; i < 4000; ++i)
    ASSERT_TRUE(headers.parseHeaderLine(i % 2 == 0 ? "00:x" : "01:y"));
  EXPECT_EQ(headers.size(), count);
  EXPECT_EQ(headers.getHeader("00")->size(), 2000U * 3 - 2);
  EXPECT_EQ(headers.getHeader("01")->size(), 2000U * 3 - 2);
  EXPECT_EQ(headers.getHeader("zz"), "");
}

}  // namespace
