#include "services/hotspotd/pages.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using hotspot::ForwardedRequest;
using hotspot::Page;

constexpr std::string_view hostile = "<script>'&\"</script>";

ForwardedRequest requestFrom(std::uint32_t tag) {
  ForwardedRequest request;
  request.base = "/spot/";
  request.client = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 10, 0, 0, 7}, 40000};
  request.local = {{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, 80};
  request.tag = tag;
  return request;
}

bool holds(const Page& page, std::string_view text) {
  return page.body.find(text) != std::string::npos;
}

TEST(HotspotPagesTest, EscapesWhatHtmlTakesSpecially) {
  EXPECT_EQ(hotspot::escapeHtml(hostile), "&lt;script&gt;&#39;&amp;&quot;&lt;/script&gt;");
  EXPECT_EQ(hotspot::escapeHtml("plain \xc3\xa4"), "plain \xc3\xa4");
}

TEST(HotspotPagesTest, TheLoginPageShowsWhereTheClientIs) {
  ForwardedRequest request = requestFrom(12);
  Page page = hotspot::loginPage("Caf\xc3\xa9", request, "");
  EXPECT_EQ(page.status, 200U);
  EXPECT_TRUE(holds(page, "<title>Caf\xc3\xa9</title>"));
  EXPECT_TRUE(holds(page, "<form method=\"post\" action=\"/spot/login\">"));
  EXPECT_TRUE(holds(page, "<dd id=\"client\">10.0.0.7:40000</dd>"));
  EXPECT_TRUE(holds(page, "<dd id=\"local\">[fe80::1]:80</dd>"));
  EXPECT_TRUE(holds(page, "<dd id=\"tag\">12</dd>"));
  EXPECT_FALSE(holds(page, "id=\"original\""));
  EXPECT_FALSE(holds(page, "id=\"host\""));
  EXPECT_FALSE(holds(page, "role=\"alert\""));
  request.original = {{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff, 8, 8, 8, 8}, 443};
  request.host = "example.com";
  page = hotspot::loginPage("x", request, "No.");
  EXPECT_TRUE(holds(page, "<dd id=\"original\">8.8.8.8:443</dd>"));
  EXPECT_TRUE(holds(page, "<dd id=\"host\">example.com</dd>"));
  EXPECT_TRUE(holds(page, "role=\"alert\">No.</p>"));
}

TEST(HotspotPagesTest, TheWelcomePageTellsTheTimeLeft) {
  const ForwardedRequest request = requestFrom(0);
  EXPECT_TRUE(holds(hotspot::welcomePage("x", request, std::chrono::seconds(3600)), "another 60 minutes."));
  EXPECT_TRUE(holds(hotspot::welcomePage("x", request, std::chrono::seconds(61)), "another 2 minutes."));
  EXPECT_TRUE(holds(hotspot::welcomePage("x", request, std::chrono::seconds(1)), "another 1 minute."));
  EXPECT_TRUE(holds(hotspot::welcomePage("x", request, std::chrono::seconds(1)),
                    "<form method=\"post\" action=\"/spot/logout\">"));
}

TEST(HotspotPagesTest, NothingOfTheClientStandsUnescaped) {
  ForwardedRequest request = requestFrom(0);
  request.host = hostile;
  request.base = "/\"><script>/";
  for (const Page& page : {hotspot::loginPage(hostile, request, hostile),
                           hotspot::welcomePage(hostile, request, std::chrono::seconds(1))}) {
    EXPECT_FALSE(holds(page, "<script"));
    EXPECT_FALSE(holds(page, "/\">"));
  }
}

TEST(HotspotPagesTest, PagesAreHtmlThatLoadsNothing) {
  for (const Page& page : {hotspot::loginPage("x", requestFrom(0), ""),
                           hotspot::welcomePage("x", requestFrom(0), std::chrono::seconds(1))}) {
    const auto has = [&page](std::string_view start) {
      return std::ranges::any_of(page.headings, [start](const std::string& line) { return line.starts_with(start); });
    };
    EXPECT_TRUE(has("Content-Type: text/html; charset=utf-8"));
    EXPECT_TRUE(has("Content-Security-Policy: default-src 'none';"));
    EXPECT_TRUE(has("X-Content-Type-Options: nosniff"));
    EXPECT_LT(page.body.size(), 8192U);
  }
}

}  // namespace
