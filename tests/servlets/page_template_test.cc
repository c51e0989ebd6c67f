#include "servlets/page_template.h"

#include <gtest/gtest.h>
#include <string>

namespace {

std::string valueOf(Placeholder placeholder) {
  switch (placeholder) {
    case Placeholder::version:
      return "1.2";
    case Placeholder::host:
      return "10.0.0.1";
    case Placeholder::port:
      return "80";
    case Placeholder::user:
      return "ada";
    case Placeholder::varnox:
      return "/client";
  }
  return "none";
}

std::string fill(std::string_view text) {
  return fillTemplate(text, valueOf);
}

TEST(PageTemplateTest, TextWithoutPercentSignsStays) {
  using namespace std::string_literals;
  for (const std::string& text : {""s, "a"s, "<html>\n\r\t\0\xff</html>"s, std::string(100000, 'x')})
    EXPECT_EQ(fill(text), text);
}

TEST(PageTemplateTest, EveryPlaceholderIsReplaced) {
  EXPECT_EQ(fill("%version%"), "1.2");
  EXPECT_EQ(fill("%host%:%port%"), "10.0.0.1:80");
  EXPECT_EQ(fill("<%user%>"), "<ada>");
  EXPECT_EQ(fill("%varnox%"), "/client");
  EXPECT_EQ(fill("%user%%user%%version%"), "adaada1.2");
}

TEST(PageTemplateTest, TwoPercentSignsAreOne) {
  EXPECT_EQ(fill("100%%"), "100%");
  EXPECT_EQ(fill("%%"), "%");
  EXPECT_EQ(fill("%%%%"), "%%");
  EXPECT_EQ(fill("%%user%%"), "%user%");
  EXPECT_EQ(fill("%%%user%"), "%ada");
  EXPECT_EQ(fill("%user%%%"), "ada%");
}

TEST(PageTemplateTest, AnyOtherPercentSignIsDropped) {
  EXPECT_EQ(fill("50%x"), "50x");
  EXPECT_EQ(fill("%"), "");
  EXPECT_EQ(fill("a%"), "a");
  EXPECT_EQ(fill("%%%"), "%");
  EXPECT_EQ(fill("%user"), "user");
  EXPECT_EQ(fill("%User%"), "User");
  EXPECT_EQ(fill("% user%"), " user");
  EXPECT_EQ(fill("%users%"), "users");
  EXPECT_EQ(fill("%vers%version%"), "vers1.2");
}

// The percent sign that would end one placeholder may begin the next.
TEST(PageTemplateTest, AFailedPlaceholderEatsNothing) {
  EXPECT_EQ(fill("%x%host%"), "x10.0.0.1");
  EXPECT_EQ(fill("%hos%port%"), "hos80");
  EXPECT_EQ(fill("%us%%er%"), "us%er");
}

TEST(PageTemplateTest, WhatIsFilledInIsNotLookedAtAgain) {
  EXPECT_EQ(fillTemplate("%user%|", [](Placeholder) { return "%host%%%"; }), "%host%%%|");
}

TEST(PageTemplateTest, ValuesAreAskedForInOrderEachTime) {
  std::string asked;
  const auto value = [&asked](Placeholder placeholder) {
    asked += std::to_string(static_cast<int>(placeholder));
    return std::string();
  };
  EXPECT_EQ(fillTemplate("%user%a%port%b%user%c", value), "abc");
  EXPECT_EQ(asked, "323");
}

}  // namespace
