#include "pelmora/common/date.h"

#include <cmath>
#include <ctime>

#include <fmt/format.h>

namespace pelmora {
namespace {

constexpr int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 back to 1899-12-30.
constexpr int64_t kSerialEpochDays = -25569;

// Days since 1970-01-01 of a proleptic Gregorian date (H. Hinnant's algorithm).
int64_t DaysFromCivil(int64_t y, int m, int d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t yoe = y - era * 400;
  const int64_t doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t z, int& y, int& m, int& d) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const int64_t doe = z - era * 146097;
  const int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const int64_t mp = (5 * doy + 2) / 153;
  d = static_cast<int>(doy - (153 * mp + 2) / 5 + 1);
  m = static_cast<int>(mp < 10 ? mp + 3 : mp - 9);
  y = static_cast<int>(yoe + era * 400 + (m <= 2));
}

int DaysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}

// Serial of a day count since 1899-12-30 and a time of day in seconds.
double SerialFrom(int64_t days, int64_t seconds_of_day) {
  double fraction = static_cast<double>(seconds_of_day) / kSecondsPerDay;
  return days < 0 ? static_cast<double>(days) - fraction : static_cast<double>(days) + fraction;
}

// Splits a serial into a day count since 1899-12-30 and the second of the day.
void SplitSerial(double serial, int64_t& days, int64_t& seconds_of_day) {
  double whole = std::trunc(serial);
  days = static_cast<int64_t>(whole);
  seconds_of_day = std::llround(std::fabs(serial - whole) * kSecondsPerDay);
  if (seconds_of_day >= kSecondsPerDay) {
    seconds_of_day -= kSecondsPerDay;
    days += serial < 0 ? -1 : 1;
  }
}

Date FromLocalTm(const std::tm& tm) {
  CivilTime civil{tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec};
  if (civil.second > 59) civil.second = 59;  // a leap second stays in its minute
  return Date::FromCivil(civil).value_or(Date());
}

// A date field, two digits when the pattern letter is doubled.
std::string Field(int value, size_t letters) {
  return letters >= 2 ? fmt::format("{:02}", value) : fmt::format("{}", value);
}

}  // namespace

Date Date::FromSerial(double serial) {
  if (!std::isfinite(serial)) return Date();
  int64_t days = 0;
  int64_t seconds = 0;
  SplitSerial(serial, days, seconds);
  return Date(SerialFrom(days, seconds));
}

std::optional<Date> Date::FromCivil(const CivilTime& c) {
  if (c.year < 100 || c.year > 9999 || c.month < 1 || c.month > 12 || c.day < 1 ||
      c.day > DaysInMonth(c.year, c.month) || c.hour < 0 || c.hour > 23 || c.minute < 0 ||
      c.minute > 59 || c.second < 0 || c.second > 59) {
    return std::nullopt;
  }
  int64_t days = DaysFromCivil(c.year, c.month, c.day) - kSerialEpochDays;
  return Date(SerialFrom(days, c.hour * 3600 + c.minute * 60 + c.second));
}

Date Date::FromUnixTime(int64_t seconds) {
  std::time_t t = static_cast<std::time_t>(seconds);
  std::tm tm{};
  if (localtime_r(&t, &tm) == nullptr) return Date();
  return FromLocalTm(tm);
}

Date Date::FromFileTime(uint64_t filetime) {
  return FromUnixTime(platform::UnixFromFileTime(filetime).seconds);
}

Date Date::Now() { return FromUnixTime(static_cast<int64_t>(std::time(nullptr))); }

CivilTime Date::ToCivil() const {
  int64_t days = 0;
  int64_t seconds = 0;
  SplitSerial(serial_, days, seconds);
  CivilTime c;
  CivilFromDays(days + kSerialEpochDays, c.year, c.month, c.day);
  c.hour = static_cast<int>(seconds / 3600);
  c.minute = static_cast<int>(seconds / 60 % 60);
  c.second = static_cast<int>(seconds % 60);
  return c;
}

int64_t Date::ToUnixTime() const {
  CivilTime c = ToCivil();
  std::tm tm{};
  tm.tm_year = c.year - 1900;
  tm.tm_mon = c.month - 1;
  tm.tm_mday = c.day;
  tm.tm_hour = c.hour;
  tm.tm_min = c.minute;
  tm.tm_sec = c.second;
  tm.tm_isdst = 1;  // of two readings of a repeated hour, try the earlier (summer) one first
  std::tm probe = tm;
  std::time_t t = std::mktime(&probe);
  if (probe.tm_hour == c.hour && probe.tm_min == c.minute && probe.tm_mday == c.day) return t;
  tm.tm_isdst = -1;
  return static_cast<int64_t>(std::mktime(&tm));
}

uint64_t Date::ToFileTime() const {
  return platform::FileTimeFromUnix(ToUnixTime(), 0);
}

std::string Date::Format(std::string_view pattern) const {
  CivilTime c = ToCivil();
  std::string out;
  bool after_hour = false;
  size_t i = 0;
  while (i < pattern.size()) {
    char ch = static_cast<char>(pattern[i] | 0x20);
    size_t run = 1;
    while (i + run < pattern.size() && (pattern[i + run] | 0x20) == ch) ++run;
    bool field = true;
    switch (ch) {
      case 'y':
        out += run >= 4 ? fmt::format("{:04}", c.year) : fmt::format("{:02}", c.year % 100);
        break;
      case 'm': out += Field(after_hour ? c.minute : c.month, run); break;
      case 'd': out += Field(c.day, run); break;
      case 'h': out += Field(c.hour, run); break;
      case 'n': out += Field(c.minute, run); break;
      case 's': out += Field(c.second, run); break;
      default:
        out.append(pattern.substr(i, run));
        field = false;
    }
    if (field) after_hour = ch == 'h';
    i += run;
  }
  return out;
}

}  // namespace pelmora
