#include "pelmora/admin/internal/local_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "pelmora/platform/file_io.h"
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
  return LocalFile(platform::Open(path.c_str(), O_RDONLY | O_CLOEXEC));
}

LocalFile LocalFile::CreateAlways(const std::string& path) {
  return LocalFile(platform::Open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
}

LocalFile LocalFile::OpenAt(const std::string& path, int64_t offset) {
  LocalFile file(platform::Open(path.c_str(), O_WRONLY | O_CLOEXEC, 0));
  struct stat st {};
  if (!file.IsOpen() || ::fstat(file.Handle(), &st) != 0 || !S_ISREG(st.st_mode) ||
      st.st_size < offset || ::ftruncate(file.Handle(), offset) != 0 ||
      ::lseek(file.Handle(), offset, SEEK_SET) != offset) {
    return LocalFile();
  }
  return file;
}

int64_t LocalFile::ReadFull(std::span<uint8_t> out) {
  return platform::ReadFully(fd_.get(), out);
}

bool LocalFile::WriteAll(std::span<const uint8_t> bytes) {
  if (write_error_ == 0) write_error_ = platform::WriteFully(fd_.get(), bytes);
  if (write_error_ != 0) errno = write_error_;
  return write_error_ == 0;
}

std::optional<int64_t> LocalFile::Size() const {
  struct stat st {};
  if (::fstat(fd_.get(), &st) != 0) return std::nullopt;
  return static_cast<int64_t>(st.st_size);
}

std::optional<FileTimes> LocalFile::Times() const {
  struct statx sx {};
  const unsigned mask = STATX_ATIME | STATX_MTIME | STATX_CTIME | STATX_BTIME;
  if (::statx(fd_.get(), "", AT_EMPTY_PATH, mask, &sx) != 0) return std::nullopt;
  FileTimes times;
  const bool has_birth = (sx.stx_mask & STATX_BTIME) != 0;
  times.creation = FileTimeOf(has_birth ? sx.stx_btime : sx.stx_ctime);
  times.last_access = FileTimeOf(sx.stx_atime);
  times.last_write = FileTimeOf(sx.stx_mtime);
  return times;
}

bool LocalFile::SetTimes(uint64_t last_access, uint64_t last_write) {
  struct timespec ts[2] = {TimespecOf(last_access), TimespecOf(last_write)};
  return ::futimens(fd_.get(), ts) == 0;
}

bool LocalFile::Close() { return fd_.reset() == 0; }

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
