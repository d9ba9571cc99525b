#include "pelmorad/drives.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "pelmora/common/error.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr int kEagainRetries = 8;

int OpenAt2(int dirfd, const std::string& name, int flags, mode_t mode) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? mode : 0;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return static_cast<int>(::syscall(SYS_openat2, dirfd, name.c_str(), &how, sizeof(how)));
}

}  // namespace

bool BeneathResolutionAvailable() {
  static const bool available = [] {
    int fd = OpenAt2(AT_FDCWD, ".", O_PATH | O_DIRECTORY, 0);
    if (fd < 0) return false;
    ::close(fd);
    return true;
  }();
  return available;
}

std::shared_ptr<const DriveTable> DriveTable::Open(const std::map<char, std::string>& drives) {
  auto table = std::make_shared<DriveTable>();
  for (const auto& [letter, folder] : drives) {
    UniqueFd fd(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!fd) {
      throw pelmora::Error(3, fmt::format("drive {}: cannot open the folder {}", letter, folder),
                           "pelmorad");
    }
    table->roots_.emplace(letter, std::make_pair(folder, std::move(fd)));
  }
  return table;
}

std::shared_ptr<const DriveTable> DriveTable::Adopt(
    std::map<char, std::pair<std::string, UniqueFd>> roots) {
  auto table = std::make_shared<DriveTable>();
  table->roots_ = std::move(roots);
  return table;
}

std::vector<std::pair<char, int>> DriveTable::Descriptors() const {
  std::vector<std::pair<char, int>> descriptors;
  for (const auto& [letter, root] : roots_) descriptors.emplace_back(letter, root.second.get());
  return descriptors;
}

std::string DriveTable::Folder(char letter) const {
  auto found = roots_.find(letter);
  return found == roots_.end() ? std::string() : found->second.first;
}

Opened DriveTable::OpenBeneath(const DrivePath& path, int flags, mode_t mode) const {
  Opened opened;
  auto found = roots_.find(path.drive);
  if (found == roots_.end()) {
    opened.error = ENOENT;
    return opened;
  }
  std::string relative = path.Relative();
  for (int attempt = 0; attempt < kEagainRetries; ++attempt) {
    int fd = OpenAt2(found->second.second.get(), relative, flags, mode);
    if (fd >= 0) {
      opened.fd = UniqueFd(fd);
      opened.error = 0;
      return opened;
    }
    opened.error = errno;
    if (opened.error != EAGAIN) break;
  }
  return opened;
}

Opened DriveTable::OpenRegular(const DrivePath& path, int flags) const {
  auto kind_error = [](int fd) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return errno;
    if (S_ISDIR(info.st_mode)) return EISDIR;
    return S_ISREG(info.st_mode) ? 0 : ENXIO;
  };
  Opened probe = OpenBeneath(path, O_PATH);
  if (!probe.fd) return probe;
  Opened refused;
  if ((refused.error = kind_error(probe.fd.get())) != 0) return refused;
  Opened opened = OpenBeneath(path, flags | O_NONBLOCK | O_NOCTTY);
  if (!opened.fd) return opened;
  if ((refused.error = kind_error(opened.fd.get())) != 0) return refused;
  int status = ::fcntl(opened.fd.get(), F_GETFL);
  if (status >= 0) ::fcntl(opened.fd.get(), F_SETFL, status & ~O_NONBLOCK);
  return opened;
}

Opened DriveTable::OpenParent(const DrivePath& path) const {
  return OpenBeneath(path.Parent(), O_PATH | O_DIRECTORY);
}

int32_t DriveTable::ResolveError(const DrivePath& path, int error) const {
  if (error != ENOENT) return FromErrno(error, Missing::kFile);
  return OpenParent(path).fd ? kFileNotFound : kPathNotFound;
}

}  // namespace pelmorad
