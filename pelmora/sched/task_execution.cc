#include "pelmora/sched/task_execution.h"

#include <poll.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>

#include "pelmora/common/error.h"
#include "pelmora/common/log.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_rules.h"
#include "pelmora/sched/task_store.h"
#include "pelmora/sched/trigger.h"

namespace pelmora::sched {
namespace {

std::string PathOf(const std::string& folder, const std::string& file_name) {
  return folder + "/" + file_name;
}

// Reads the task, lets `change` edit its run state and start error, and writes back just those
// bytes in place. nullopt when the file is gone or corrupt.
std::optional<JobFile> PatchTask(const std::string& folder, const std::string& file_name,
                                 const std::function<void(JobFile&)>& change) {
  std::string path = PathOf(folder, file_name);
  std::string bytes;
  if (internal::ReadWholeFile(path, kMaxJobFileSize, bytes) != 0) return std::nullopt;
  std::optional<JobFile> job = ParseJobFile(bytes);
  if (!job) return std::nullopt;
  change(*job);
  JobState state{job->exit_code, job->status, job->flags, job->last_run, job->instance_count};
  internal::PatchFile(path, kJobStateOffset, SerializeJobState(state));
  size_t trigger_offset = static_cast<uint8_t>(bytes[22]) | static_cast<uint8_t>(bytes[23]) << 8;
  if (job->reserved_data.size() >= 4) {
    internal::PatchFile(path, trigger_offset - job->reserved_data.size(),
                        job->reserved_data.substr(0, 4));
  }
  return job;
}

// Waits for the child to exit, discarding its output; kills it and everything it started once
// `limit` milliseconds have passed. False when it was killed.
bool WaitForRun(ChildProcess& child, std::optional<int64_t> limit) {
  using Clock = std::chrono::steady_clock;
  Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(limit.value_or(0));
  bool output_open = true;
  while (!child.TryReap()) {
    int timeout = -1;
    if (limit) {
      auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
      if (left <= 0) {
        child.KillTree();
        return false;
      }
      timeout = static_cast<int>(std::min<int64_t>(left, 1000));
    }
    pollfd fds[2] = {{child.exit_fd(), POLLIN, 0},
                     {output_open ? child.output_fd() : -1, POLLIN, 0}};
    if (poll(fds, 2, timeout) > 0 && fds[1].revents != 0) {
      char sink[4096];
      ssize_t n = read(child.output_fd(), sink, sizeof sink);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) output_open = false;
    }
  }
  return true;
}

bool IsBare(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) ||
         std::string_view("/._-+=:,@%").find(c) != std::string_view::npos;
}

}  // namespace

std::vector<std::string> SplitParameters(const std::string& parameters) {
  std::vector<std::string> words;
  std::string word;
  bool in_word = false, quoted = false;
  for (size_t i = 0; i < parameters.size(); ++i) {
    char c = parameters[i];
    if (c == '\\') {
      size_t run = parameters.find_first_not_of('\\', i) - i;
      if (i + run < parameters.size() && parameters[i + run] == '"') {
        word.append(run / 2, '\\');
        if (run % 2 == 1) word += '"';
        i += run - (run % 2 == 1 ? 0 : 1);
      } else {
        word.append(run, '\\');
        i += run - 1;
      }
      in_word = true;
    } else if (c == '"') {
      quoted = !quoted;
      in_word = true;
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (in_word) words.push_back(std::move(word));
      word.clear();
      in_word = false;
    } else {
      word += c;
      in_word = true;
    }
  }
  if (in_word) words.push_back(std::move(word));
  return words;
}

std::string ShellQuote(const std::string& word) {
  if (!word.empty() && std::all_of(word.begin(), word.end(), IsBare)) return word;
  std::string quoted = "'";
  for (char c : word) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string TaskCommandLine(const JobFile& job) {
  std::string line = "exec " + ShellQuote(job.application_name);
  for (const std::string& word : SplitParameters(job.parameters)) line += " " + ShellQuote(word);
  return line;
}

std::string TaskAccount(const std::string& folder, const std::string& file_name) {
  // A name no user has, so that a task whose owner cannot be told fails to start rather than
  // running as the runner's own user.
  static const std::string kNobodyKnown = "?";
  struct stat info {};
  if (stat(PathOf(folder, file_name).c_str(), &info) != 0) return kNobodyKnown;
  passwd entry{}, *found = nullptr;
  char buffer[4096];
  if (getpwuid_r(info.st_uid, &entry, buffer, sizeof buffer, &found) != 0 || found == nullptr) {
    return kNobodyKnown;
  }
  std::string owner = found->pw_name;
  // The account record counts only when root saved the task or the record names the task's own
  // user: whoever can write a task file gets no more than their own identity from it.
  std::string account;
  if (OpenLocalTaskStore(folder)->ReadAccount(file_name, account) == 0 &&
      (info.st_uid == 0 || account == owner)) {
    return account;
  }
  return owner;
}

std::optional<ChildProcess> StartTaskRun(const std::string& folder, const std::string& file_name,
                                         const JobFile& job, const Date& now,
                                         uint32_t& start_error) {
  ChildSpec launch;
  launch.command_line = TaskCommandLine(job);
  launch.working_folder = job.working_directory;
  launch.run_as = TaskAccount(folder, file_name);
  launch.track_descendants = true;  // so that a kill reaches what the task detached, too
  std::optional<ChildProcess> child;
  start_error = 0;
  try {
    child.emplace(ChildProcess::Start(launch));
  } catch (const Error& e) {
    start_error = ResultFromWin32(static_cast<uint32_t>(e.Number()));
    WriteLog(1, file_name + ": " + e.Description(), "TaskRunner", "StartTaskRun", kLogEntryError);
  }
  PatchTask(folder, file_name, [&](JobFile& j) {
    j.flags &= ~(kRunRequestFlag | kTerminateRequestFlag);
    j.last_run = SystemTimeOf(now);
    SetStartError(j, start_error);
    if (child) ++j.instance_count, j.status = kSchedTaskRunning;
  });
  return child;
}

bool FinishTaskRun(const std::string& folder, const std::string& file_name,
                   std::optional<ChildExit> exit, bool killed, const Date& now) {
  std::optional<JobFile> job = PatchTask(folder, file_name, [&](JobFile& j) {
    if (exit) {
      j.exit_code = static_cast<uint32_t>(exit->signalled ? 128 + exit->code : exit->code);
      if (j.instance_count > 0) --j.instance_count;
    }
    j.flags &= ~kTerminateRequestFlag;
    j.status = kSchedTaskReady;
    j.status = killed ? kSchedTaskTerminated : SavedStatus(j, now);
  });
  if (!job || (job->flags & static_cast<uint32_t>(TaskFlags::DeleteWhenDone)) == 0) return false;
  return job->instance_count == 0 && !NextRunOf(UserTriggers(*job), now);
}

void ClearRequests(const std::string& folder, const std::string& file_name, uint32_t bits) {
  PatchTask(folder, file_name, [bits](JobFile& j) { j.flags &= ~bits; });
}

void DeleteTaskFiles(const std::string& folder, const std::string& file_name) {
  OpenLocalTaskStore(folder)->Delete(file_name);
}

std::optional<int64_t> RunTimeLimit(const JobFile& job) {
  if (job.max_run_time == 0 || job.max_run_time == 0xFFFFFFFFu) return std::nullopt;
  return int64_t{job.max_run_time};
}

uint32_t RunTaskHere(const std::string& folder, const std::string& file_name) {
  std::string bytes;
  int error = internal::ReadWholeFile(PathOf(folder, file_name), kMaxJobFileSize, bytes);
  if (error != 0) return error == EFBIG ? kSchedInvalidTask : ResultFromErrno(error);
  std::optional<JobFile> job = ParseJobFile(bytes);
  if (!job) return kSchedInvalidTask;
  uint32_t start_error = 0;
  std::optional<ChildProcess> child =
      StartTaskRun(folder, file_name, *job, CurrentLocalTime(), start_error);
  if (!child) {
    FinishTaskRun(folder, file_name, std::nullopt, false, CurrentLocalTime());
    return 0;
  }
  bool killed = !WaitForRun(*child, RunTimeLimit(*job));
  if (FinishTaskRun(folder, file_name, child->Wait(), killed, CurrentLocalTime())) {
    DeleteTaskFiles(folder, file_name);
  }
  return 0;
}

}  // namespace pelmora::sched
