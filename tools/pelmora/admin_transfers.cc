#include "tools/pelmora/admin_transfers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/platform/file_io.h"
#include "tools/pelmora/admin_requests.h"
#include "tools/pelmora/part_file.h"
#include "tools/pelmora/remote_wildcards.h"
#include "tools/pelmora/transfer_watch.h"

namespace pelmora_tool {
namespace {

using pelmora::admin::RCFileInfo;
namespace fs = std::filesystem;

// The last component of a remote path (either separator).
std::string RemoteName(const std::string& remote) {
  size_t slash = remote.find_last_of("\\/");
  return slash == std::string::npos ? remote : remote.substr(slash + 1);
}


// Downloads `remote` into `part`: only the rest when the part kept by an earlier get -C holds
// the first part of the same file and the service has the download from an offset, else the
// whole file (also when the service finds the file changed since it was looked at).
bool Receive(HostSession& session, const PartFile& part, const std::string& remote,
             const RCFileInfo& info) {
  if (ResumesFrom(part.KeptBytes(), part.KeptSecond(), info) && session.Resumes()) {
    const bool verbose = session.Options().verbose;
    if (verbose) {
      session.Output().Step("resuming " + remote + " from byte " + std::to_string(part.KeptBytes()));
    }
    if (session.Fso().ResumeDownload(part.Path(), remote, info.FileSize(), info.LastWriteTime())) {
      return true;
    }
    if (session.Fso().ErrDescription() != pelmora::admin::kRemoteFileChanged) return false;
    if (verbose) session.Output().Step(remote + " changed meanwhile: downloading it whole");
  }
  return session.Fso().Download(part.Path(), remote);
}

}  // namespace

bool ResumesFrom(int64_t part_bytes, int64_t part_second, const RCFileInfo& info) {
  return part_bytes > 0 && part_bytes < info.FileSize() &&
         pelmora::Date::FromUnixTime(part_second + 1) > info.LastWriteTime();
}

namespace {

// Whether `target` already holds the remote file: same size and last-write second.
bool SameAsRemote(const std::string& target, const RCFileInfo& info) {
  struct stat local{};
  return stat(target.c_str(), &local) == 0 && S_ISREG(local.st_mode) &&
         local.st_size == info.FileSize() &&
         pelmora::Date::FromUnixTime(local.st_mtim.tv_sec) == info.LastWriteTime();
}

}  // namespace

std::string DownloadTarget(const std::string& remote, const std::string& local,
                           const std::string& host) {
  std::string name = RemoteName(remote);
  if (!host.empty()) return (fs::path(local.empty() ? "." : local) / host / name).string();
  if (local.empty()) return name;
  std::error_code error;
  if (local.back() == '/' || fs::is_directory(local, error)) return (fs::path(local) / name).string();
  return local;
}

int Get(HostSession& session, const std::string& remote, const std::string& local,
        bool resume) {
  // "-": standard output (in a fleet run, each host's output).
  const bool to_output = local == "-";
  std::string target = to_output ? "standard output"
                                 : DownloadTarget(remote, local,
                                                  session.Options().fleet ? session.Display() : "");
  fs::path folder = fs::path(target).parent_path();
  if (session.Options().fleet && !to_output) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error) return FailLocal(session, "cannot create", folder.string(), error.value());
  }
  RCFileInfo info;
  bool known = session.Fso().GetFileInfo(remote, info) && info.FileSize() >= 0;
  if (resume && !to_output && known && SameAsRemote(target, info)) return kExitOk;
  PartFile part;
  const bool keep = resume && !to_output && known && !IsSpecial(target);
  if (int status = keep ? part.KeepFor(session, target, RemoteName(remote))
                        : part.CreateFor(session, target, RemoteName(remote), to_output);
      status != kExitOk) {
    return status;
  }
  TransferWatch watch(session.Output(), part.Path(),
                      session.Output().ShowsProgress() && known ? info.FileSize() : 0);
  bool done = Receive(session, part, remote, info);
  watch.Stop(done ? std::optional<uint64_t>(LocalSize(part.Path())) : std::nullopt);
  bool unwritable = !done && known && !fs::exists(part.Path());
  if (!done && !unwritable) {
    part.KeepForResume(info);
    return session.FailOnPath(kExitFailed, remote, "get copies files");
  }
  if (known && LocalSize(part.Path()) < static_cast<uint64_t>(info.FileSize())) {
    int cause = ShortWriteCause(part.Path(), info.FileSize());
    if (cause != 0) return FailLocal(session, "cannot write", target, cause);
    return session.Fail(kExitFailed, {0, remote + " changed while it was downloaded"});
  }
  int32_t remote_mode = 0;
  if (!to_output && session.KeepsModes()) {
    if (!session.Fso().GetFileMode(remote, remote_mode)) {
      return session.FailOnPath(kExitFailed, remote);
    }
    part.TakeRemoteMode(remote_mode);
  }
  int error = to_output ? part.WriteTo(session.Output()) : part.Deliver();
  return error == 0 ? kExitOk : FailLocal(session, "cannot write", target, error);
}

namespace {

// A usage problem of this command line, reported for the host with status 2.
int UsageFailure(HostSession& session, std::string text) {
  HostFailure failure;
  failure.description = std::move(text);
  failure.local = true;
  return session.Fail(kExitUsage, failure);
}

// put - TARGET: standard input, read whole into a private temporary file first (the size message
// comes before the content), then uploaded as a new file.
int PutInput(HostSession& session, const std::string& remote) {
  if (session.Options().fleet) {
    return UsageFailure(session, "put - reads standard input once: give one host");
  }
  if (remote.empty() || remote.back() == '\\' || remote.back() == '/' ||
      session.Fso().FolderExists(remote)) {
    return UsageFailure(session, "put - needs a file name on the server, not the folder " + remote);
  }
  const char* temporary = std::getenv("TMPDIR");
  std::string path = std::string(temporary != nullptr && *temporary ? temporary : "/tmp") +
                     "/.pelmora-input-XXXXXX";
  int fd = mkstemp(path.data());
  if (fd < 0) {
    return FailLocal(session, "cannot create a file in", fs::path(path).parent_path().string(),
                     errno);
  }
  fchmod(fd, NewFileMode());
  close(fd);
  struct Remover {
    std::string path;
    ~Remover() { unlink(path.c_str()); }
  } remover{path};
  if (int error = CopyInto("/dev/stdin", path); error != 0) {
    return FailLocal(session, "cannot read standard input into", path, error);
  }
  return Put(session, path, remote);
}

}  // namespace

int Put(HostSession& session, const std::string& local, const std::string& remote) {
  if (local == "-") return PutInput(session, remote);
  std::string target = remote;
  std::string name = fs::path(local).filename().string();
  if (!target.empty() && (target.back() == '\\' || target.back() == '/')) {
    target += name;
  } else if (session.Fso().FolderExists(target)) {
    target += "\\" + name;  // into an existing folder, as cp and scp do
  }
  uint64_t size = LocalSize(local);
  TransferWatch watch(session.Output(), local, size);
  bool done = session.Fso().Upload(local, target);
  watch.Stop(done ? std::optional<uint64_t>(size) : std::nullopt);
  if (!done) return session.FailOnPath(kExitFailed, target, "", /*reading=*/false);
  // The permission bits go along, as scp sends them (never setuid, setgid or sticky).
  struct stat info {};
  if (session.KeepsModes() && stat(local.c_str(), &info) == 0 &&
      !session.Fso().SetFileMode(target, static_cast<int32_t>(info.st_mode & 0777))) {
    return session.FailOnPath(kExitFailed, target);
  }
  return kExitOk;
}

namespace {

// Runs `one` for each source; the first failure's status, else 0.
template <typename One>
int EachSource(const std::vector<std::string>& sources, One one) {
  int status = kExitOk;
  for (const std::string& source : sources) {
    int result = one(source);
    if (status == kExitOk) status = result;
  }
  return status;
}

}  // namespace

// put -r of the local folder `local` as the server folder `remote`.
int PutTree(HostSession& session, const std::string& local, const std::string& remote) {
  if (int status = MakeFolders(session, remote); status != kExitOk) return status;
  int status = kExitOk;
  std::error_code error;
  for (fs::recursive_directory_iterator it(local, error), end; !error && it != end;
       it.increment(error)) {
    if (it.depth() >= kMostFolderDepth) {
      it.disable_recursion_pending();
      continue;
    }
    std::string relative = fs::relative(it->path(), local).string();
    std::replace(relative.begin(), relative.end(), '/', '\\');
    std::string target = remote + "\\" + relative;
    int result = it->is_directory() ? MakeFolders(session, target)
                 : it->is_regular_file() ? Put(session, it->path().string(), target)
                                         : kExitOk;
    if (status == kExitOk) status = result;
  }
  if (error) return FailLocal(session, "cannot read the folder", local, error.value());
  return status;
}

// get -r of the server folder `remote` as the local folder `local`.
int GetTree(HostSession& session, const std::string& remote, const std::string& local, bool resume,
            int depth) {
  std::error_code error;
  fs::create_directories(local, error);
  if (error) return FailLocal(session, "cannot create", local, error.value());
  pelmora::admin::RCFileInfoCollection entries = session.Fso().GetFolderFiles(remote);
  if (session.Fso().ErrCode() != 0) return session.FailOnPath(kExitFailed, remote);
  int status = kExitOk;
  for (const auto& entry : entries) {
    const std::string& name = entry->FileName();
    if (name == "." || name == "..") continue;
    std::string from = remote + (remote.back() == '\\' ? "" : "\\") + name;
    std::string to = (fs::path(local) / name).string();
    int result = kExitOk;
    if ((entry->FileAttribues() & 0x10) == 0) {
      result = Get(session, from, to, resume);
    } else if (depth < kMostFolderDepth) {
      result = GetTree(session, from, to, resume, depth + 1);
    }
    if (status == kExitOk) status = result;
  }
  return status;
}

int PutAll(HostSession& session, const std::vector<std::string>& sources,
           const std::string& target, bool recursive) {
  bool folder = !target.empty() && (target.back() == '\\' || target.back() == '/');
  if (sources.size() > 1 && !folder && !session.Fso().FolderExists(target)) {
    return UsageFailure(session, "several files need a folder on the server as target, not " +
                                     target + " (end it with \\)");
  }
  for (const std::string& source : sources) {
    std::error_code error;
    if (recursive && fs::is_directory(source, error)) continue;
    if (source != "-" && !fs::is_regular_file(source, error)) {
      return UsageFailure(session, fs::is_directory(source, error)
                                       ? source + ": a folder: use put -r"
                                       : "no such local file: " + source);
    }
  }
  bool into = folder || session.Fso().FolderExists(target);
  return EachSource(sources, [&](const std::string& source) {
    std::error_code error;
    if (recursive && fs::is_directory(source, error)) {
      std::string name = fs::path(source).lexically_normal().filename().string();
      if (name.empty()) name = fs::path(source).lexically_normal().parent_path().filename().string();
      std::string base = folder ? target.substr(0, target.size() - 1) : target;
      return PutTree(session, source, into ? base + "\\" + name : target);
    }
    return Put(session, source, folder || sources.size() == 1 ? target : target + "\\");
  });
}

int GetAll(HostSession& session, const std::vector<std::string>& patterns,
           const std::string& given_target, bool resume, bool recursive) {
  std::vector<std::string> sources;
  if (int status = ExpandRemote(session, patterns, sources); status != kExitOk) return status;
  // Several files without a target land in the current folder, as one does.
  const std::string target = given_target.empty() && sources.size() > 1 ? "." : given_target;
  std::error_code error;
  if (sources.size() > 1 && target != "-" && !session.Options().fleet &&
      !fs::is_directory(target, error)) {
    return UsageFailure(session, "several files need an existing local folder as target, not " +
                                     target);
  }
  return EachSource(sources, [&](const std::string& source) {
    if (recursive && session.Fso().FolderExists(source)) {
      std::string local = target.empty() ? "." : target;
      if (session.Options().fleet) local = (fs::path(local) / session.Display()).string();
      std::error_code error;
      if (fs::is_directory(local, error)) local = (fs::path(local) / RemoteName(source)).string();
      return GetTree(session, source, local, resume, 1);
    }
    return Get(session, source, target, resume);
  });
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
