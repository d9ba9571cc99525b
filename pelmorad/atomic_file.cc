#include "pelmorad/atomic_file.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <mutex>
#include <set>
#include <string_view>
#include <utility>

#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kPermissionBits = 0777;

constexpr std::string_view kTemporaryPrefix = ".pelmora-";
constexpr std::string_view kTemporarySuffix = ".part";
constexpr size_t kTemporaryDigits = 16;
// How many folders the service remembers as swept; past that it forgets them all and sweeps
// again (harmless, only slower).
constexpr size_t kSweptFolders = 4096;

std::string TemporaryName() {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof(random), 0) != sizeof(random)) random = ::getpid();
  return fmt::format(".pelmora-{:016x}.part", random);
}

bool IsTemporaryName(std::string_view name) {
  if (name.size() != kTemporaryPrefix.size() + kTemporaryDigits + kTemporarySuffix.size() ||
      !name.starts_with(kTemporaryPrefix) || !name.ends_with(kTemporarySuffix)) {
    return false;
  }
  for (char c : name.substr(kTemporaryPrefix.size(), kTemporaryDigits)) {
    if (!std::isxdigit(static_cast<unsigned char>(c)) || std::isupper(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return true;
}

// When this process started (its static data is set up before main): a temporary whose name
// changed before then was left by an earlier run that was killed between its link and rename.
const timespec kProcessStart = [] {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}();

bool Before(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

// Sweeps each folder once per run, the first time the service writes to it.
void SweepOnce(int folder_fd) {
  static std::mutex mutex;
  static std::set<std::pair<dev_t, ino_t>> swept;
  struct stat folder {};
  if (::fstat(folder_fd, &folder) != 0) return;
  {
    std::lock_guard lock(mutex);
    if (swept.size() >= kSweptFolders) swept.clear();
    if (!swept.emplace(folder.st_dev, folder.st_ino).second) return;
  }
  RemoveLeftoverTemporaries(folder_fd);
}

}  // namespace

void RemoveLeftoverTemporaries(int folder_fd) {
  int fd = ::openat(folder_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    ::close(fd);
    return;
  }
  while (const dirent* entry = ::readdir(dir)) {
    if (!IsTemporaryName(entry->d_name)) continue;
    struct stat info {};
    if (::fstatat(fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(info.st_mode) &&
        Before(info.st_ctim, kProcessStart)) {
      ::unlinkat(fd, entry->d_name, 0);
    }
  }
  ::closedir(dir);
}

namespace {

}  // namespace

AtomicFile::~AtomicFile() { Discard(); }

void AtomicFile::Discard() {
  if (!committed_ && !temporary_.empty() && folder_) {
    ::unlinkat(folder_.get(), temporary_.c_str(), 0);
  }
  temporary_.clear();
}

int32_t AtomicFile::Begin(const DriveTable& drives, const DrivePath& target) {
  if (target.IsRoot()) return kAccessDenied;
  Opened folder = drives.OpenBeneath(target.Parent(), O_RDONLY | O_DIRECTORY);
  if (!folder.fd) return FromErrno(folder.error, Missing::kPath);
  folder_ = std::move(folder.fd);
  SweepOnce(folder_.get());
  name_ = target.Name();
  // The new file keeps the permission bits of the file it replaces, read from a descriptor
  // opened beneath the drive (a link out of it gives nothing to read) and never the setuid,
  // setgid or sticky bits.
  mode_t mode = kNewFileMode;
  Opened existing = drives.OpenBeneath(target, O_PATH);
  struct stat info {};
  if (existing.fd && ::fstat(existing.fd.get(), &info) == 0) {
    if (!S_ISREG(info.st_mode)) return kAccessDenied;  // a folder, FIFO, socket or device
    mode = info.st_mode & kPermissionBits;
  }
  int fd = ::openat(folder_.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR)) {
    temporary_ = TemporaryName();
    fd = ::openat(folder_.get(), temporary_.c_str(),
                  O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0) temporary_.clear();
  }
  if (fd < 0) return FromErrno(errno, Missing::kPath);
  file_ = UniqueFd(fd);
  // The permission bits as chosen, whatever the umask took away.
  ::fchmod(fd, mode);
  return kSuccess;
}

int32_t AtomicFile::Write(std::span<const uint8_t> bytes) {
  while (error_ == kSuccess && !bytes.empty()) {
    ssize_t written = ::write(file_.get(), bytes.data(), bytes.size());
    if (written < 0) {
      if (errno == EINTR) continue;
      error_ = FromErrno(errno, Missing::kFile);
      break;
    }
    bytes = bytes.subspan(static_cast<size_t>(written));
  }
  return error_;
}

int32_t AtomicFile::PlaceUnder(const std::string& temporary, bool replace) {
  unsigned flags = replace ? 0 : RENAME_NOREPLACE;
  if (::renameat2(folder_.get(), temporary.c_str(), folder_.get(), name_.c_str(), flags) != 0) {
    return errno == EEXIST ? kFileExists : FromErrno(errno, Missing::kPath);
  }
  committed_ = true;
  return kSuccess;
}

int32_t AtomicFile::Commit(const FileTimes& times, bool replace) {
  if (error_ != kSuccess) return error_;
  if (::fsync(file_.get()) != 0) return error_ = FromErrno(errno, Missing::kFile);
  timespec both[2] = {times.access, times.modification};
  if (::futimens(file_.get(), both) != 0) return error_ = FromErrno(errno, Missing::kFile);
  if (temporary_.empty()) {
    // An unnamed file: linked straight under the target name when there is none (no temporary
    // can be left by a crash), else under a temporary name that the rename then puts in place.
    std::string proc = fmt::format("/proc/self/fd/{}", file_.get());
    if (::linkat(AT_FDCWD, proc.c_str(), folder_.get(), name_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      committed_ = true;
      ::fsync(folder_.get());
      return kSuccess;
    }
    if (errno != EEXIST) return error_ = FromErrno(errno, Missing::kPath);
    if (!replace) return error_ = kFileExists;
    std::string name = TemporaryName();
    if (::linkat(AT_FDCWD, proc.c_str(), folder_.get(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
      return error_ = FromErrno(errno, Missing::kPath);
    }
    temporary_ = name;
  }
  error_ = PlaceUnder(temporary_, replace);
  if (error_ == kSuccess) ::fsync(folder_.get());
  Discard();
  return error_;
}

}  // namespace pelmorad
