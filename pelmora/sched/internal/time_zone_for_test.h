// Test helpers for local-time code: a time zone set for one scope, and dates written as text.
//
//   ScopedTimeZone zone("America/New_York");
//   Date d = At("2026-03-08 02:30");
#ifndef PELMORA_SCHED_INTERNAL_TIME_ZONE_FOR_TEST_H_
#define PELMORA_SCHED_INTERNAL_TIME_ZONE_FOR_TEST_H_

#include <cstdio>
#include <ctime>
#include <optional>

#include "pelmora/common/date.h"
#include "pelmora/testing/scoped_env.h"

namespace pelmora::sched::testing {

using pelmora::testing::ScopedTimeZone;

// The date of "yyyy-mm-dd hh:nn[:ss]"; the empty date when the text is malformed.
inline Date At(const char* text) {
  CivilTime c;
  c.second = 0;
  if (std::sscanf(text, "%d-%d-%d %d:%d:%d", &c.year, &c.month, &c.day, &c.hour, &c.minute,
                  &c.second) < 5) {
    return Date();
  }
  return Date::FromCivil(c).value_or(Date());
}

}  // namespace pelmora::sched::testing

#endif  // PELMORA_SCHED_INTERNAL_TIME_ZONE_FOR_TEST_H_
