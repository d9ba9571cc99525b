// `pelmora tasks`: the scheduled tasks of this computer or, with --computer, of another one.
//
//   pelmora tasks list [--computer \\host]
//   pelmora tasks show NAME
//   pelmora tasks create NAME --app PROGRAM [--params TEXT] [--dir FOLDER] [--trigger TEXT]...
//                        [--comment TEXT] [--creator TEXT] [--user NAME] [--max-run-time MS]
//                        [--retry-count N] [--retry-interval MINUTES] [--disabled]
//                        [--delete-when-done]
//   pelmora tasks set NAME [the same options] [--enabled] [--no-triggers]
//   pelmora tasks run|stop|rm NAME
//
// Every command takes --computer \\host and --folder FOLDER (a task folder other than the
// default one). Triggers are written in their text form, e.g. "daily 02:30", "weekly mon,fri
// 08:00 every 2", "monthlydow last sun 03:00 in mar,oct", "once 2030-01-02 03:04".
// create warns on standard error, with the same exit status, when no runner watches the folder
// (none holds its runner lock), since the task would then never run.
// Exit status: 0 on success, 1 when the task objects raise (the error number and text are printed
// on standard error), 2 for usage errors.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/error.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_scheduler.h"
#include "pelmora/sched/task_store.h"
#include "pelmora/sched/trigger.h"
#include "tools/pelmora/commands.h"

namespace pelmora_tool {
namespace {

using pelmora::Task;
using pelmora::TaskScheduler;

// The command line of one tasks subcommand.
struct TasksOptions {
  std::string command;
  std::string name;
  std::string computer;
  std::string folder;
  std::optional<std::string> app, params, dir, comment, creator, user;
  std::optional<int32_t> max_run_time;
  std::optional<int16_t> retry_count, retry_interval;
  std::vector<std::string> triggers;
  bool no_triggers = false;
  bool disabled = false;
  bool enabled = false;
  bool delete_when_done = false;
};

// A usage error found after parsing.
struct UsageError {
  std::string text;
};

TaskScheduler OpenScheduler(const TasksOptions& o) {
  TaskScheduler scheduler(pelmora::sched::OpenLocalTaskStore(o.folder));
  if (!o.computer.empty()) {
    scheduler.SetTargetComputer(o.computer);
  } else {
    scheduler.Refresh();
  }
  return scheduler;
}

std::string DateText(const pelmora::Date& date, const char* none) {
  return date.IsEmpty() ? none : date.Format("yyyy-mm-dd hh:nn:ss");
}

const char* StateName(pelmora::TaskStatus state) {
  static const char* const kNames[] = {"Ready",      "Running",         "Disabled",
                                       "HasNotRun",  "NoMoreRuns",      "NotScheduled",
                                       "Terminated", "NoValidTriggers", "EventTrigger"};
  int32_t index = static_cast<int32_t>(state) - static_cast<int32_t>(pelmora::TaskStatus::Ready);
  return index >= 0 && index < 9 ? kNames[index] : "Unknown";
}

std::string ExitCodeText(const Task& task) {
  try {
    return std::to_string(task.ExitCode());
  } catch (const pelmora::Error& e) {
    return "error " + std::to_string(e.Number()) + ": " + e.Description();
  }
}

std::string AccountText(const Task& task) {
  try {
    return task.GetAccountInfo();
  } catch (const pelmora::Error&) {
    return "(the file's owner)";
  }
}

int List(const TasksOptions& o) {
  TaskScheduler scheduler = OpenScheduler(o);
  for (const std::string& name : scheduler.ItemNames()) {
    std::shared_ptr<Task> task = scheduler.Item(name);
    std::printf("%-32s %-14s %s\n", name.c_str(), StateName(task->State()),
                DateText(task->NextRunTime(), "-").c_str());
  }
  return 0;
}

int Show(const TasksOptions& o) {
  std::shared_ptr<Task> t = OpenScheduler(o).Item(o.name);
  std::printf("Name: %s\nFile: %s\nApplication: %s\nParameters: %s\nWorking folder: %s\n",
              t->Name().c_str(), t->FileName().c_str(), t->ApplicationName().c_str(),
              t->CommandLine().c_str(), t->WorkingDirectory().c_str());
  std::printf("Comment: %s\nCreator: %s\nAccount: %s\n", t->Comment().c_str(), t->Creator().c_str(),
              AccountText(*t).c_str());
  std::printf("State: %s (%d)\nFlags: %d\nEnabled: %s\nPriority: %d\nMax run time: %d ms\n",
              StateName(t->State()), static_cast<int>(t->State()), t->flags(),
              t->Enabled() ? "yes" : "no", t->Priority(), t->MaxRunTime());
  std::printf("Retries: %d every %d minutes\nLast run: %s\nExit code: %s\nNext run: %s\n",
              t->ErrorRetryCount(), t->ErrorRetryInterval(),
              DateText(t->LastRunTime(), "never").c_str(), ExitCodeText(*t).c_str(),
              DateText(t->NextRunTime(), "none").c_str());
  for (const pelmora::sched::JobTrigger& trigger : t->Triggers()) {
    std::printf("Trigger: %s\n", pelmora::sched::FormatTrigger(trigger).c_str());
  }
  return 0;
}

// The text form --trigger takes, as the scheduler reads it.
constexpr const char* kTriggerHelp = R"(Triggers (--trigger, repeatable):
  once YYYY-MM-DD HH:MM | daily HH:MM [every N] | weekly DAYS HH:MM [every N]
  | monthly DATES HH:MM [in MONTHS] | monthlydow WEEK DAYS HH:MM [in MONTHS]
  | atstart | atlogon | onidle
  then any of: from YYYY-MM-DD, until YYYY-MM-DD, repeat MINUTES for MINUTES, disabled.
  DAYS: sun,mon,...  DATES: 1,15,31  WEEK: first ... fourth or last  MONTHS: jan,...
Examples:
  pelmora tasks create backup --app /usr/local/bin/backup --trigger 'daily 02:30'
  pelmora tasks set report --trigger 'weekly mon,fri 03:30 every 2' --trigger atstart)";

// Applies the options that change settings; a trigger text that does not parse is a usage error.
void ApplySettings(Task& t, const TasksOptions& o) {
  if (o.app) t.SetApplicationName(*o.app);
  if (o.params) t.SetCommandLine(*o.params);
  if (o.dir) t.SetWorkingDirectory(*o.dir);
  if (o.comment) t.SetComment(*o.comment);
  if (o.creator) t.SetCreator(*o.creator);
  if (o.user) t.SetAccountInfo(*o.user, "");
  if (o.max_run_time) t.SetMaxRunTime(*o.max_run_time);
  if (o.retry_count) t.SetErrorRetryCount(*o.retry_count);
  if (o.retry_interval) t.SetErrorRetryInterval(*o.retry_interval);
  if (o.disabled) t.SetEnabled(false);
  if (o.enabled) t.SetEnabled(true);
  int32_t delete_bit = static_cast<int32_t>(pelmora::TaskFlags::DeleteWhenDone);
  if (o.delete_when_done) t.Setflags(t.flags() | delete_bit);
  if (o.triggers.empty() && !o.no_triggers) return;
  std::vector<pelmora::sched::JobTrigger> triggers;
  for (const std::string& text : o.triggers) {
    auto trigger = pelmora::sched::ParseTrigger(text, pelmora::CurrentLocalTime());
    if (!trigger) throw UsageError{"not a trigger: \"" + text + "\""};
    triggers.push_back(*trigger);
  }
  t.SetTriggers(std::move(triggers));
}

int Create(const TasksOptions& o) {
  if (!o.app) throw UsageError{"create needs --app"};
  TaskScheduler scheduler = OpenScheduler(o);
  std::shared_ptr<Task> task = scheduler.CreateTask(o.name);
  ApplySettings(*task, o);
  scheduler.Add(task);
  std::printf("%s\n", task->FileName().c_str());
  // A runner holds the folder's lock while it watches it; a remote computer's is the service's.
  std::shared_ptr<pelmora::sched::TaskStore> store = pelmora::sched::OpenLocalTaskStore(o.folder);
  if (o.computer.empty() && !store->RunnerWatching()) {
    std::fflush(stdout);
    std::fprintf(stderr,
                 "pelmora: tasks create: warning: no task runner watches %s, so the task runs "
                 "only once one does (pelmorad with [scheduler] enabled over this folder)\n",
                 store->Folder().c_str());
  }
  return 0;
}

int Set(const TasksOptions& o) {
  std::shared_ptr<Task> task = OpenScheduler(o).Item(o.name);
  ApplySettings(*task, o);
  task->Save();
  return 0;
}

int Act(const TasksOptions& o) {
  TaskScheduler scheduler = OpenScheduler(o);
  if (o.command == "rm") {
    scheduler.Remove(o.name);
  } else if (o.command == "run") {
    scheduler.Item(o.name)->Run();
  } else {
    scheduler.Item(o.name)->Terminate();
  }
  return 0;
}

int Run(const TasksOptions& o) {
  try {
    if (o.command == "list") return List(o);
    if (o.command == "show") return Show(o);
    if (o.command == "create") return Create(o);
    if (o.command == "set") return Set(o);
    return Act(o);
  } catch (const pelmora::Error& e) {
    std::fprintf(stderr, "pelmora: tasks %s: error %d: %s\n", o.command.c_str(), e.Number(),
                 e.Description().c_str());
    return 1;
  } catch (const UsageError& e) {
    std::fprintf(stderr, "pelmora: tasks %s: %s\n", o.command.c_str(), e.text.c_str());
    return 2;
  }
}

void AddSettingOptions(CLI::App& sub, TasksOptions& o) {
  sub.add_option("--app", o.app, "Program to run (found on PATH when it has no '/')");
  sub.add_option("--params", o.params, "Parameters, split like a program's command line");
  sub.add_option("--dir", o.dir, "Working folder");
  sub.add_option("--comment", o.comment, "Comment");
  sub.add_option("--creator", o.creator, "Creator");
  sub.add_option("--user", o.user, "Linux user the task runs as");
  sub.add_option("--max-run-time", o.max_run_time, "Milliseconds before the run is killed");
  sub.add_option("--retry-count", o.retry_count, "Retries of a failed run");
  sub.add_option("--retry-interval", o.retry_interval, "Minutes between retries");
  sub.add_option("--trigger", o.triggers, "A trigger in text form (repeatable; replaces all)");
  sub.add_flag("--disabled", o.disabled, "Disable the task");
  sub.add_flag("--delete-when-done", o.delete_when_done, "Delete after the last run");
  sub.footer(kTriggerHelp);
}

}  // namespace

void AddTasksCommand(CLI::App& app, CommandAction& action) {
  CLI::App* tasks = app.add_subcommand("tasks", "Scheduled tasks of this or another computer");
  tasks->require_subcommand(1);
  const char* commands[][2] = {{"list", "List the tasks"},  {"show", "Show one task"},
                               {"create", "Create a task"}, {"set", "Change a task"},
                               {"run", "Run a task now"},   {"stop", "Stop a running task"},
                               {"rm", "Delete a task"}};
  for (const auto& [name, help] : commands) {
    auto o = std::make_shared<TasksOptions>();
    o->command = name;
    CLI::App* sub = tasks->add_subcommand(name, help);
    if (o->command != "list") sub->add_option("NAME", o->name, "Task name")->required();
    sub->add_option("--computer", o->computer, "Another computer, as \\\\host");
    sub->add_option("--folder", o->folder, "A task folder other than the default");
    if (o->command == "create" || o->command == "set") AddSettingOptions(*sub, *o);
    if (o->command == "set") {
      sub->add_flag("--enabled", o->enabled, "Enable the task");
      sub->add_flag("--no-triggers", o->no_triggers, "Remove every trigger");
    }
    sub->callback([&action, o] { action = [o] { return Run(*o); }; });
  }
}

}  // namespace pelmora_tool
