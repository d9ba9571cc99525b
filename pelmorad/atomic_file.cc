#include "pelmorad/atomic_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "pelmorad/identity.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kPermissionBits = 0777;

std::string TemporaryName() {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof(random), 0) != sizeof(random)) random = ::getpid();
  return fmt::format(".pelmora-{:016x}.part", random);
}

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
  if (int error = GiveToOwner(fd); error != 0) return error_ = FromErrno(error, Missing::kPath);
  // After the owner change, which may clear them, the permission bits as chosen.
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
    std::string name = TemporaryName();
    std::string proc = fmt::format("/proc/self/fd/{}", file_.get());
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
