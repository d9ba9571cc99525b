#include "tools/pelmora/part_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <system_error>

#include "pelmora/platform/file_io.h"

namespace pelmora_tool {

namespace fs = std::filesystem;

uint64_t LocalSize(const std::string& path) {
  std::error_code error;
  uintmax_t size = fs::file_size(path, error);
  return error ? 0 : size;
}

int FailLocal(HostSession& session, const std::string& what, const std::string& path, int error) {
  return session.Fail(
      kExitUsage,
      {0, what + " " + path + ": " + std::system_category().message(error), /*local=*/true});
}

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

mode_t NewFileMode() { return 0666 & ~Umask(); }

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

bool IsSpecial(const std::string& target) {
  struct stat existing {};
  return stat(target.c_str(), &existing) == 0 && !S_ISREG(existing.st_mode) &&
         !S_ISDIR(existing.st_mode);
}

int PartFile::CreateFor(HostSession& session, const std::string& target, const std::string& name,
                        bool to_output) {
  target_ = target;
  struct stat existing {};
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

int PartFile::KeepFor(HostSession& session, const std::string& target, const std::string& name) {
  target_ = target;
  fs::path folder = fs::path(target).parent_path();
  if (folder.empty()) folder = ".";
  std::string path = (folder / ("." + name + ".pelmora-part")).string();
  struct stat existing {};
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

PartFile::~PartFile() {
  if (!path_.empty()) unlink(path_.c_str());
}

void PartFile::KeepForResume(const pelmora::admin::RCFileInfo& info) {
  if (!resumable_ || LocalSize(path_) == 0) return;
  const timespec times[2] = {{0, UTIME_OMIT}, {info.LastWriteTime().ToUnixTime(), 0}};
  utimensat(AT_FDCWD, path_.c_str(), times, 0);
  path_.clear();
}

void PartFile::TakeRemoteMode(int32_t remote_mode) {
  if (!replaces_ && !in_place_) chmod(path_.c_str(), remote_mode & 0777 & ~Umask());
}

int PartFile::Deliver() {
  if (in_place_) return CopyInto(path_, target_);
  if (rename(path_.c_str(), target_.c_str()) != 0) return errno;
  path_.clear();
  return 0;
}

int PartFile::WriteTo(HostOutput& output) const {
  std::ifstream file(path_, std::ios::binary);
  std::string piece(1 << 16, '\0');
  while (file.read(piece.data(), static_cast<std::streamsize>(piece.size())) || file.gcount() > 0) {
    output.Write(std::string_view(piece.data(), static_cast<size_t>(file.gcount())));
  }
  return file.bad() ? EIO : 0;
}

}  // namespace pelmora_tool
