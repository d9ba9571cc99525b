#include "pelmorad/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <set>
#include <utility>

#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr mode_t kNewFileMode = 0644;
constexpr mode_t kPermissionBits = 0777;

// How many folders the service remembers as swept; past that it forgets them all and sweeps
// again (harmless, only slower).
constexpr size_t kSweptFolders = 4096;

// When this process started (its static data is set up before main): a temporary whose name
// changed before then was left by an earlier run that was killed between its link and rename.
const timespec kProcessStart = [] {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return now;
}();

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
  pelmora::platform::RemoveTemporariesBefore(folder_fd, kProcessStart);
}

int32_t AtomicFile::Begin(const DriveTable& drives, const DrivePath& target) {
  if (target.IsRoot()) return kAccessDenied;
  Opened folder = drives.OpenBeneath(target.Parent(), O_RDONLY | O_DIRECTORY);
  if (!folder.fd) return FromErrno(folder.error, Missing::kPath);
  SweepOnce(folder.fd.get());
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
  if (int error = file_.Begin(std::move(folder.fd), target.Name(), mode); error != 0) {
    return FromErrno(error, Missing::kPath);
  }
  // The permission bits as chosen, whatever the umask took away.
  ::fchmod(file_.fd(), mode);
  return kSuccess;
}

int32_t AtomicFile::Write(std::span<const uint8_t> bytes) {
  if (error_ == kSuccess) error_ = FromErrno(file_.Write(bytes), Missing::kFile);
  return error_;
}

int32_t AtomicFile::Commit(const FileTimes& times, bool replace) {
  if (error_ != kSuccess) return error_;
  timespec both[2] = {times.access, times.modification};
  if (::futimens(file_.fd(), both) != 0) return error_ = FromErrno(errno, Missing::kFile);
  return error_ = FromErrno(file_.Commit(replace), Missing::kPath);
}

}  // namespace pelmorad
