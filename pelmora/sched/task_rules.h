// Rules shared by the task objects and the runner: which triggers a file really has, the status
// a file is saved with, and conversions between the file's time records and dates.
#ifndef PELMORA_SCHED_TASK_RULES_H_
#define PELMORA_SCHED_TASK_RULES_H_

#include <cstdint>
#include <vector>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"
#include "pelmora/sched/job_file.h"

namespace pelmora::sched {

// The file's triggers, without the lone disabled placeholder that a file saved with no triggers
// carries (recognised by the status NOT_SCHEDULED).
PELMORA_API std::vector<JobTrigger> UserTriggers(const JobFile& job);

// Sets the triggers of `job`; with none, writes the disabled placeholder created at `now`.
PELMORA_API void PutTriggers(JobFile& job, std::vector<JobTrigger> triggers, const Date& now);

// The status a file is saved with: NOT_SCHEDULED without triggers; HAS_NOT_RUN when it never
// ran; after runs, READY while a run is ahead of `now` and NO_MORE_RUNS when none is; other
// statuses (TERMINATED) are kept.
PELMORA_API uint32_t SavedStatus(const JobFile& job, const Date& now);

// The date of a time record (the empty date for an all-zero or invalid record) and back.
PELMORA_API Date DateOf(const SystemTime& time);
PELMORA_API SystemTime SystemTimeOf(const Date& date);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TASK_RULES_H_
