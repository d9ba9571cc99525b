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

uint64_t LocalSize(const std::string& path) {
  std::error_code error;
  uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

// A failure of this machine's files, named by path and the system's text; never the host's.
int FailLocal(HostSession& session, const std::string& what, const std::string& path,
              int error) {
  return session.Fail(kExitUsage,
                      {0, what + " " + path + ": " + std::system_category().message(error), /*local=*/true});
}

// This process's umask, read without changing it, since other hosts' threads may be creating
// files at the same time.
mode_t Umask() {
  static const mode_t mask = [] {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
      if (line.rfind("Umask:", 0) == 0) {
        return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8) & 0777);
      }
    }
    return static_cast<mode_t>(022);
  }();
  return mask;
}

// The mode new files get: 0666 less the umask.
mode_t NewFileMode() { return 0666 & ~Umask(); }

// Why `path` holds fewer bytes than `expected` (or is gone: Download removes a file it could not
// write): appends the missing count (as zeros) and returns the errno the system gives, or 0 when
// it takes them (then the remote file changed instead).
int ShortWriteCause(const std::string& path, uint64_t expected) {
  pelmora::platform::UniqueFd fd(
      pelmora::platform::Open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
  if (!fd) return errno;
  static const uint8_t kZeros[65536] = {};
  uint64_t missing = expected - std::min(expected, LocalSize(path));
  int cause = 0;
  while (missing > 0 && cause == 0) {
    std::size_t piece = std::min<uint64_t>(missing, sizeof kZeros);
    cause = pelmora::platform::WriteFully(fd.get(), std::span(kZeros, piece));
    missing -= piece;
  }
  if (fd.reset() != 0 && cause == 0) cause = errno;
  return cause;
}

// Copies `from` into the existing non-regular file `to` (a device, a pipe), every write checked.
int CopyInto(const std::string& from, const std::string& to) {
  pelmora::platform::UniqueFd in(pelmora::platform::Open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!in) return errno;
  pelmora::platform::UniqueFd out(pelmora::platform::Open(to.c_str(), O_WRONLY | O_CLOEXEC));
  if (!out) return errno;
  uint8_t buffer[65536];
  int error = 0;
  while (error == 0) {
    ssize_t n = pelmora::platform::Read(in.get(), buffer, sizeof buffer);
    if (n <= 0) {
      error = n < 0 ? errno : 0;
      break;
    }
    error = pelmora::platform::WriteFully(out.get(), std::span(buffer, static_cast<size_t>(n)));
  }
  if (out.reset() != 0 && error == 0) error = errno;
  return error;
}

// The file a download is written to before it reaches its target, removed unless delivered. A
// file target is written beside its final name and takes it only when complete, so a failure
// never leaves part of a file under that name; a device or a pipe is written in place at the end.
class PartFile {
 public:
  // Creates the part file for `target` (mode: the replaced file's, else a new file's); a
  // failure is reported on `session` and its status returned.
  // `to_output`: the file goes to the session's output instead, so it is made in the temporary
  // folder.
  int CreateFor(HostSession& session, const std::string& target, const std::string& name,
                bool to_output = false) {
    target_ = target;
    struct stat existing{};
    bool exists = !to_output && stat(target.c_str(), &existing) == 0;
    in_place_ = to_output || (exists && !S_ISREG(existing.st_mode) && !S_ISDIR(existing.st_mode));
    const char* temporary = std::getenv("TMPDIR");
    fs::path folder = fs::path(target).parent_path();
    if (in_place_) folder = temporary != nullptr && *temporary ? temporary : "/tmp";
    if (folder.empty()) folder = ".";
    std::string pattern = (folder / ("." + name + ".pelmora-XXXXXX")).string();
    int fd = mkstemp(pattern.data());
    if (fd < 0) return FailLocal(session, "cannot create a file in", folder.string(), errno);
    path_ = pattern;
    replaces_ = exists && S_ISREG(existing.st_mode);
    fchmod(fd, replaces_ ? existing.st_mode & 07777 : NewFileMode());
    close(fd);
    return kExitOk;
  }
  // The part file for `target` under get -C: a fixed name beside it (.NAME.pelmora-part), made
  // when missing, so that what a failed or killed download received is found by the next get -C.
  int KeepFor(HostSession& session, const std::string& target, const std::string& name) {
    target_ = target;
    fs::path folder = fs::path(target).parent_path();
    if (folder.empty()) folder = ".";
    std::string path = (folder / ("." + name + ".pelmora-part")).string();
    struct stat existing{};
    replaces_ = stat(target.c_str(), &existing) == 0 && S_ISREG(existing.st_mode);
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                  replaces_ ? existing.st_mode & 07777 : NewFileMode());
    if (fd < 0) return FailLocal(session, "cannot create", path, errno);
    bool regular = fstat(fd, &kept_) == 0 && S_ISREG(kept_.st_mode);
    close(fd);
    if (!regular) return FailLocal(session, "cannot use", path, EINVAL);
    path_ = path;
    resumable_ = true;
    return kExitOk;
  }
  ~PartFile() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  // The size and last-write second of the part file as KeepFor found it (0, 0 for a new one).
  int64_t KeptBytes() const { return resumable_ ? kept_.st_size : 0; }
  int64_t KeptSecond() const { return resumable_ ? kept_.st_mtim.tv_sec : 0; }

  // After a download that failed on the way, under get -C: leaves what came for the next get -C,
  // its last-write time set to the remote file's, so that a change of the remote file after
  // this shows whatever the two clocks say. An empty part is removed.
  void KeepForResume(const RCFileInfo& info) {
    if (!resumable_ || LocalSize(path_) == 0) return;
    const timespec times[2] = {{0, UTIME_OMIT}, {info.LastWriteTime().ToUnixTime(), 0}};
    utimensat(AT_FDCWD, path_.c_str(), times, 0);
    path_.clear();
  }
  const std::string& Path() const { return path_; }

  // A new file takes the permission bits of the remote one, less the umask, as scp gives them; a
  // file it replaces keeps its own, and setuid, setgid and sticky bits are never given.
  void TakeRemoteMode(int32_t remote_mode) {
    if (!replaces_ && !in_place_) chmod(path_.c_str(), remote_mode & 0777 & ~Umask());
  }

  // Gives the complete file to its target: 0, or the errno of the failure.
  int Deliver() {
    if (in_place_) return CopyInto(path_, target_);
    if (rename(path_.c_str(), target_.c_str()) != 0) return errno;
    path_.clear();
    return 0;
  }

  // Writes the complete file to `output`: 0, or the errno of reading it.
  int WriteTo(HostOutput& output) const {
    std::ifstream file(path_, std::ios::binary);
    std::string piece(1 << 16, '\0');
    while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())) ||
           file.gcount() > 0) {
      output.Write(std::string_view(piece.data(), static_cast<size_t>(file.gcount())));
    }
    return file.bad() ? EIO : 0;
  }

 private:
  std::string path_;
  std::string target_;
  bool in_place_ = false;
  bool replaces_ = false;
  bool resumable_ = false;  // made by KeepFor
  struct stat kept_ {};
};

// Whether `target` is a device or a pipe, which a download writes in place at its end.
bool IsSpecial(const std::string& target) {
  struct stat existing{};
  return stat(target.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode) &&
         !S_ISDIR(existing.st_mode);
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
