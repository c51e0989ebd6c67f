#include <gtest/gtest.h>
#include <random>
#include <string>
#include <time.h>

#include "platform/web/functions.h"

namespace {

TEST(HttpDate, KnownDates) {
  EXPECT_EQ(httpDate(0), "Thu, 01 Jan 1970 00:00:00 GMT");
  EXPECT_EQ(httpDate(784111777), "Sun, 06 Nov 1994 08:49:37 GMT");  // the example of RFC 9110
  EXPECT_EQ(httpDate(951782400), "Tue, 29 Feb 2000 00:00:00 GMT");
  EXPECT_EQ(httpDate(4107542400), "Mon, 01 Mar 2100 00:00:00 GMT");  // 2100 has no leap day
  EXPECT_EQ(httpDate(4107542399), "Sun, 28 Feb 2100 23:59:59 GMT");
  EXPECT_EQ(httpDate(2147483648), "Tue, 19 Jan 2038 03:14:08 GMT");
  EXPECT_EQ(httpDate(-1), "Wed, 31 Dec 1969 23:59:59 GMT");
  EXPECT_EQ(httpDate(253402300799), "Fri, 31 Dec 9999 23:59:59 GMT");
  EXPECT_EQ(httpDate(-62167219200), "Sat, 01 Jan 0000 00:00:00 GMT");
}

TEST(HttpDate, YearsOfOtherThanFourDigits) {
  for (const std::int64_t seconds : {INT64_MIN, std::int64_t{-62167219201}, std::int64_t{253402300800}, INT64_MAX}) {
    EXPECT_EQ(httpDate(seconds), "0");
  }
}

TEST(HttpDate, Appends) {
  std::string out = "Date: ";
  appendHttpDate(out, 0);
  EXPECT_EQ(out, "Date: Thu, 01 Jan 1970 00:00:00 GMT");
}

std::string libraryDate(std::int64_t seconds) {
  const time_t time = static_cast<time_t>(seconds);
  struct tm parts {};
  EXPECT_NE(gmtime_r(&time, &parts), nullptr);
  char text[32];
  EXPECT_NE(strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", &parts), 0U);
  return text;
}

// Years below 1000 are left out: the library does not write them with four digits.
constexpr std::int64_t year1000 = -30610224000;
constexpr std::int64_t lastSecond = 253402300799;

TEST(HttpDate, EveryDayOfFourCenturies) {
  for (std::int64_t day = -10957; day < 146097; ++day)
    ASSERT_EQ(httpDate(day * 86400), libraryDate(day * 86400));
}

TEST(HttpDate, AgreesWithTheLibrary) {
  std::mt19937_64 random(5);
  std::uniform_int_distribution<std::int64_t> any(year1000, lastSecond);
  for (int round = 0; round < 50000; ++round) {
    const std::int64_t seconds = any(random);
    ASSERT_EQ(httpDate(seconds), libraryDate(seconds)) << seconds;
  }
}

}  // namespace
