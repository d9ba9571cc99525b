// Dates as automation callers know them.
//
// A Date is a count of days since 1899-12-30 00:00:00 held as a double, the fraction being the
// time of day; this library keeps whole seconds. Dates are local calendar time unless a name
// says otherwise (FILETIME and Unix time are UTC). The empty date is serial 0.
//
//   Date now = Date::Now();
//   now.Format("yyyy-mm-dd hh:nn:ss")       // "2009-03-14 08:05:09"
//   Date::FromFileTime(ft).ToCivil().year   // local calendar fields of a UTC FILETIME
#ifndef PELMORA_COMMON_DATE_H_
#define PELMORA_COMMON_DATE_H_

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"
#include "pelmora/platform/file_time.h"

namespace pelmora {

// Calendar fields of a Date: month 1-12, day 1-31, hour 0-23, minute and second 0-59.
struct PELMORA_API CivilTime {
  int year = 1899;
  int month = 12;
  int day = 30;
  int hour = 0;
  int minute = 0;
  int second = 0;
  friend bool operator==(const CivilTime&, const CivilTime&) = default;
};

class PELMORA_API Date {
 public:
  // The empty date (serial 0, 1899-12-30 00:00:00).
  constexpr Date() = default;

  // The date for an automation serial, rounded to the nearest whole second. Negative serials
  // follow the automation rule: the whole part counts days back, the fraction is the time of
  // day forward (-1.25 is 1899-12-29 06:00:00).
  static Date FromSerial(double serial);

  // The date for calendar fields, or nullopt when a field is out of range or the year is outside
  // 100-9999 (the range automation dates cover).
  static std::optional<Date> FromCivil(const CivilTime& civil);

  // The local date of a UTC instant in seconds since 1970-01-01 (sub-second parts are dropped).
  static Date FromUnixTime(int64_t seconds);

  // The local date of a UTC FILETIME (100-nanosecond intervals since 1601-01-01), with the
  // sub-second part dropped.
  static Date FromFileTime(uint64_t filetime);

  // The current local time at whole seconds.
  static Date Now();

  double Serial() const { return serial_; }
  bool IsEmpty() const { return serial_ == 0; }

  // Calendar fields of this date.
  CivilTime ToCivil() const;

  // The UTC instant of this local date. A local time that occurs twice (the hour repeated when
  // daylight-saving time ends) gives the earlier instant; one skipped by the change gives the
  // instant the system's mktime chooses.
  int64_t ToUnixTime() const;
  uint64_t ToFileTime() const;

  // Formats with the automation date pattern letters: yyyy, yy, m, mm, d, dd, h, hh, n, nn, s, ss
  // ("mm" right after an hour field means minutes, as in "hh:mm:ss"). Other characters are
  // copied. Example: Format("yyyymmdd") gives "20090314".
  std::string Format(std::string_view pattern) const;

  friend auto operator<=>(const Date& a, const Date& b) { return a.serial_ <=> b.serial_; }
  friend bool operator==(const Date& a, const Date& b) { return a.serial_ == b.serial_; }

 private:
  explicit constexpr Date(double serial) : serial_(serial) {}
  double serial_ = 0;
};

// Seconds between 1601-01-01 and 1970-01-01.
using platform::kFileTimeUnixEpochSeconds;

}  // namespace pelmora

#endif  // PELMORA_COMMON_DATE_H_
