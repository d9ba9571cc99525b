// The local task folder. Writes go to a temporary file that is renamed over the task file, so a
// runner watching the folder never reads half a file; account records sit beside the task files
// as "<name>.job.account" (the user name only, no password).
#include "pelmora/sched/task_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "pelmora/common/codepage.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/platform/file_io.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/job_file.h"
#include "pelmora/sched/sched_errors.h"

namespace pelmora::sched {
namespace {

constexpr char kAccountSuffix[] = ".account";

bool HasJobSuffix(const std::string& name) {
  if (name.size() <= 4) return false;
  std::string suffix = name.substr(name.size() - 4);
  std::transform(suffix.begin(), suffix.end(), suffix.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return suffix == ".job";
}

class LocalTaskStore : public TaskStore {
 public:
  explicit LocalTaskStore(std::string folder) : folder_(std::move(folder)) {}

  std::string Folder() const override { return folder_; }

  uint32_t List(std::vector<std::string>& names) override {
    names.clear();
    platform::UniqueDir dir(opendir(folder_.c_str()));
    if (!dir) return errno == ENOENT ? 0 : ResultFromErrno(errno);
    while (dirent* entry = readdir(dir.get())) {
      std::string name = entry->d_name;
      if (HasJobSuffix(name) && CheckTaskFileName(name) == 0) names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return 0;
  }

  uint32_t Read(const std::string& file_name, std::string& bytes) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    int error = internal::ReadWholeFile(Path(file_name), kMaxJobFileSize, bytes);
    if (error == EFBIG) return kSchedInvalidTask;
    return error == 0 ? 0 : ResultFromErrno(error);
  }

  uint32_t Write(const std::string& file_name, const std::string& bytes,
                 bool must_be_new) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    if (!pelmora::internal::CreateFolderPath(folder_ + "/")) return ResultFromErrno(errno);
    int error = internal::ReplaceFile(Path(file_name), bytes, must_be_new);
    return error == 0 ? 0 : ResultFromErrno(error);
  }

  uint32_t Delete(const std::string& file_name) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    if (unlink(Path(file_name).c_str()) != 0) return ResultFromErrno(errno);
    unlink((Path(file_name) + kAccountSuffix).c_str());
    return 0;
  }

  uint32_t ReadAccount(const std::string& file_name, std::string& account) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    int error = internal::ReadWholeFile(Path(file_name) + kAccountSuffix, 256, account);
    if (error == EFBIG) return kSchedInvalidTask;
    return error == 0 ? 0 : ResultFromErrno(error);
  }

  uint32_t WriteAccount(const std::string& file_name, const std::string& account) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    if (!pelmora::internal::CreateFolderPath(folder_ + "/")) return ResultFromErrno(errno);
    int error = internal::ReplaceFile(Path(file_name) + kAccountSuffix, account, false);
    return error == 0 ? 0 : ResultFromErrno(error);
  }

  bool RunnerWatching() override {
    int fd = open(RunnerLockPath(folder_).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    bool held = flock(fd, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(fd);
    return held;
  }

 private:
  // The path of `file_name`, or of the file whose name matches it without regard to case (task
  // names are case-insensitive, as on the platform).
  std::string Path(const std::string& file_name) const {
    std::string exact = folder_ + "/" + file_name;
    if (access(exact.c_str(), F_OK) == 0) return exact;
    std::vector<std::string> names;
    if (platform::UniqueDir dir(opendir(folder_.c_str())); dir) {
      while (dirent* entry = readdir(dir.get())) {
        if (EqualsFolded(entry->d_name, file_name)) names.push_back(entry->d_name);
      }
    }
    std::sort(names.begin(), names.end());
    return names.empty() ? exact : folder_ + "/" + names.front();
  }

  std::string folder_;
};

std::string EnvOr(const char* name, const std::string& fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::string(value) : fallback;
}

}  // namespace

uint32_t CheckTaskFileName(const std::string& file_name) {
  if (file_name.empty() || file_name.size() > 255 || file_name[0] == '.' ||
      file_name.find_first_of(std::string("/\\\0", 3)) != std::string::npos) {
    return kInvalidArg;
  }
  return 0;
}

std::string DefaultTasksFolder() {
  std::string configured = EnvOr("PELMORA_TASKS_DIR", "");
  if (!configured.empty()) return configured;
  if (geteuid() == 0) return "/var/lib/pelmora/tasks";
  std::string data = EnvOr("XDG_DATA_HOME", EnvOr("HOME", "/tmp") + "/.local/share");
  return data + "/pelmora/tasks";
}

std::shared_ptr<TaskStore> OpenLocalTaskStore(const std::string& folder) {
  return std::make_shared<LocalTaskStore>(folder.empty() ? DefaultTasksFolder() : folder);
}

std::string RunnerLockPath(const std::string& folder) { return folder + "/.runner.lock"; }

}  // namespace pelmora::sched
