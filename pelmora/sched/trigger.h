// When triggers fire: the next run time of one trigger after a given local time, and the text
// form of a trigger that the command-line tool reads and prints.
//
//   JobTrigger t = *ParseTrigger("weekly mon,fri 03:30 every 2", today);
//   std::optional<Date> next = NextTriggerTime(t, Date::Now());
//   FormatTrigger(t)   // "weekly mon,fri 03:30 every 2 from 2026-11-23"
//
// Times are local wall-clock times: a daily trigger at 02:30 runs at 02:30 on every day, before
// and after a daylight-saving change. A wall-clock time the change skips is run when the clock
// reads the same time after the jump (Date::ToUnixTime decides); a repeated hour runs once.
#ifndef PELMORA_SCHED_TRIGGER_H_
#define PELMORA_SCHED_TRIGGER_H_

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"
#include "pelmora/sched/job_file.h"

namespace pelmora::sched {

// A new trigger as the platform creates one: begins today at the current hour and minute of
// `now`, daily every day, disabled.
PELMORA_API JobTrigger NewTrigger(const Date& now);

// True for the types that run at a wall-clock time (once, daily, weekly, both monthly types).
PELMORA_API bool IsTimeTrigger(const JobTrigger& trigger);

// The first run time of `trigger` strictly later than `after` (local), or nullopt when it has
// none: disabled, an event type, past its end date or its single run. Looks at most nine years
// ahead. Does not block.
PELMORA_API std::optional<Date> NextTriggerTime(const JobTrigger& trigger, const Date& after);

// The earliest NextTriggerTime of the enabled time triggers, or nullopt.
PELMORA_API std::optional<Date> NextRunOf(const std::vector<JobTrigger>& triggers,
                                          const Date& after);

// Reads a trigger's text form; `today` gives the begin date when the text names none. Returns
// nullopt for text that does not follow the grammar:
//   once YYYY-MM-DD HH:MM | daily HH:MM [every N] | weekly DAYS HH:MM [every N]
//   | monthly DATES HH:MM [in MONTHS] | monthlydow WEEK DAYS HH:MM [in MONTHS]
//   | atstart | atlogon | onidle
// followed by any of: from YYYY-MM-DD, until YYYY-MM-DD, repeat MINUTES for MINUTES, disabled.
// DAYS: sun,mon,...; DATES: 1,15,31; WEEK: first, second, third, fourth or last; MONTHS: jan,...
PELMORA_API std::optional<JobTrigger> ParseTrigger(std::string_view text, const Date& today);

// The text form of a trigger, which ParseTrigger reads back to the same trigger.
PELMORA_API std::string FormatTrigger(const JobTrigger& trigger);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TRIGGER_H_
