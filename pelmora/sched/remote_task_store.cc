// The remote task folder over one administration session. Files travel through a private
// temporary file on this machine: Download into it to read, write it and Upload to write.
#include "pelmora/sched/remote_task_store.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "pelmora/admin/admin_client.h"
#include "pelmora/common/error.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/system.h"
#include "pelmora/sched/internal/file_io.h"
#include "pelmora/sched/job_file.h"
#include "pelmora/sched/sched_errors.h"

namespace pelmora::sched {
namespace {

constexpr char kSource[] = "Pelmora.TaskScheduler";

// A private temporary file, removed on destruction.
class TempFile {
 public:
  TempFile() {
    std::string pattern = GetTempFolder() + "pelmora-task-XXXXXX";
    int fd = mkstemp(pattern.data());
    if (fd >= 0) {
      close(fd);
      path_ = pattern;
    }
  }
  ~TempFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  TempFile(const TempFile&) = delete;
  TempFile& operator=(const TempFile&) = delete;
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

class RemoteTaskStore : public TaskStore {
 public:
  RemoteTaskStore(std::unique_ptr<admin::AdminClient> client, std::string folder)
      : client_(std::move(client)), folder_(std::move(folder)) {}

  std::string Folder() const override { return folder_; }

  uint32_t List(std::vector<std::string>& names) override {
    names.clear();
    admin::RCFileInfoCollection files = fso().GetFolderFiles(folder_);
    if (fso().ErrCode() != 0) return Failure();
    for (const auto& info : files) {
      const std::string& name = info->FileName();
      if (name.size() > 4 && strcasecmp(name.c_str() + name.size() - 4, ".job") == 0 &&
          CheckTaskFileName(name) == 0) {
        names.push_back(name);
      }
    }
    std::sort(names.begin(), names.end());
    return 0;
  }

  uint32_t Read(const std::string& file_name, std::string& bytes) override {
    return Fetch(file_name, kMaxJobFileSize, bytes);
  }

  uint32_t Write(const std::string& file_name, const std::string& bytes,
                 bool must_be_new) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    if (must_be_new && fso().FileExists(PathOf(file_name))) return kFileExists;
    return Send(PathOf(file_name), bytes);
  }

  uint32_t Delete(const std::string& file_name) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    if (!fso().FileExists(PathOf(file_name))) return kFileNotFound;
    if (!fso().DeleteRemoteFile(PathOf(file_name))) return Failure();
    if (fso().FileExists(PathOf(file_name) + ".account")) {
      fso().DeleteRemoteFile(PathOf(file_name) + ".account");
    }
    return 0;
  }

  uint32_t ReadAccount(const std::string& file_name, std::string& account) override {
    return Fetch(file_name + ".account", 256, account);
  }

  uint32_t WriteAccount(const std::string& file_name, const std::string& account) override {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    return Send(PathOf(file_name) + ".account", account);
  }

  // The service hosts a runner beside its task folder.
  bool RunnerWatching() override { return true; }

 private:
  admin::RCFSO& fso() { return client_->FileSystemClient(); }
  std::string PathOf(const std::string& file_name) const { return folder_ + "\\" + file_name; }

  uint32_t Failure() {
    int32_t code = fso().ErrCode();
    if (code == errors::kInvalidDataSize) return kFileNotFound;
    return code > 0 && code <= 0xFFFF ? ResultFromWin32(static_cast<uint32_t>(code)) : kFail;
  }

  uint32_t Fetch(const std::string& file_name, size_t limit, std::string& bytes) {
    if (uint32_t bad = CheckTaskFileName(file_name)) return bad;
    TempFile local;
    if (local.path().empty()) return kFail;
    if (!fso().Download(local.path(), PathOf(file_name))) return Failure();
    int error = internal::ReadWholeFile(local.path(), limit, bytes);
    if (error == EFBIG) return kSchedInvalidTask;
    return error == 0 ? 0 : ResultFromErrno(error);
  }

  uint32_t Send(const std::string& remote_path, const std::string& bytes) {
    TempFile local;
    if (local.path().empty()) return kFail;
    if (int error = internal::ReplaceFile(local.path(), bytes, false)) return ResultFromErrno(error);
    return fso().Upload(local.path(), remote_path) ? 0 : Failure();
  }

  std::unique_ptr<admin::AdminClient> client_;
  std::string folder_;
};

[[noreturn]] void RaiseClientError(const admin::AdminClient& client) {
  throw Error(client.ErrNumber(), client.ErrDescription(), kSource);
}

}  // namespace

std::shared_ptr<TaskStore> OpenRemoteTaskStore(const std::string& computer) {
  std::string host = computer;
  while (!host.empty() && (host[0] == '\\' || host[0] == '/')) host.erase(0, 1);
  auto client = std::make_unique<admin::AdminClient>();
  if (size_t colon = host.rfind(':'); colon != std::string::npos) {
    client->SetServicePort(std::atoi(host.c_str() + colon + 1));
    host.resize(colon);
  }
  if (!client->Connect(host)) RaiseClientError(*client);
  std::string folder = client->FileSystemClient().GetPathWithKey("Tasks");
  if (folder.empty()) {
    const admin::RCFSO& fso = client->FileSystemClient();
    if (fso.ErrCode() != 0) throw Error(fso.ErrCode(), fso.ErrDescription(), kSource);
    throw Error(static_cast<int32_t>(kFileNotFound),
                "The administration service of " + computer + " publishes no task folder.",
                kSource);
  }
  return std::make_shared<RemoteTaskStore>(std::move(client), folder);
}

}  // namespace pelmora::sched
