#include "platform/web/headers.h"

#include <algorithm>
#include <cctype>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::Pair;
using Fields = std::vector<std::pair<std::string, std::string>>;

Fields fieldsOf(const Headers& headers) {
  Fields fields;
  headers.forEach([&fields](std::string_view name, std::string_view value) { fields.emplace_back(name, value); });
  return fields;
}

std::string printed(const Headers& headers) {
  std::string out;
  headers.printHeaders(out);
  return out;
}

TEST(Headers, EmptyAtFirst) {
  const Headers headers;
  EXPECT_EQ(headers.size(), 0U);
  EXPECT_FALSE(headers.hasHeader("host"));
  EXPECT_FALSE(headers.getHeader("host").has_value());
  EXPECT_EQ(printed(headers), "");
}

TEST(Headers, NamesAreFoundInAnyCase) {
  Headers headers;
  headers.addHeader("Content-Type", "text/html", false);
  for (const char* name : {"content-type", "CONTENT-TYPE", "Content-Type", "cOnTeNt-tYpE"}) {
    EXPECT_TRUE(headers.hasHeader(name));
    EXPECT_EQ(headers.getHeader(name), "text/html");
  }
  for (const char* name : {"", "content-typ", "content-type2", "content_type", "content-type "}) {
    EXPECT_FALSE(headers.hasHeader(name)) << name;
  }
}

// The letters' case bit must not make other characters equal.
TEST(Headers, OnlyLettersHaveCase) {
  Headers headers;
  headers.addHeader("a^b", "1", false);
  EXPECT_FALSE(headers.hasHeader("a~b"));
  headers.addHeader("x-`", "1", false);
  EXPECT_FALSE(headers.hasHeader("X-@"));
}

TEST(Headers, PrintsInOrderAsWritten) {
  Headers headers;
  headers.addHeader("Content-Length", std::uint64_t{5}, false);
  headers.addHeader("DATE", "now", false);
  headers.addHeader("X-Empty", "", false);
  std::string out = "before|";
  headers.printHeaders(out);
  EXPECT_EQ(out, "before|Content-Length: 5\r\nDATE: now\r\nX-Empty: \r\n");
}

TEST(Headers, ReplacingMovesToTheEnd) {
  Headers headers;
  headers.addHeader("A", "1", false);
  headers.addHeader("B", "2", false);
  headers.addHeader("a", "3", false);
  EXPECT_THAT(fieldsOf(headers), ElementsAre(Pair("B", "2"), Pair("a", "3")));
}

TEST(Headers, ReplacingTakesEveryLineOfThatName) {
  Headers headers;
  headers.addHeader("Set-Cookie", "a=1", true);
  headers.addHeader("X", "y", false);
  headers.addHeader("Set-Cookie", "b=2", true);
  headers.addHeader("Set-Cookie", "c=3", true);
  EXPECT_EQ(printed(headers), "Set-Cookie: a=1\r\nX: y\r\nSet-Cookie: b=2\r\nSet-Cookie: c=3\r\n");
  EXPECT_EQ(headers.getHeader("set-cookie"), "a=1");
  headers.addHeader("set-cookie", "d=4", false);
  EXPECT_THAT(fieldsOf(headers), ElementsAre(Pair("X", "y"), Pair("set-cookie", "d=4")));
}

TEST(Headers, RemovesAllOfAName) {
  Headers headers;
  headers.addHeader("A", "1", true);
  headers.addHeader("B", "2", true);
  headers.addHeader("a", "3", true);
  headers.removeHeader("A");
  EXPECT_THAT(fieldsOf(headers), ElementsAre(Pair("B", "2")));
  headers.removeHeader("none");
  headers.removeHeader("b");
  EXPECT_EQ(headers.size(), 0U);
  EXPECT_EQ(printed(headers), "");
}

TEST(Headers, Numbers) {
  Headers headers;
  headers.addHeader("Small", std::uint64_t{0}, false);
  headers.addHeader("Large", UINT64_MAX, false);
  EXPECT_EQ(printed(headers), "Small: 0\r\nLarge: 18446744073709551615\r\n");
  std::uint32_t value = 7;
  EXPECT_TRUE(headers.getHeader("small", &value));
  EXPECT_EQ(value, 0U);
  value = 7;
  EXPECT_FALSE(headers.getHeader("large", &value));
  EXPECT_FALSE(headers.getHeader("none", &value));
  headers.addHeader("Text", "12a", false);
  EXPECT_FALSE(headers.getHeader("text", &value));
  EXPECT_EQ(value, 7U);
}

// An empty view may be one of no memory at all, which must not be copied from.
TEST(Headers, ValuesOfNoMemory) {
  Headers headers;
  headers.addHeader("Empty", std::string_view(), false);
  headers.addHeader("After", "1", false);
  EXPECT_EQ(printed(headers), "Empty: \r\nAfter: 1\r\n");
}

TEST(Headers, TextOfAField) {
  Headers headers;
  headers.addHeader("Name", "value", false);
  std::string value = "old";
  EXPECT_FALSE(headers.getHeader("other", &value));
  EXPECT_EQ(value, "old");
  EXPECT_TRUE(headers.getHeader("name", &value));
  EXPECT_EQ(value, "value");
}

TEST(Headers, Tokens) {
  Headers headers;
  headers.addHeader("Connection", "Keep-Alive,Upgrade \t,, close-not", true);
  headers.addHeader("X", "close", true);
  headers.addHeader("connection", " TE", true);
  EXPECT_TRUE(headers.headerHasToken("connection", "keep-alive"));
  EXPECT_TRUE(headers.headerHasToken("Connection", "UPGRADE"));
  EXPECT_TRUE(headers.headerHasToken("connection", "close-not"));
  EXPECT_TRUE(headers.headerHasToken("connection", "te"));
  EXPECT_FALSE(headers.headerHasToken("connection", "close"));
  EXPECT_FALSE(headers.headerHasToken("connection", "keep"));
  EXPECT_FALSE(headers.headerHasToken("connection", "alive"));
  EXPECT_FALSE(headers.headerHasToken("none", "close"));
}

TEST(Headers, TokensOfOddLists) {
  for (const char* value : {"", ",", " , ", "a b", "close;x", "\"close\"", "closed", "xclose"}) {
    Headers headers;
    headers.addHeader("connection", value, false);
    EXPECT_FALSE(headers.headerHasToken("connection", "close")) << value;
  }
  for (const char* value : {"close", "close,", ",close", "a,close", "a , close , b", "CLOSE"}) {
    Headers headers;
    headers.addHeader("connection", value, false);
    EXPECT_TRUE(headers.headerHasToken("connection", "close")) << value;
  }
}

// What a kept-alive connection relies on: after the first request of a kind, the next finds its room where it was.
TEST(Headers, ClearKeepsTheRoomOfOrdinaryRequests) {
  Headers headers;
  const auto fill = [&headers] {
    headers.addHeader("Host", "router.local", false);
    headers.addHeader("Accept", std::string(200, 'a'), false);
  };
  fill();
  const char* const room = headers.getHeader("host")->data();
  headers.clear();
  EXPECT_EQ(headers.size(), 0U);
  EXPECT_FALSE(headers.hasHeader("host"));
  fill();
  EXPECT_EQ(headers.getHeader("host")->data(), room);
}

TEST(Headers, UsableAfterAnOversizedOneWasCleared) {
  Headers headers;
  for (int i = 0; i < 500; ++i)
    headers.addHeader("X-" + std::to_string(i), std::string(100, 'x'), true);
  headers.clear();
  EXPECT_EQ(headers.size(), 0U);
  headers.addHeader("A", "1", false);
  EXPECT_EQ(printed(headers), "A: 1\r\n");
}

// Random operations against the plainest model of the same thing.
TEST(Headers, AgreesWithAModel) {
  const auto same = [](const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
  };
  std::mt19937 random(2);
  const std::vector<std::string> names{"a", "A", "bb", "Bb", "c-c", "C-C", "a-long-name-of-a-field"};
  for (int round = 0; round < 300; ++round) {
    Headers headers;
    Fields model;
    for (int step = 0; step < 60; ++step) {
      const std::string& name = names[random() % names.size()];
      const std::string value(random() % 40, static_cast<char>('a' + random() % 26));
      const auto action = random() % 8;
      const auto matches = [&](const auto& field) { return same(field.first, name); };
      if (action == 0) {
        headers.removeHeader(name);
        std::erase_if(model, matches);
      } else if (action == 1) {
        headers.addHeader(name, value, true);
        model.emplace_back(name, value);
      } else if (action < 5) {
        headers.addHeader(name, value, false);
        std::erase_if(model, matches);
        model.emplace_back(name, value);
      } else {
        ASSERT_TRUE(headers.parseHeaderLine(name + ":\t" + value + " "));
        const auto earlier = std::find_if(model.begin(), model.end(), matches);
        if (earlier == model.end()) {
          model.emplace_back(name, value);
        } else if (!value.empty()) {
          earlier->second.append(earlier->second.empty() ? "" : ", ").append(value);
        }
      }
      ASSERT_EQ(fieldsOf(headers), model);
      const auto first = std::find_if(model.begin(), model.end(), matches);
      ASSERT_EQ(headers.hasHeader(name), first != model.end());
      if (first != model.end()) {
        ASSERT_EQ(headers.getHeader(name), first->second);
      }
    }
    std::string expected;
    for (const auto& [name, value] : model)
      expected.append(name).append(": ").append(value).append("\r\n");
    EXPECT_EQ(printed(headers), expected);
  }
}

}  // namespace
