#include "pelmora/sched/task_rules.h"

#include <cmath>

#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/trigger.h"

namespace pelmora::sched {

std::vector<JobTrigger> UserTriggers(const JobFile& job) {
  if (job.triggers.size() == 1 && (job.triggers[0].flags & kTriggerDisabled) != 0 &&
      job.status == kSchedTaskNotScheduled) {
    return {};
  }
  return job.triggers;
}

void PutTriggers(JobFile& job, std::vector<JobTrigger> triggers, const Date& now) {
  if (triggers.empty()) triggers.push_back(NewTrigger(now));
  job.triggers = std::move(triggers);
}

uint32_t SavedStatus(const JobFile& job, const Date& now) {
  std::vector<JobTrigger> triggers = UserTriggers(job);
  if (triggers.empty()) return kSchedTaskNotScheduled;
  if (job.last_run.IsZero()) return kSchedTaskHasNotRun;
  switch (job.status) {
    case kSchedTaskReady:
    case kSchedTaskNoMoreRuns:
    case kSchedTaskHasNotRun:
    case kSchedTaskNotScheduled:
    case kSchedTaskRunning:
      return NextRunOf(triggers, now) ? kSchedTaskReady : kSchedTaskNoMoreRuns;
    default:
      return job.status;
  }
}

Date DateOf(const SystemTime& time) {
  if (time.IsZero()) return Date();
  std::optional<Date> date =
      Date::FromCivil({time.year, time.month, time.day, time.hour, time.minute, time.second});
  return date.value_or(Date());
}

SystemTime SystemTimeOf(const Date& date) {
  CivilTime c = date.ToCivil();
  int64_t day = static_cast<int64_t>(std::floor(date.Serial()));
  SystemTime t;
  t.year = static_cast<uint16_t>(c.year);
  t.month = static_cast<uint16_t>(c.month);
  t.day_of_week = static_cast<uint16_t>(((day + 6) % 7 + 7) % 7);
  t.day = static_cast<uint16_t>(c.day);
  t.hour = static_cast<uint16_t>(c.hour);
  t.minute = static_cast<uint16_t>(c.minute);
  t.second = static_cast<uint16_t>(c.second);
  return t;
}

}  // namespace pelmora::sched
