#include <array>
#include <cstring>
#include <ctime>

#include "platform/web/functions.h"

// Written by hand rather than with strftime: the names of days and months may not follow a locale, and a busy server
// needs several dates per response. Years of other than four digits, which no clock shows but a file may carry, are
// left to the library.

namespace {

constexpr std::int64_t secondsPerDay = 86400;
constexpr std::int64_t earliest = -30610224000;  // 1000-01-01 00:00:00
constexpr std::int64_t latest = 253402300799;    // 9999-12-31 23:59:59
constexpr std::size_t libraryRoom = 32;          // for a date that the library writes

constexpr std::string_view dayNames = "SunMonTueWedThuFriSat";
constexpr std::string_view monthNames = "JanFebMarAprMayJunJulAugSepOctNovDec";
constexpr std::string_view form = "Www, DD Mmm YYYY HH:MM:SS GMT";

// The calendar repeats every 400 years. Within such an era days are counted from the first of March, so that the leap
// day, where there is one, comes last and all days before it keep their number.
constexpr unsigned daysPerEra = 146097;
constexpr std::int64_t daysFromMarchOfYear0 = 719468;  // to 1970-01-01
constexpr unsigned earliestWeekday = 3;                // a Wednesday

struct Date {
  unsigned year;
  unsigned month;  // 0 is January
  unsigned day;    // from 1
};

Date dateOf(std::int64_t daysSinceEpoch) {
  // Whole eras are added so that nothing below is negative.
  const auto days = static_cast<unsigned>(daysSinceEpoch + daysFromMarchOfYear0 + daysPerEra);
  const unsigned era = days / daysPerEra;
  const unsigned dayOfEra = days % daysPerEra;
  const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / (daysPerEra - 1)) / 365;
  const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const unsigned monthFromMarch =
      (5 * dayOfYear + 2) / 153;  // five months from March on have 153 days, again and again
  const unsigned day = dayOfYear - (153 * monthFromMarch + 2) / 5 + 1;
  const unsigned month = (monthFromMarch + 2) % 12;
  return {era * 400 + yearOfEra + (month < 2 ? 1 : 0) - 400, month, day};
}

void putTwo(char* at, unsigned value) {
  at[0] = static_cast<char>('0' + value / 10);
  at[1] = static_cast<char>('0' + value % 10);
}

// "0" for a time that has no date, or one that does not fit.
void appendOddDate(std::string& out, std::int64_t seconds) {
  const auto time = static_cast<time_t>(seconds);
  struct tm parts {};
  std::array<char, libraryRoom> text{};
  std::size_t length = 0;
  if (gmtime_r(&time, &parts) != nullptr) {
    length = strftime(text.data(), text.size(), "%a, %d %b %Y %H:%M:%S GMT", &parts);
  }
  out.append(length != 0 ? std::string_view(text.data(), length) : "0");
}

}  // namespace

void appendHttpDate(std::string& out, std::int64_t seconds) {
  if (seconds < earliest || seconds > latest) {
    appendOddDate(out, seconds);
    return;
  }
  std::int64_t days = seconds / secondsPerDay;
  auto rest = static_cast<int>(seconds % secondsPerDay);
  if (rest < 0) {
    --days;
    rest += secondsPerDay;
  }
  const auto second = static_cast<unsigned>(rest);
  const Date date = dateOf(days);
  const auto weekday = static_cast<unsigned>(days - earliest / secondsPerDay + earliestWeekday) % 7;

  std::array<char, form.size()> text{};
  std::memcpy(text.data(), form.data(), form.size());
  std::memcpy(&text[0], &dayNames[std::size_t{3} * weekday], 3);
  putTwo(&text[5], date.day);
  std::memcpy(&text[8], &monthNames[std::size_t{3} * date.month], 3);
  putTwo(&text[12], date.year / 100);
  putTwo(&text[14], date.year % 100);
  putTwo(&text[17], second / 3600);
  putTwo(&text[20], second / 60 % 60);
  putTwo(&text[23], second % 60);
  out.append(text.data(), text.size());
}

std::string httpDate(std::int64_t seconds) {
  std::string out;
  appendHttpDate(out, seconds);
  return out;
}
