#include "tools/pelmora/admin_transfers.h"

#include <fmt/format.h>

#include <filesystem>

#include "pelmora/admin/rc_file_info.h"
#include "tools/pelmora/transfer_watch.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::RCFileInfo;
namespace fs = std::filesystem;

constexpr const char* kDateForm = "yyyy-mm-dd hh:nn:ss";

// The last component of a remote path (either separator).
std::string RemoteName(const std::string& remote) {
  size_t slash = remote.find_last_of("\\/");
  return slash == std::string::npos ? remote : remote.substr(slash + 1);
}

std::string LongLine(const RCFileInfo& info) {
  return fmt::format("{} {:>11} {} {}\n", AttributeLetters(info.FileAttribues()),
                     info.FileSize(), info.LastWriteTime().Format(kDateForm), info.FileName());
}

// The remote file's size for the progress bar, asked only when a bar is shown; 0 when unknown.
uint64_t RemoteSize(HostSession& session, const std::string& remote) {
  RCFileInfo info;
  if (!session.Output().ShowsProgress() || !session.Fso().GetFileInfo(remote, info)) return 0;
  return info.FileSize() > 0 ? static_cast<uint64_t>(info.FileSize()) : 0;
}

uint64_t LocalSize(const std::string& path) {
  std::error_code error;
  uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

}  // namespace

std::string AttributeLetters(int32_t attributes) {
  static constexpr std::pair<int32_t, char> kLetters[] = {
      {0x10, 'd'}, {0x01, 'r'}, {0x02, 'h'}, {0x04, 's'}, {0x20, 'a'}};
  std::string letters;
  for (auto [bit, letter] : kLetters) letters += (attributes & bit) ? letter : '-';
  return letters;
}

std::string DownloadTarget(const std::string& remote, const std::string& local,
                           const std::string& host) {
  std::string name = RemoteName(remote);
  if (!host.empty()) return (fs::path(local.empty() ? "." : local) / host / name).string();
  if (local.empty()) return name;
  std::error_code error;
  if (local.back() == '/' || fs::is_directory(local, error)) return (fs::path(local) / name).string();
  return local;
}

int ListFolder(HostSession& session, const std::string& folder, bool long_form) {
  pelmora::admin::RCFileInfoCollection entries = session.Fso().GetFolderFiles(folder);
  if (session.Fso().ErrCode() != 0) return session.FailFromClient(kExitFailed);
  std::string text;
  for (const auto& entry : entries) text += long_form ? LongLine(*entry) : entry->FileName() + "\n";
  if (!text.empty()) session.Output().Write(text);
  return kExitOk;
}

int Stat(HostSession& session, const std::string& path) {
  RCFileInfo info;
  if (!session.Fso().GetFileInfo(path, info)) return session.FailFromClient(kExitFailed);
  session.Output().Write(fmt::format(
      "Name:       {}\nPath:       {}\nFolder:     {}\nSize:       {}\n"
      "Attributes: {} (0x{:X})\nCreated:    {}\nAccessed:   {}\nModified:   {}\n",
      info.FileName(), info.FullPathName(), info.ParentPath(), info.FileSize(),
      AttributeLetters(info.FileAttribues()), static_cast<uint32_t>(info.FileAttribues()),
      info.CreationTime().Format(kDateForm), info.LastAccessTime().Format(kDateForm),
      info.LastWriteTime().Format(kDateForm)));
  return kExitOk;
}

int Get(HostSession& session, const std::string& remote, const std::string& local) {
  std::string target =
      DownloadTarget(remote, local, session.Options().fleet ? session.Display() : "");
  if (session.Options().fleet) {
    std::error_code error;
    fs::create_directories(fs::path(target).parent_path(), error);
    if (error) return session.Fail(kExitUsage, {0, "cannot create " + target + ": " + error.message()});
  }
  TransferWatch watch(session.Output(), target, RemoteSize(session, remote));
  bool done = session.Fso().Download(target, remote);
  watch.Stop(done ? std::optional<uint64_t>(LocalSize(target)) : std::nullopt);
  return done ? kExitOk : session.FailFromClient(kExitFailed);
}

int Put(HostSession& session, const std::string& local, const std::string& remote) {
  std::string target = remote;
  if (!target.empty() && (target.back() == '\\' || target.back() == '/')) {
    target += fs::path(local).filename().string();
  }
  uint64_t size = LocalSize(local);
  TransferWatch watch(session.Output(), local, size);
  bool done = session.Fso().Upload(local, target);
  watch.Stop(done ? std::optional<uint64_t>(size) : std::nullopt);
  return done ? kExitOk : session.FailFromClient(kExitFailed);
}

int Fetch(HostSession& session, const std::string& remote) {
  std::string local;
  if (!session.Fso().getUpdatedServerFileToTempFolder(remote, local)) {
    return session.FailFromClient(kExitFailed);
  }
  session.Output().Write(local + "\n");
  return kExitOk;
}

}  // namespace pelmora_tool
