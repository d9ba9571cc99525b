#include "pelmora/platform/atomic_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <utility>

namespace pelmora::platform {
namespace {

constexpr std::string_view kTemporaryPrefix = ".pelmora-";
constexpr std::string_view kTemporarySuffix = ".part";
constexpr size_t kTemporaryDigits = 16;

std::string TemporaryName() {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof(random), 0) != sizeof(random)) random = ::getpid();
  return fmt::format(".pelmora-{:016x}.part", random);
}

bool Before(const timespec& a, const timespec& b) {
  return a.tv_sec != b.tv_sec ? a.tv_sec < b.tv_sec : a.tv_nsec < b.tv_nsec;
}

}  // namespace

bool IsTemporaryName(std::string_view name) {
  if (name.size() != kTemporaryPrefix.size() + kTemporaryDigits + kTemporarySuffix.size() ||
      !name.starts_with(kTemporaryPrefix) || !name.ends_with(kTemporarySuffix)) {
    return false;
  }
  for (char c : name.substr(kTemporaryPrefix.size(), kTemporaryDigits)) {
    if (!std::isxdigit(static_cast<unsigned char>(c)) ||
        std::isupper(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return true;
}

void RemoveTemporariesBefore(int folder_fd, const timespec& before) {
  UniqueFd fd(::openat(folder_fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!fd) return;
  const int dir_fd = fd.get();
  UniqueDir dir(::fdopendir(dir_fd));
  if (!dir) return;
  fd.release();  // the stream owns it now
  while (const dirent* entry = ::readdir(dir.get())) {
    if (!IsTemporaryName(entry->d_name)) continue;
    struct stat info {};
    if (::fstatat(dir_fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(info.st_mode) && Before(info.st_ctim, before)) {
      ::unlinkat(dir_fd, entry->d_name, 0);
    }
  }
}

AtomicFile::~AtomicFile() { Discard(); }

void AtomicFile::Discard() {
  if (!committed_ && !temporary_.empty() && folder_) {
    ::unlinkat(folder_.get(), temporary_.c_str(), 0);
  }
  temporary_.clear();
}

int AtomicFile::Begin(UniqueFd folder, std::string name, mode_t mode) {
  folder_ = std::move(folder);
  name_ = std::move(name);
  int fd = OpenAt(folder_.get(), ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, mode);
  if (fd < 0 && (errno == EOPNOTSUPP || errno == EISDIR)) {
    temporary_ = TemporaryName();
    fd = OpenAt(folder_.get(), temporary_.c_str(),
                O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0) temporary_.clear();
  }
  if (fd < 0) return error_ = errno;
  file_.reset(fd);
  return 0;
}

int AtomicFile::Write(std::span<const uint8_t> bytes) {
  if (error_ == 0) error_ = WriteFully(file_.get(), bytes);
  return error_;
}

int AtomicFile::Write(std::string_view bytes) {
  return Write(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

int AtomicFile::PlaceUnder(const std::string& temporary, bool replace) {
  unsigned flags = replace ? 0 : RENAME_NOREPLACE;
  if (RenameAt(folder_.get(), temporary.c_str(), folder_.get(), name_.c_str(), flags) != 0) {
    return errno;
  }
  committed_ = true;
  return 0;
}

int AtomicFile::Commit(bool replace) {
  if (error_ == 0 && !file_) error_ = EBADF;
  if (error_ == 0 && Fsync(file_.get()) != 0) error_ = errno;
  if (error_ == 0 && temporary_.empty()) {
    // An unnamed file: linked straight under the target name when there is none (no temporary
    // can be left by a crash), else under a temporary name that the rename then puts in place.
    std::string proc = fmt::format("/proc/self/fd/{}", file_.get());
    if (::linkat(AT_FDCWD, proc.c_str(), folder_.get(), name_.c_str(), AT_SYMLINK_FOLLOW) == 0) {
      committed_ = true;
      ::fsync(folder_.get());
      return 0;
    }
    if (errno != EEXIST) return error_ = errno;
    if (!replace) return error_ = EEXIST;
    std::string name = TemporaryName();
    if (::linkat(AT_FDCWD, proc.c_str(), folder_.get(), name.c_str(), AT_SYMLINK_FOLLOW) != 0) {
      return error_ = errno;
    }
    temporary_ = name;
  }
  if (error_ == 0) error_ = PlaceUnder(temporary_, replace);
  if (error_ == 0) ::fsync(folder_.get());
  Discard();
  return error_;
}

}  // namespace pelmora::platform
