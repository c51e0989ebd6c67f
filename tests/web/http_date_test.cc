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
  EXPECT_EQ(httpDate(-30610224000), "Wed, 01 Jan 1000 00:00:00 GMT");
}

TEST(HttpDate, YearsOfOtherThanFourDigits) {
  EXPECT_EQ(httpDate(-30610224001), "Tue, 31 Dec 999 23:59:59 GMT");
  EXPECT_EQ(httpDate(-62167219200), "Sat, 01 Jan 0 00:00:00 GMT");
  EXPECT_EQ(httpDate(-62167219201), "Fri, 31 Dec -1 23:59:59 GMT");
  EXPECT_EQ(httpDate(253402300800), "Sat, 01 Jan 10000 00:00:00 GMT");
}

TEST(HttpDate, YearsThatTheLibraryCannotWrite) {
  for (const std::int64_t seconds : {INT64_MIN, std::int64_t{67768036191676800}, INT64_MAX}) {
    EXPECT_EQ(httpDate(seconds), "0");
  }
}

// Seven digits of a year are one more than the room for a date.
TEST(HttpDate, TextsThatAreTooLong) {
  EXPECT_EQ(httpDate(31494784780799), "Fri, 31 Dec 999999 23:59:59 GMT");
  EXPECT_EQ(httpDate(31494784780800), "0");
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

TEST(HttpDate, EveryDayOfFourCenturies) {
  for (std::int64_t day = -10957; day < 146097; ++day)
    ASSERT_EQ(httpDate(day * 86400), libraryDate(day * 86400));
}

void agreeBetween(std::int64_t first, std::int64_t last) {
  std::mt19937_64 random(5);
  std::uniform_int_distribution<std::int64_t> any(first, last);
  for (int round = 0; round < 50000; ++round) {
    const std::int64_t seconds = any(random);
    ASSERT_EQ(httpDate(seconds), libraryDate(seconds)) << seconds;
  }
}

TEST(HttpDate, AgreesWithTheLibrary) {
  agreeBetween(-30610224000, 253402300799);      // years of four digits
  agreeBetween(-65000000000, -30000000000);      // around the year 0
  agreeBetween(-3000000000000, 31494784780799);  // all that can be written
}

}  // namespace
