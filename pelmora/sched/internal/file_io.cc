#include "pelmora/sched/internal/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <span>

#include "pelmora/platform/atomic_file.h"
#include "pelmora/platform/file_io.h"

namespace pelmora::sched::internal {

using platform::UniqueFd;

int ReadWholeFile(const std::string& path, size_t limit, std::string& bytes) {
  bytes.clear();
  UniqueFd fd(platform::Open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) return errno;
  uint8_t buffer[8192];
  while (true) {
    ssize_t n = platform::Read(fd.get(), buffer, sizeof buffer);
    if (n < 0) return errno;
    if (n == 0) return 0;
    if (bytes.size() + static_cast<size_t>(n) > limit) return EFBIG;
    bytes.append(reinterpret_cast<const char*>(buffer), static_cast<size_t>(n));
  }
}

int ReplaceFile(const std::string& path, const std::string& bytes, bool must_be_new) {
  size_t slash = path.rfind('/');
  std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  UniqueFd folder_fd(platform::Open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!folder_fd) return errno;
  platform::AtomicFile file;
  if (int error = file.Begin(std::move(folder_fd), name, 0644); error != 0) return error;
  if (fchmod(file.fd(), 0644) != 0) return errno;  // whatever the umask
  file.Write(bytes);
  return file.Commit(!must_be_new);
}

int PatchFile(const std::string& path, size_t offset, const std::string& bytes) {
  UniqueFd fd(platform::Open(path.c_str(), O_WRONLY | O_CLOEXEC));
  if (!fd) return errno;
  return platform::PwriteFully(
      fd.get(), std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()), offset);
}

}  // namespace pelmora::sched::internal
