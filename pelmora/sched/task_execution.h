// Running one stored task: building its command line, marking it running in its file, and
// recording how the run ended. The runner uses the pieces for every run it starts; RunTaskHere
// puts them together for Task::Run when no runner watches the folder.
//
//   uint32_t start_error = 0;
//   std::optional<ChildProcess> child = StartTaskRun(folder, "backup.job", job, now, start_error);
//   ... wait for child->exit_fd(), kill the group after MaxRunTime ...
//   FinishTaskRun(folder, "backup.job", child->Wait(), /*killed=*/false, now);
#ifndef PELMORA_SCHED_TASK_EXECUTION_H_
#define PELMORA_SCHED_TASK_EXECUTION_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/common/child_process.h"
#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"
#include "pelmora/sched/job_file.h"

namespace pelmora::sched {

// Splits task parameters into words the way a program's start-up code does: blanks separate
// words, double quotes group them, \" is a quote and backslashes before a quote pair up.
PELMORA_API std::vector<std::string> SplitParameters(const std::string& parameters);

// `word` quoted for /bin/sh (single quotes; a word of safe characters is left bare).
PELMORA_API std::string ShellQuote(const std::string& word);

// The shell command line of a task: its application and each parameter word, quoted.
PELMORA_API std::string TaskCommandLine(const JobFile& job);

// The user a task runs as: the owner of its file; its account record instead when the file is
// root's (or the record names the owner). "?" (no user) when the file or its owner is unknown.
PELMORA_API std::string TaskAccount(const std::string& folder, const std::string& file_name);

// Marks the task running (running count up, status RUNNING, last run time `now`, request bits
// cleared) and starts its program as its user in its working folder. On failure to start,
// records the start error in the file (and returns it in `start_error`) and returns nullopt.
PELMORA_API std::optional<ChildProcess> StartTaskRun(const std::string& folder,
                                                     const std::string& file_name,
                                                     const JobFile& job, const Date& now,
                                                     uint32_t& start_error);

// Records the end of a run: the exit code (128 + the signal for a killed program), the status
// (TERMINATED when `killed`, otherwise READY or NO_MORE_RUNS), the running count down. With
// `exit` nullopt (the start failed) only the status and the running count change. Returns true
// when the task asks to be deleted when done and has no further run (the caller deletes it).
PELMORA_API bool FinishTaskRun(const std::string& folder, const std::string& file_name,
                               std::optional<ChildExit> exit, bool killed, const Date& now);

// Clears the request bits `bits` in the task file's flags, in place.
PELMORA_API void ClearRequests(const std::string& folder, const std::string& file_name,
                               uint32_t bits);

// Deletes a task file and its account record.
PELMORA_API void DeleteTaskFiles(const std::string& folder, const std::string& file_name);

// The milliseconds a run may last, or nullopt for no limit (0 or all bits set).
PELMORA_API std::optional<int64_t> RunTimeLimit(const JobFile& job);

// Runs the task file `file_name` of the local folder `folder` and waits for it (at most its
// MaxRunTime, then its process group is killed), recording the run in the file. Returns 0, or
// the result code when the file cannot be read. Blocks for the run.
PELMORA_API uint32_t RunTaskHere(const std::string& folder, const std::string& file_name);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TASK_EXECUTION_H_
