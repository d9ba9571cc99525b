#include "pelmora/sched/trigger.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "pelmora/sched/internal/time_zone_for_test.h"

namespace pelmora::sched {
namespace {

using testing::At;
using testing::ScopedTimeZone;

const Date kToday = At("2026-01-01 00:00");

JobTrigger Trigger(const char* text) {
  std::optional<JobTrigger> t = ParseTrigger(text, kToday);
  EXPECT_TRUE(t) << text;
  return t.value_or(JobTrigger{});
}

struct NextRunCase {
  const char* trigger;
  const char* after;
  const char* expected;  // "" for no further run
};

// New York changes to summer time on 2026-03-08 (02:00 -> 03:00) and back on 2026-11-01
// (02:00 -> 01:00).
const NextRunCase kNextRuns[] = {
    {"daily 02:30 from 2026-03-01", "2026-03-07 03:00", "2026-03-08 02:30"},
    {"daily 02:30 from 2026-03-01", "2026-03-08 03:30", "2026-03-09 02:30"},
    {"daily 01:30 from 2026-10-01", "2026-10-31 12:00", "2026-11-01 01:30"},
    {"daily 01:30 from 2026-10-01", "2026-11-01 01:30", "2026-11-02 01:30"},
    {"daily 03:00 every 2 from 2026-11-01", "2026-11-01 03:00", "2026-11-03 03:00"},
    {"daily 08:00 from 2026-05-01", "2026-01-01 00:00", "2026-05-01 08:00"},
    {"weekly mon,fri 09:00 from 2026-10-28", "2026-10-30 09:00", "2026-11-02 09:00"},
    {"weekly mon 09:00 every 2 from 2026-11-02", "2026-11-02 09:00", "2026-11-16 09:00"},
    {"monthly 31 08:00 from 2026-01-01", "2026-03-31 08:00", "2026-05-31 08:00"},
    {"monthly 29 08:00 in feb from 2026-01-01", "2026-01-01 00:00", "2028-02-29 08:00"},
    {"monthly 1,15 00:00 in mar,nov from 2026-01-01", "2026-03-01 00:00", "2026-03-15 00:00"},
    {"monthlydow last sun 02:30 from 2026-01-01", "2026-03-01 00:00", "2026-03-29 02:30"},
    {"monthlydow second sun 02:30 in mar from 2026-01-01", "2026-01-01 00:00", "2026-03-08 02:30"},
    {"monthlydow first sun 01:30 in nov from 2026-01-01", "2026-01-01 00:00", "2026-11-01 01:30"},
    {"once 2030-01-02 03:04", "2026-11-23 12:00", "2030-01-02 03:04"},
    {"once 2030-01-02 03:04", "2030-01-02 03:04", ""},
    {"daily 01:00 from 2026-11-01 repeat 30 for 120", "2026-11-01 01:10", "2026-11-01 01:30"},
    {"daily 01:00 from 2026-11-01 repeat 30 for 120", "2026-11-01 02:50", "2026-11-02 01:00"},
    {"daily 23:00 from 2026-01-01 repeat 60 for 180", "2026-01-02 00:30", "2026-01-02 01:00"},
    {"daily 08:00 from 2026-01-01 until 2026-01-03", "2026-01-03 08:00", ""},
    {"daily 08:00 from 2026-01-01 disabled", "2026-01-01 00:00", ""},
    {"atstart", "2026-01-01 00:00", ""},
};

TEST(Trigger, NextRunKeepsWallClockTimeAcrossDaylightSavingChanges) {
  ScopedTimeZone zone("America/New_York");
  for (const NextRunCase& c : kNextRuns) {
    std::optional<Date> next = NextTriggerTime(Trigger(c.trigger), At(c.after));
    std::string got = next ? next->Format("yyyy-mm-dd hh:nn") : "";
    EXPECT_EQ(got, c.expected) << c.trigger << " after " << c.after;
  }
}

TEST(Trigger, SkippedTimeRunsAfterTheJumpAndRepeatedHourRunsFirstTime) {
  ScopedTimeZone zone("America/New_York");
  EXPECT_EQ(At("2026-03-08 02:30").ToUnixTime(), 1772955000);  // 03:30 summer time
  EXPECT_EQ(At("2026-11-01 01:30").ToUnixTime(), 1793511000);  // the first 01:30
}

TEST(Trigger, NextRunOfTakesTheEarliestEnabledTimeTrigger) {
  ScopedTimeZone zone("America/New_York");
  std::vector<JobTrigger> triggers = {Trigger("daily 09:00 from 2026-01-01"),
                                      Trigger("daily 07:00 from 2026-01-01 disabled"),
                                      Trigger("atstart"), Trigger("daily 08:00 from 2026-01-01")};
  EXPECT_EQ(NextRunOf(triggers, At("2026-02-01 00:00"))->Format("hh:nn"), "08:00");
  EXPECT_FALSE(NextRunOf({Trigger("atlogon")}, At("2026-02-01 00:00")));
}

TEST(Trigger, NewTriggerIsADisabledDailyTriggerAtTheCurrentMinute) {
  JobTrigger t = NewTrigger(At("2026-11-23 12:34"));
  EXPECT_EQ(t.type, TriggerType::kDaily);
  EXPECT_EQ(t.flags, kTriggerDisabled);
  EXPECT_EQ(t.data[0], 1);
  EXPECT_EQ(t.begin_year, 2026);
  EXPECT_EQ(t.begin_day, 23);
  EXPECT_EQ(t.start_hour, 12);
  EXPECT_EQ(t.start_minute, 34);
}

TEST(Trigger, TextFormsReadBackToTheSameTrigger) {
  const char* texts[] = {
      "once 2030-01-02 03:04",
      "daily 03:04 every 3 from 2026-01-01",
      "weekly sun,sat 00:00 every 2 from 2026-01-01",
      "monthly 1,31 12:00 in jan,dec from 2026-01-01 until 2027-01-01",
      "monthlydow last fri 18:30 from 2026-01-01 repeat 15 for 60 disabled",
      "atstart",
      "atlogon",
      "onidle",
  };
  for (const char* text : texts) {
    JobTrigger t = Trigger(text);
    EXPECT_EQ(FormatTrigger(t), text);
    EXPECT_EQ(ParseTrigger(FormatTrigger(t), kToday), t) << text;
  }
  EXPECT_EQ(FormatTrigger(Trigger("daily 07:05")), "daily 07:05 from 2026-01-01");
}

TEST(Trigger, MalformedTextIsRefused) {
  const char* texts[] = {
      "",
      "hourly 03:00",
      "daily 24:00",
      "daily 03:60",
      "daily",
      "weekly xyz 03:00",
      "monthly 0 03:00",
      "monthly 32 03:00",
      "once 2030-02-30 03:00",
      "daily 03:00 every 0",
      "daily 03:00 in jan",
      "monthlydow fifth mon 03:00",
      "daily 03:00 repeat 30 for 30",
      "daily 03:00 bogus",
      "daily 03:00 from",
  };
  for (const char* text : texts) EXPECT_FALSE(ParseTrigger(text, kToday)) << text;
}

}  // namespace
}  // namespace pelmora::sched
