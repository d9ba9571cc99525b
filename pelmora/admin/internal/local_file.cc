#include "pelmora/admin/internal/local_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "pelmora/platform/file_time.h"

namespace pelmora::admin::internal {
namespace {

uint64_t FileTimeOf(const struct statx_timestamp& t) {
  return platform::FileTimeFromUnix(t.tv_sec, t.tv_nsec);
}

timespec TimespecOf(uint64_t filetime) {
  platform::UnixTime time = platform::UnixFromFileTime(filetime);
  return {static_cast<time_t>(time.seconds), static_cast<long>(time.nanoseconds)};
}

}  // namespace

LocalFile LocalFile::OpenForReading(const std::string& path) {
  return LocalFile(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

LocalFile LocalFile::CreateAlways(const std::string& path) {
  return LocalFile(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
}

LocalFile::~LocalFile() { Close(); }

LocalFile::LocalFile(LocalFile&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

LocalFile& LocalFile::operator=(LocalFile&& other) noexcept {
  if (this != &other) {
    Close();
    fd_ = std::exchange(other.fd_, -1);
  }
  return *this;
}

int64_t LocalFile::ReadFull(std::span<uint8_t> out) {
  size_t done = 0;
  while (done < out.size()) {
    const ssize_t n = ::read(fd_, out.data() + done, out.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return -1;
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  return static_cast<int64_t>(done);
}

bool LocalFile::WriteAll(std::span<const uint8_t> bytes) {
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += static_cast<size_t>(n);
  }
  return true;
}

std::optional<int64_t> LocalFile::Size() const {
  struct stat st {};
  if (::fstat(fd_, &st) != 0) return std::nullopt;
  return static_cast<int64_t>(st.st_size);
}

std::optional<FileTimes> LocalFile::Times() const {
  struct statx sx {};
  const unsigned mask = STATX_ATIME | STATX_MTIME | STATX_CTIME | STATX_BTIME;
  if (::statx(fd_, "", AT_EMPTY_PATH, mask, &sx) != 0) return std::nullopt;
  FileTimes times;
  const bool has_birth = (sx.stx_mask & STATX_BTIME) != 0;
  times.creation = FileTimeOf(has_birth ? sx.stx_btime : sx.stx_ctime);
  times.last_access = FileTimeOf(sx.stx_atime);
  times.last_write = FileTimeOf(sx.stx_mtime);
  return times;
}

bool LocalFile::SetTimes(uint64_t last_access, uint64_t last_write) {
  struct timespec ts[2] = {TimespecOf(last_access), TimespecOf(last_write)};
  return ::futimens(fd_, ts) == 0;
}

bool LocalFile::Close() {
  if (fd_ < 0) return true;
  const int result = ::close(std::exchange(fd_, -1));
  return result == 0;
}

bool IsRegularFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

std::optional<int64_t> LastWriteSeconds(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return static_cast<int64_t>(st.st_mtim.tv_sec);
}

}  // namespace pelmora::admin::internal
