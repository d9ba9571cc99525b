// Next run times. Days are counted as automation serial day numbers (whole days since
// 1899-12-30), times of day as wall-clock seconds, so daylight-saving changes never move a run
// to another wall-clock time.
#include "pelmora/sched/trigger.h"

#include <algorithm>
#include <cmath>

namespace pelmora::sched {
namespace {

constexpr int64_t kLookAheadDays = 366 * 9;  // a 29 February can be eight years away
constexpr int64_t kSecondsPerDay = 86400;

int64_t DayNumber(const Date& date) { return static_cast<int64_t>(std::floor(date.Serial())); }

int64_t WallSeconds(const Date& date) { return std::llround(date.Serial() * kSecondsPerDay); }

Date FromWallSeconds(int64_t seconds) {
  return Date::FromSerial(static_cast<double>(seconds) / kSecondsPerDay);
}

// 0 for Sunday .. 6 for Saturday (day 0, 1899-12-30, was a Saturday).
int Weekday(int64_t day) { return static_cast<int>(((day + 6) % 7 + 7) % 7); }

std::optional<int64_t> DayOf(int year, int month, int day) {
  std::optional<Date> date = Date::FromCivil({year, month, day, 0, 0, 0});
  if (!date) return std::nullopt;
  return DayNumber(*date);
}

int DaysInMonth(int year, int month) {
  for (int day = 31; day > 28; --day) {
    if (DayOf(year, month, day)) return day;
  }
  return 28;
}

bool InMask(uint32_t mask, int bit) { return ((mask >> bit) & 1) != 0; }

bool MonthlyDowMatches(const JobTrigger& t, const CivilTime& c, int weekday) {
  if (!InMask(t.data[2], c.month - 1) || !InMask(t.data[1], weekday)) return false;
  if (t.data[0] == 5) return c.day + 7 > DaysInMonth(c.year, c.month);
  return (c.day - 1) / 7 + 1 == t.data[0];
}

// Whether the trigger runs on `day`, counting intervals from `begin`.
bool RunsOnDay(const JobTrigger& t, int64_t day, int64_t begin) {
  int64_t interval = std::max<int64_t>(1, t.data[0]);
  switch (t.type) {
    case TriggerType::kOnce:
      return day == begin;
    case TriggerType::kDaily:
      return (day - begin) % interval == 0;
    case TriggerType::kWeekly: {
      int64_t first_sunday = begin - Weekday(begin);
      return InMask(t.data[1], Weekday(day)) && ((day - first_sunday) / 7) % interval == 0;
    }
    case TriggerType::kMonthlyDate: {
      CivilTime c = Date::FromSerial(static_cast<double>(day)).ToCivil();
      uint32_t days = t.data[0] | (uint32_t{t.data[1]} << 16);
      return InMask(days, c.day - 1) && InMask(t.data[2], c.month - 1);
    }
    case TriggerType::kMonthlyDow:
      return MonthlyDowMatches(t, Date::FromSerial(static_cast<double>(day)).ToCivil(),
                               Weekday(day));
    default:
      return false;
  }
}

// The first run of the day `day` later than `after` (wall-clock seconds), or nullopt.
std::optional<int64_t> RunOnDayAfter(const JobTrigger& t, int64_t day, int64_t after) {
  int64_t base = day * kSecondsPerDay + (t.start_hour * 60 + t.start_minute) * 60;
  if (base > after) return base;
  if (t.minutes_interval == 0 || t.minutes_duration == 0) return std::nullopt;
  int64_t step = int64_t{t.minutes_interval} * 60;
  int64_t k = (after - base) / step + 1;
  if (k * step >= int64_t{t.minutes_duration} * 60) return std::nullopt;
  return base + k * step;
}

}  // namespace

JobTrigger NewTrigger(const Date& now) {
  CivilTime c = now.ToCivil();
  JobTrigger t;
  t.begin_year = static_cast<uint16_t>(c.year);
  t.begin_month = static_cast<uint16_t>(c.month);
  t.begin_day = static_cast<uint16_t>(c.day);
  t.start_hour = static_cast<uint16_t>(c.hour);
  t.start_minute = static_cast<uint16_t>(c.minute);
  t.flags = kTriggerDisabled;
  t.type = TriggerType::kDaily;
  t.data = {1, 0, 0};
  return t;
}

bool IsTimeTrigger(const JobTrigger& trigger) { return trigger.type <= TriggerType::kMonthlyDow; }

std::optional<Date> NextTriggerTime(const JobTrigger& t, const Date& after) {
  if ((t.flags & kTriggerDisabled) != 0 || !IsTimeTrigger(t)) return std::nullopt;
  if (t.start_hour > 23 || t.start_minute > 59) return std::nullopt;
  std::optional<int64_t> begin = DayOf(t.begin_year, t.begin_month, t.begin_day);
  if (!begin) return std::nullopt;
  int64_t last = *begin + 366 * 10000;
  if ((t.flags & kTriggerHasEndDate) != 0) {
    std::optional<int64_t> end = DayOf(t.end_year, t.end_month, t.end_day);
    if (!end) return std::nullopt;
    last = *end;
  }
  int64_t after_seconds = WallSeconds(after);
  int64_t spill_days = t.minutes_interval == 0 ? 0 : t.minutes_duration / 1440 + 1;
  int64_t first = std::max(*begin, DayNumber(after) - std::min(spill_days, kLookAheadDays));
  int64_t stop = std::min(last, first + kLookAheadDays);
  if (t.type == TriggerType::kOnce) stop = std::min(stop, *begin);
  for (int64_t day = first; day <= stop; ++day) {
    if (!RunsOnDay(t, day, *begin)) continue;
    if (auto run = RunOnDayAfter(t, day, after_seconds)) return FromWallSeconds(*run);
  }
  return std::nullopt;
}

std::optional<Date> NextRunOf(const std::vector<JobTrigger>& triggers, const Date& after) {
  std::optional<Date> best;
  for (const JobTrigger& t : triggers) {
    std::optional<Date> next = NextTriggerTime(t, after);
    if (next && (!best || *next < *best)) best = next;
  }
  return best;
}

}  // namespace pelmora::sched
