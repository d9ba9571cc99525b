// The late-bound faces of TaskScheduler and Task: "Pelmora.TaskScheduler" and "Pelmora.Task",
// members in interface order. ItemNames is an array of strings with lower bound 0. After the
// interface members, Task adds "Triggers": the triggers as an array of their text forms (see
// trigger.h), readable and writable. A Task created directly is an unnamed task of the local
// folder; Add raises 5 (source "Add") for it until it is named by CreateTask.
#include <memory>
#include <string>
#include <vector>

#include "pelmora/automation/class_binder.h"
#include "pelmora/common/system.h"
#include "pelmora/common/variant.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/sched/trigger.h"

namespace pelmora {
namespace {

using automation::ClassBinder;
using automation::ClassRegistrar;

VariantArray ItemNamesArray(TaskScheduler& s) {
  VariantArray names;
  for (const std::string& name : s.ItemNames()) names.items.emplace_back(name);
  return names;
}

VariantArray TriggerTexts(Task& t) {
  VariantArray texts;
  for (const sched::JobTrigger& trigger : t.Triggers()) {
    texts.items.emplace_back(sched::FormatTrigger(trigger));
  }
  return texts;
}

// Raises the invalid-argument result for a text that is not a trigger.
void SetTriggerTexts(Task& t, const VariantArray& texts) {
  std::vector<sched::JobTrigger> triggers;
  for (const Variant& text : texts.items) {
    std::optional<sched::JobTrigger> trigger =
        sched::ParseTrigger(text.ToString(), CurrentLocalTime());
    if (!trigger) sched::RaiseSchedError(sched::kInvalidArg, "Pelmora.Task");
    triggers.push_back(*trigger);
  }
  t.SetTriggers(std::move(triggers));
}

// The error retry settings of the late-bound face answer E_NOTIMPL, as the platform's task
// objects do; the C++ members keep the file's fields for the tool and the runner.
int16_t RetryNotImplemented(Task&) {
  sched::RaiseSchedError(sched::kNotImplemented, "Pelmora.Task");
}

void SetRetryNotImplemented(Task&, int16_t) {
  sched::RaiseSchedError(sched::kNotImplemented, "Pelmora.Task");
}

const ClassRegistrar kTaskClass(
    ClassBinder<Task>("Pelmora.Task")
        .Property("ApplicationName", &Task::ApplicationName, &Task::SetApplicationName)
        .Property("CommandLine", &Task::CommandLine, &Task::SetCommandLine)
        .Property("Comment", &Task::Comment, &Task::SetComment)
        .Property("Creator", &Task::Creator, &Task::SetCreator)
        .Property("ErrorRetryCount", &RetryNotImplemented, &SetRetryNotImplemented)
        .Property("ErrorRetryInterval", &RetryNotImplemented, &SetRetryNotImplemented)
        .Property("ExitCode", &Task::ExitCode)
        .Property("flags", &Task::flags, &Task::Setflags)
        .Property("Enabled", &Task::Enabled, &Task::SetEnabled)
        .Property("MaxRunTime", &Task::MaxRunTime, &Task::SetMaxRunTime)
        .Property("Priority", &Task::Priority, &Task::SetPriority)
        .Property("State", &Task::State)
        .Property("WorkingDirectory", &Task::WorkingDirectory, &Task::SetWorkingDirectory)
        .Property("LastRunTime", &Task::LastRunTime)
        .Property("NextRunTime", &Task::NextRunTime)
        .Property("FileName", &Task::FileName)
        .Property("Name", &Task::Name)
        .Method("Save", &Task::Save)
        .Method("SetAccountInfo", &Task::SetAccountInfo)
        .Method("GetAccountInfo", &Task::GetAccountInfo)
        .Method("Run", &Task::Run)
        .Method("Terminate", &Task::Terminate)
        .Method("ShowProperties", &Task::ShowProperties)
        .Property("Triggers", &TriggerTexts, &SetTriggerTexts),
    [] {
      return std::make_shared<Task>(sched::OpenLocalTaskStore(), "", ".job", sched::NewJobFile(),
                                    false);
    });

const ClassRegistrar kTaskSchedulerClass(ClassBinder<TaskScheduler>("Pelmora.TaskScheduler")
                                             .Method("ItemNames", &ItemNamesArray)
                                             .Property("Item", &TaskScheduler::Item)
                                             .Property("TargetComputer",
                                                       &TaskScheduler::TargetComputer,
                                                       &TaskScheduler::SetTargetComputer)
                                             .Method("CreateTask", &TaskScheduler::CreateTask)
                                             .Method("Add", &TaskScheduler::Add)
                                             .Method("Refresh", &TaskScheduler::Refresh)
                                             .Method("Remove", &TaskScheduler::Remove));

}  // namespace
}  // namespace pelmora
