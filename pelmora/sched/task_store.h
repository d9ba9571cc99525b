// Where a computer's tasks live: a folder of .job files, on this machine or, through the
// administration service, on another one.
//
//   auto store = OpenLocalTaskStore();          // the default task folder
//   std::vector<std::string> names;
//   uint32_t result = store->List(names);       // {"backup.job", ...}, 0 on success
//
// Every member returns a result code (0 on success, otherwise a code from sched_errors.h) rather
// than raising, so the task objects raise with their own source. File names are plain names
// ("backup.job"): CheckTaskFileName refuses anything that could leave the folder.
#ifndef PELMORA_SCHED_TASK_STORE_H_
#define PELMORA_SCHED_TASK_STORE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pelmora/platform/export.h"

namespace pelmora::sched {

class PELMORA_API TaskStore {
 public:
  virtual ~TaskStore() = default;

  // The task folder as a path the store's computer understands.
  virtual std::string Folder() const = 0;

  // The names of the .job files (suffix compared without regard to case), sorted by name.
  virtual uint32_t List(std::vector<std::string>& names) = 0;

  // The bytes of a task file; kFileNotFound when it is missing, kSchedInvalidTask when it is
  // larger than a task file can be.
  virtual uint32_t Read(const std::string& file_name, std::string& bytes) = 0;

  // Writes a whole task file so that readers see either the old or the new bytes. With
  // `must_be_new`, kFileExists when the file is already there.
  virtual uint32_t Write(const std::string& file_name, const std::string& bytes,
                         bool must_be_new) = 0;

  // Deletes a task file and its account record; kFileNotFound when the file is missing.
  virtual uint32_t Delete(const std::string& file_name) = 0;

  // The Linux user a task runs as, from its account record; kFileNotFound when none is set.
  virtual uint32_t ReadAccount(const std::string& file_name, std::string& account) = 0;
  virtual uint32_t WriteAccount(const std::string& file_name, const std::string& account) = 0;

  // Whether a runner watches the folder (and so carries out run and terminate requests).
  virtual bool RunnerWatching() = 0;
};

// kInvalidArg unless `file_name` is a plain, non-empty file name: no '/', no '\', no NUL, not
// starting with '.', at most 255 bytes.
PELMORA_API uint32_t CheckTaskFileName(const std::string& file_name);

// The local task folder: $PELMORA_TASKS_DIR when set and not empty; /var/lib/pelmora/tasks for
// root; otherwise $XDG_DATA_HOME/pelmora/tasks, or ~/.local/share/pelmora/tasks.
PELMORA_API std::string DefaultTasksFolder();

// A store over a local folder (created on the first write). `folder` "" is DefaultTasksFolder().
PELMORA_API std::shared_ptr<TaskStore> OpenLocalTaskStore(const std::string& folder = "");

// The lock file a runner holds (flock, exclusive) while it watches `folder`.
PELMORA_API std::string RunnerLockPath(const std::string& folder);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_TASK_STORE_H_
