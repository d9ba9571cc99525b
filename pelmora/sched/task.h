// Task: one scheduled task's settings, status and run times, held in memory and written to its
// .job file by Save (or by TaskScheduler::Add).
//
//   std::shared_ptr<Task> task = scheduler.CreateTask("backup");
//   task->SetApplicationName("/usr/local/bin/backup");
//   task->SetTriggers({*ParseTrigger("daily 02:30", Date::Now())});
//   scheduler.Add(task);                    // writes backup.job
//   task->Run();                            // asks the runner, or runs it here when none watches
//
// Failures raise pelmora::Error with the result code and its text (sched_errors.h) and the source
// "Pelmora.Task". Members that touch the store block for a local file operation or, for another
// computer, one request to its administration service.
#ifndef PELMORA_SCHED_TASK_H_
#define PELMORA_SCHED_TASK_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"
#include "pelmora/sched/job_file.h"
#include "pelmora/sched/task_store.h"

namespace pelmora {

// A task's state as State reports it.
enum class TaskStatus : int32_t {
  Ready = 267008,
  Running = 267009,
  Disabled = 267010,
  HasNotRun = 267011,
  NoMoreRuns = 267012,
  NotScheduled = 267013,
  Terminated = 267014,
  NoValidTriggers = 267015,
  EventTrigger = 267016,
};

// A task's flags (combinable).
enum class TaskFlags : int32_t {
  Interactive = 1,
  DeleteWhenDone = 2,
  Disabled = 4,
  StartOnlyIfIdle = 16,
  KillOnIdleEnd = 32,
  DontStartIfOnBatteries = 64,
  KillIfGoingOnBatteries = 128,
  RunOnlyIfDocked = 256,
  Hidden = 512,
  RunIfConnectedToInternet = 1024,
  RestartOnIdleResume = 2048,
};

namespace sched {
// Flag bits above the public ones that ask the runner to act (set by Run and Terminate).
inline constexpr uint32_t kRunRequestFlag = 0x04000000;
inline constexpr uint32_t kTerminateRequestFlag = 0x08000000;
}  // namespace sched

class PELMORA_API Task {
 public:
  // A task named `name` over `store`, with the file contents `job`. `stored` tells whether the
  // file `file_name` exists (an activated or added task) or not yet (a created one).
  Task(std::shared_ptr<sched::TaskStore> store, std::string name, std::string file_name,
       sched::JobFile job, bool stored);

  // The program, its parameters, the working folder, the comment and the creator. Setting an
  // application name without '/' stores the path found on $PATH when there is one.
  std::string ApplicationName() const { return job_.application_name; }
  void SetApplicationName(const std::string& value);
  std::string CommandLine() const { return job_.parameters; }
  void SetCommandLine(const std::string& value) { job_.parameters = value; }
  std::string Comment() const { return job_.comment; }
  void SetComment(const std::string& value) { job_.comment = value; }
  std::string Creator() const { return job_.author; }
  void SetCreator(const std::string& value) { job_.author = value; }

  // How many times, and how many minutes apart, the runner retries a run that could not start
  // or ended with a non-zero exit code. Values below 0 raise 380 "Invalid property value".
  int16_t ErrorRetryCount() const;
  void SetErrorRetryCount(int16_t value);
  int16_t ErrorRetryInterval() const;
  void SetErrorRetryInterval(int16_t value);

  // The exit code of the last run: 0 when the task never ran; raises the start error when the
  // last run could not start; raises 6 "Overflow" above 32767.
  int16_t ExitCode() const;

  // The public flags (the low 15 bits); writing keeps the runner's request bits.
  int32_t flags() const { return static_cast<int32_t>(job_.flags & 0x7FFF); }
  void Setflags(int32_t value);

  // True when the Disabled flag (4) is clear; writing changes only that bit.
  bool Enabled() const;
  void SetEnabled(bool value);

  // Milliseconds a run may last before the runner kills it; -1 (all bits set) is unlimited.
  int32_t MaxRunTime() const { return static_cast<int32_t>(job_.max_run_time); }
  void SetMaxRunTime(int32_t value) { job_.max_run_time = static_cast<uint32_t>(value); }

  // A priority class: 0x20 normal, 0x40 idle, 0x80 high, 0x100 real time; other values raise
  // the invalid-argument result.
  int32_t Priority() const { return static_cast<int32_t>(job_.priority); }
  void SetPriority(int32_t value);

  // Running while a run is in progress, Disabled when the flag is set, otherwise the status the
  // file holds.
  TaskStatus State() const;

  std::string WorkingDirectory() const { return job_.working_directory; }
  void SetWorkingDirectory(const std::string& value) { job_.working_directory = value; }

  // The local start time of the last run, or the empty date when the task never ran.
  Date LastRunTime() const;

  // The local time of the next run of an enabled time trigger after now, or the empty date
  // (disabled task, no valid triggers, only event triggers).
  Date NextRunTime() const;

  // The task file's full path on its computer.
  std::string FileName() const;
  std::string Name() const { return name_; }

  // Writes the task file. A stored task keeps the runner's bytes (exit code, last run, running
  // count, requests); a created one is written new (kFileExists when the name is taken).
  void Save();

  // The Linux user the task runs as (written by Save). The password is not needed and is kept
  // only in this object. GetAccountInfo raises kFileNotFound when none was ever set.
  void SetAccountInfo(const std::string& accountName, const std::string& Password);
  std::string GetAccountInfo() const;

  // Starts the task now: through the runner watching its folder, or here (blocking until the run
  // ends) when none watches. Raises kSchedTaskNotReady for a task that is not scheduled.
  void Run();

  // Asks the runner to stop the running task; kSchedTaskNotRunning when it is not running.
  void Terminate();

  // There is no property sheet on Linux: raises kNotImplemented.
  void ShowProperties(int32_t hWnd);

  // The task's triggers (a lone placeholder trigger of an unscheduled file is not one), and
  // replacing them; Save writes them.
  std::vector<sched::JobTrigger> Triggers() const;
  void SetTriggers(std::vector<sched::JobTrigger> triggers);

  // The file contents as held in memory, the store and the file name.
  const sched::JobFile& Job() const { return job_; }
  const std::shared_ptr<sched::TaskStore>& Store() const { return store_; }

  // Used by TaskScheduler::Add: writes the task new as `file_name`; returns the result code.
  uint32_t AddAs(const std::string& file_name);

 private:
  [[noreturn]] void Raise(uint32_t code) const;
  void Check(uint32_t code) const;
  sched::JobFile ReadStored() const;
  void WriteRequest(uint32_t flag);
  uint32_t Write(bool must_be_new);

  std::shared_ptr<sched::TaskStore> store_;
  std::string name_;
  std::string file_name_;
  sched::JobFile job_;
  bool stored_ = false;
  std::optional<std::string> account_;
  std::string password_;
};

}  // namespace pelmora

#endif  // PELMORA_SCHED_TASK_H_
