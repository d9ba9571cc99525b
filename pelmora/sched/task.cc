#include "pelmora/sched/task.h"

#include <unistd.h>

#include <cstdlib>

#include "pelmora/common/error.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/sched_errors.h"
#include "pelmora/sched/task_execution.h"
#include "pelmora/sched/task_rules.h"
#include "pelmora/sched/trigger.h"

namespace pelmora {

using sched::JobFile;
using sched::JobTrigger;

namespace {

constexpr char kSource[] = "Pelmora.Task";

// The first executable `name` in $PATH, or `name` itself.
std::string SearchPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (name.empty() || name.find('/') != std::string::npos || path == nullptr) return name;
  std::string folders = path;
  size_t start = 0;
  while (start <= folders.size()) {
    size_t end = folders.find(':', start);
    if (end == std::string::npos) end = folders.size();
    std::string candidate = folders.substr(start, end - start) + "/" + name;
    if (end > start && access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return name;
}

}  // namespace

Task::Task(std::shared_ptr<sched::TaskStore> store, std::string name, std::string file_name,
           JobFile job, bool stored)
    : store_(std::move(store)),
      name_(std::move(name)),
      file_name_(std::move(file_name)),
      job_(std::move(job)),
      stored_(stored) {}

void Task::Raise(uint32_t code) const { sched::RaiseSchedError(code, kSource); }

void Task::Check(uint32_t code) const {
  if (code != 0) Raise(code);
}

void Task::SetApplicationName(const std::string& value) {
  job_.application_name = SearchPath(value);
}

int16_t Task::ErrorRetryCount() const { return static_cast<int16_t>(job_.error_retry_count); }

void Task::SetErrorRetryCount(int16_t value) {
  if (value < 0) throw RuntimeError(380, kSource);
  job_.error_retry_count = static_cast<uint16_t>(value);
}

int16_t Task::ErrorRetryInterval() const { return static_cast<int16_t>(job_.error_retry_interval); }

void Task::SetErrorRetryInterval(int16_t value) {
  if (value < 0) throw RuntimeError(380, kSource);
  job_.error_retry_interval = static_cast<uint16_t>(value);
}

int16_t Task::ExitCode() const {
  if (job_.last_run.IsZero()) return 0;
  uint32_t start_error = sched::StartError(job_);
  if ((start_error & 0x80000000u) != 0) Raise(start_error);
  if (job_.exit_code > 32767) throw RuntimeError(6, kSource);
  return static_cast<int16_t>(job_.exit_code);
}

void Task::Setflags(int32_t value) {
  job_.flags = (job_.flags & ~0xFFFFu) | (static_cast<uint32_t>(value) & 0x7FFF);
}

bool Task::Enabled() const {
  return (job_.flags & static_cast<uint32_t>(TaskFlags::Disabled)) == 0;
}

void Task::SetEnabled(bool value) {
  int32_t bit = static_cast<int32_t>(TaskFlags::Disabled);
  Setflags(value ? (flags() & ~bit) : (flags() | bit));
}

void Task::SetPriority(int32_t value) {
  if (value != 0x20 && value != 0x40 && value != 0x80 && value != 0x100) {
    Raise(sched::kInvalidArg);
  }
  job_.priority = static_cast<uint32_t>(value);
}

TaskStatus Task::State() const {
  if (job_.instance_count > 0) return TaskStatus::Running;
  if (!Enabled()) return TaskStatus::Disabled;
  return static_cast<TaskStatus>(job_.status);
}

Date Task::LastRunTime() const { return sched::DateOf(job_.last_run); }

Date Task::NextRunTime() const {
  if (!Enabled()) return Date();
  return sched::NextRunOf(Triggers(), CurrentLocalTime()).value_or(Date());
}

std::string Task::FileName() const { return store_->Folder() + "/" + file_name_; }

JobFile Task::ReadStored() const {
  std::string bytes;
  Check(store_->Read(file_name_, bytes));
  std::optional<JobFile> job = sched::ParseJobFile(bytes);
  if (!job) Raise(sched::kSchedInvalidTask);
  return *job;
}

uint32_t Task::Write(bool must_be_new) {
  JobFile job = job_;
  Date now = CurrentLocalTime();
  if (job.triggers.empty()) sched::PutTriggers(job, {}, now);
  job.status = sched::SavedStatus(job, now);
  if (uint32_t failed = store_->Write(file_name_, sched::SerializeJobFile(job), must_be_new)) {
    return failed;
  }
  if (account_) {
    if (uint32_t failed = store_->WriteAccount(file_name_, *account_)) return failed;
  }
  job_ = std::move(job);
  stored_ = true;
  return 0;
}

void Task::Save() {
  if (!stored_) return Check(Write(true));
  JobFile disk = ReadStored();
  // The runner owns the run results and the requests; keep what it wrote since we read.
  job_.exit_code = disk.exit_code;
  job_.last_run = disk.last_run;
  job_.instance_count = disk.instance_count;
  // NOT_SCHEDULED in memory marks triggers removed here; otherwise the runner's status holds.
  if (job_.status != sched::kSchedTaskNotScheduled) job_.status = disk.status;
  job_.flags = (disk.flags & ~0xFFFFu) | (job_.flags & 0xFFFFu);
  job_.reserved_data = disk.reserved_data;
  Check(Write(false));
}

uint32_t Task::AddAs(const std::string& file_name) {
  file_name_ = file_name;
  return Write(true);
}

void Task::SetAccountInfo(const std::string& accountName, const std::string& Password) {
  account_ = accountName;
  password_ = Password;
}

std::string Task::GetAccountInfo() const {
  if (account_) return *account_;
  std::string account;
  Check(store_->ReadAccount(file_name_, account));
  return account;
}

void Task::WriteRequest(uint32_t flag) {
  JobFile disk = ReadStored();
  disk.flags |= flag;
  Check(store_->Write(file_name_, sched::SerializeJobFile(disk), false));
  job_.flags |= flag;
}

void Task::Run() {
  if (!stored_ || job_.status == sched::kSchedTaskNotScheduled || job_.application_name.empty()) {
    Raise(sched::kSchedTaskNotReady);
  }
  if (store_->RunnerWatching()) return WriteRequest(sched::kRunRequestFlag);
  Check(sched::RunTaskHere(store_->Folder(), file_name_));
  std::string bytes;
  if (store_->Read(file_name_, bytes) == sched::kFileNotFound) {
    stored_ = false;  // deleted when done
    return;
  }
  JobFile disk = ReadStored();
  job_.exit_code = disk.exit_code;
  job_.status = disk.status;
  job_.last_run = disk.last_run;
  job_.instance_count = disk.instance_count;
  job_.reserved_data = disk.reserved_data;
}

void Task::Terminate() {
  if (!stored_ || ReadStored().instance_count == 0) Raise(sched::kSchedTaskNotRunning);
  WriteRequest(sched::kTerminateRequestFlag);
}

void Task::ShowProperties(int32_t /*hWnd*/) {
  throw Error(static_cast<int32_t>(sched::kNotImplemented),
              "There is no task property sheet on Linux: change the task through its properties "
              "and Save, or with pelmora tasks set.",
              kSource);
}

std::vector<JobTrigger> Task::Triggers() const { return sched::UserTriggers(job_); }

void Task::SetTriggers(std::vector<JobTrigger> triggers) {
  bool none = triggers.empty();
  sched::PutTriggers(job_, std::move(triggers), CurrentLocalTime());
  // A placeholder is recognised by NOT_SCHEDULED; real triggers must not look like one.
  if (none) job_.status = sched::kSchedTaskNotScheduled;
  if (!none && job_.status == sched::kSchedTaskNotScheduled) {
    job_.status = sched::kSchedTaskHasNotRun;
  }
}

}  // namespace pelmora
