// TaskScheduler: the scheduled tasks of one computer, as a list of task names and the Task
// objects for them.
//
//   TaskScheduler scheduler;                      // this computer's task folder
//   for (const std::string& name : scheduler.ItemNames()) ...   // "backup.job", ...
//   std::shared_ptr<Task> task = scheduler.Item("backup");      // opens backup.job
//   scheduler.SetTargetComputer("\\\\files01");   // the tasks of another machine
//
// Failures raise pelmora::Error with the result code and its text (sched_errors.h) and the source
// "Pelmora.TaskScheduler"; an empty name in CreateTask or Add raises 5 with the source "Add".
// Members that touch the store block for local file operations or, for another computer, for
// requests to its administration service.
#ifndef PELMORA_SCHED_TASK_SCHEDULER_H_
#define PELMORA_SCHED_TASK_SCHEDULER_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/common/dictionary.h"
#include "pelmora/platform/export.h"
#include "pelmora/sched/task.h"
#include "pelmora/sched/task_store.h"

namespace pelmora {

class PELMORA_API TaskScheduler {
 public:
  // Opens a store for a computer name ("\\host"); raises when it cannot.
  using RemoteStoreOpener = std::function<std::shared_ptr<sched::TaskStore>(const std::string&)>;

  // The local computer's task folder (DefaultTasksFolder). Does not read it.
  TaskScheduler();

  // A scheduler over `store` (tests, and the tool's --folder option).
  explicit TaskScheduler(std::shared_ptr<sched::TaskStore> store);

  // The names held since the last Refresh, in enumeration order ("backup.job").
  std::vector<std::string> ItemNames() const { return names_.Keys(); }

  // The stored task `Name` (".job" appended unless it ends so, in any case). Raises
  // kFileNotFound when there is none and kSchedInvalidTask for a corrupt file.
  std::shared_ptr<Task> Item(const std::string& Name) const;

  // "\\" and the computer's name; the local computer when none was set. Setting "" or this
  // computer's name selects the local folder; another name manages that computer's tasks
  // through its administration service. Setting ends with Refresh.
  std::string TargetComputer() const;
  void SetTargetComputer(const std::string& value);

  // A new task named `Name`, not stored until Add or Save. Raises 5 (source "Add") when the
  // name is empty.
  std::shared_ptr<Task> CreateTask(const std::string& Name) const;

  // Stores `NewTask` as "<Name>.job", then Refresh. Raises 5 (source "Add") for an empty name,
  // kInvalidArg for a name holding '.', '/' or '\', kFileExists when the name is taken.
  void Add(const std::shared_ptr<Task>& NewTask);

  // Reads the task names again.
  void Refresh();

  // Deletes the task `Name` (completed as for Item) and drops the name. Raises kFileNotFound.
  void Remove(const std::string& Name);

  // Replaces how remote stores are opened (by default through the administration client).
  void SetRemoteStoreOpener(RemoteStoreOpener opener) { remote_opener_ = std::move(opener); }

  const std::shared_ptr<sched::TaskStore>& Store() const { return store_; }

 private:
  std::shared_ptr<sched::TaskStore> store_;
  std::string target_;  // "" for the local computer
  OrderedDictionary<bool> names_;
  RemoteStoreOpener remote_opener_;
};

// `name` with ".job" appended unless its last four characters are ".job" in any case.
PELMORA_API std::string CompleteTaskName(const std::string& name);

}  // namespace pelmora

#endif  // PELMORA_SCHED_TASK_SCHEDULER_H_
