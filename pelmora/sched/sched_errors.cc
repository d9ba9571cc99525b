#include "pelmora/sched/sched_errors.h"

#include <string_view>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/platform/win_error.h"

namespace pelmora::sched {
namespace {

struct ResultText {
  uint32_t code;
  std::string_view text;
};

// The platform's texts for the scheduler's own codes and the generic results.
constexpr ResultText kTexts[] = {
    {kSchedTaskReady, "The task is ready to run at its next scheduled time."},
    {kSchedTaskRunning, "The task is currently running."},
    {kSchedTaskDisabled,
     "The task will not run at the scheduled times because it has been disabled."},
    {kSchedTaskHasNotRun, "The task has not yet run."},
    {kSchedTaskNoMoreRuns, "There are no more runs scheduled for this task."},
    {kSchedTaskNotScheduled,
     "One or more of the properties that are needed to run this task on a schedule have not "
     "been set."},
    {kSchedTaskTerminated, "The last run of the task was terminated by the user."},
    {kSchedTaskNoValidTriggers,
     "Either the task has no triggers or the existing triggers are disabled or not set."},
    {kSchedEventTrigger, "Event triggers do not have set run times."},
    {kSchedTriggerNotFound, "Trigger not found."},
    {kSchedTaskNotReady,
     "One or more of the properties needed to run this task have not been set."},
    {kSchedTaskNotRunning, "There is no running instance of the task."},
    {0x8004130C, "The Task Scheduler Service is not installed on this computer."},
    {kSchedCannotOpenTask, "The task object could not be opened."},
    {kSchedInvalidTask, "The object is either an invalid task object or is not a task object."},
    {kSchedAccountNotSet,
     "No account information could be found in the Task Scheduler security database for the "
     "task indicated."},
    {kNotImplemented, "Not implemented"},
    {kFail, "Unspecified error"},
    {kInvalidArg, "The parameter is incorrect."},
};

}  // namespace

uint32_t ResultFromWin32(uint32_t win32) { return platform::HresultFromWin32(win32); }

uint32_t ResultFromErrno(int error) {
  return platform::HresultFromErrno(error, platform::Missing::kFile);
}

std::string SchedResultText(uint32_t code) {
  for (const ResultText& entry : kTexts) {
    if (entry.code == code) return std::string(entry.text);
  }
  if ((code & 0xFFFF0000u) == 0x80070000u) {
    if (auto text = SystemMessageText(static_cast<int32_t>(code & 0xFFFF))) {
      return std::string(*text);
    }
  }
  return "";
}

void RaiseSchedError(uint32_t code, const std::string& source) {
  throw Error(static_cast<int32_t>(code), SchedResultText(code), source);
}

}  // namespace pelmora::sched
