#include "pelmora/sched/task_scheduler.h"

#include "pelmora/common/codepage.h"
#include "pelmora/common/error.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/remote_task_store.h"
#include "pelmora/sched/sched_errors.h"

namespace pelmora {
namespace {

constexpr char kSource[] = "Pelmora.TaskScheduler";

void Check(uint32_t code) {
  if (code != 0) sched::RaiseSchedError(code, kSource);
}

std::string Lower(std::string_view text) { return FoldCase(text); }

// The computer part of "\\host" or "host"; "" for the local computer.
std::string ComputerOf(const std::string& value) {
  std::string name = value;
  while (!name.empty() && (name[0] == '\\' || name[0] == '/')) name.erase(0, 1);
  std::string local = LocalComputerName();
  if (Lower(name) == Lower(local) || Lower(name) == "localhost") return "";
  return name;
}

}  // namespace

std::string CompleteTaskName(const std::string& name) {
  if (name.size() >= 4 && Lower(name.substr(name.size() - 4)) == ".job") return name;
  return name + ".job";
}

TaskScheduler::TaskScheduler() : TaskScheduler(sched::OpenLocalTaskStore()) {}

TaskScheduler::TaskScheduler(std::shared_ptr<sched::TaskStore> store)
    : store_(std::move(store)), remote_opener_(&sched::OpenRemoteTaskStore) {}

std::shared_ptr<Task> TaskScheduler::Item(const std::string& Name) const {
  std::string file_name = CompleteTaskName(Name);
  Check(sched::CheckTaskFileName(file_name));
  std::string bytes;
  Check(store_->Read(file_name, bytes));
  std::optional<sched::JobFile> job = sched::ParseJobFile(bytes);
  if (!job) Check(sched::kSchedInvalidTask);
  return std::make_shared<Task>(store_, file_name, file_name, std::move(*job), true);
}

std::string TaskScheduler::TargetComputer() const {
  return "\\\\" + (target_.empty() ? LocalComputerName() : target_);
}

void TaskScheduler::SetTargetComputer(const std::string& value) {
  std::string computer = ComputerOf(value);
  std::shared_ptr<sched::TaskStore> store =
      computer.empty() ? sched::OpenLocalTaskStore() : remote_opener_("\\\\" + computer);
  store_ = std::move(store);
  target_ = computer;
  Refresh();
}

std::shared_ptr<Task> TaskScheduler::CreateTask(const std::string& Name) const {
  if (Name.empty()) throw RuntimeError(5, "Add");
  return std::make_shared<Task>(store_, Name, Name + ".job", sched::NewJobFile(), false);
}

void TaskScheduler::Add(const std::shared_ptr<Task>& NewTask) {
  if (NewTask == nullptr || NewTask->Name().empty()) throw RuntimeError(5, "Add");
  if (NewTask->Name().find('.') != std::string::npos) Check(sched::kInvalidArg);
  std::string file_name = NewTask->Name() + ".job";
  Check(sched::CheckTaskFileName(file_name));
  if (NewTask->Store() != store_) {
    // A task created for another computer is added here as a copy.
    Task copy(store_, NewTask->Name(), file_name, NewTask->Job(), false);
    Check(copy.AddAs(file_name));
  } else {
    Check(NewTask->AddAs(file_name));
  }
  Refresh();
}

void TaskScheduler::Refresh() {
  names_.RemoveAll();
  std::vector<std::string> names;
  Check(store_->List(names));
  for (std::string& name : names) {
    if (!names_.Exists(name)) names_.Add(std::move(name), true);
  }
}

void TaskScheduler::Remove(const std::string& Name) {
  std::string file_name = CompleteTaskName(Name);
  Check(sched::CheckTaskFileName(file_name));
  Check(store_->Delete(file_name));
  if (names_.Exists(file_name)) names_.Remove(file_name);
}

}  // namespace pelmora
