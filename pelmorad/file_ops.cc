#include "pelmorad/file_ops.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "pelmora/platform/file_io.h"
#include "pelmorad/atomic_file.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

constexpr size_t kCopyChunk = 1 << 20;

// fstat of `path` beneath its drive (links inside the drive followed).
int32_t StatBeneath(const DriveTable& drives, const DrivePath& path, struct stat& info) {
  Opened opened = drives.OpenBeneath(path, O_PATH);
  if (!opened.fd) return drives.ResolveError(path, opened.error);
  if (::fstat(opened.fd.get(), &info) != 0) return FromErrno(errno, Missing::kFile);
  return kSuccess;
}

int32_t CopyContent(int from, int to) {
  bool plain = false;
  std::vector<char> buffer;
  while (true) {
    ssize_t moved = -1;
    if (!plain) {
      moved = ::copy_file_range(from, nullptr, to, nullptr, kCopyChunk, 0);
      if (moved < 0 &&
          (errno == EXDEV || errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP)) {
        plain = true;
        buffer.resize(kCopyChunk);
        continue;
      }
    } else {
      moved = pelmora::platform::Read(from, buffer.data(), buffer.size());
      int error = moved > 0 ? pelmora::platform::WriteFully(
                                  to, std::string_view(buffer.data(), static_cast<size_t>(moved)))
                            : 0;
      if (error != 0) return FromErrno(error, Missing::kFile);
    }
    if (moved < 0 && errno == EINTR) continue;  // copy_file_range
    if (moved < 0) return FromErrno(errno, Missing::kFile);
    if (moved == 0) return kSuccess;
  }
}

// The names in folder `path`, "." and ".." left out.
int32_t FolderNames(const DriveTable& drives, const DrivePath& path,
                    std::vector<std::string>& names) {
  Opened opened = drives.OpenBeneath(path, O_RDONLY | O_DIRECTORY);
  if (!opened.fd) return FromErrno(opened.error, Missing::kPath);
  pelmora::platform::UniqueDir dir(::fdopendir(opened.fd.release()));
  if (!dir) return FromErrno(errno, Missing::kPath);
  while (dirent* entry = ::readdir(dir.get())) {
    std::string_view name = entry->d_name;
    if (name != "." && name != "..") names.emplace_back(name);
  }
  return kSuccess;
}

int32_t CopyTree(const DriveTable& drives, const DrivePath& from, const DrivePath& to,
                 bool overwrite, int depth) {
  if (depth > kMaxCopyDepth) return kAccessDenied;
  int32_t created = CreateFolder(drives, to);
  if (created != kSuccess && !(created == kAlreadyExists && FolderExists(drives, to) == 0)) {
    return created == kAlreadyExists ? kNotAFolder : created;
  }
  std::vector<std::string> names;
  if (int32_t error = FolderNames(drives, from, names); error != kSuccess) return error;
  Opened folder = drives.OpenBeneath(from, O_PATH | O_DIRECTORY);
  if (!folder.fd) return FromErrno(folder.error, Missing::kPath);
  for (const std::string& name : names) {
    struct stat info {};
    if (::fstatat(folder.fd.get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    int32_t error = kSuccess;
    if (S_ISDIR(info.st_mode)) {
      error = CopyTree(drives, from.Child(name), to.Child(name), overwrite, depth + 1);
    } else if (S_ISREG(info.st_mode)) {
      error = CopyFile(drives, from.Child(name), to.Child(name), overwrite);
    }
    if (error != kSuccess) return error;
  }
  return kSuccess;
}

}  // namespace

int32_t FileExists(const DriveTable& drives, const DrivePath& path) {
  struct stat info {};
  if (int32_t error = StatBeneath(drives, path, info); error != kSuccess) return error;
  return S_ISDIR(info.st_mode) ? kFileNotFound : kSuccess;
}

int32_t FolderExists(const DriveTable& drives, const DrivePath& path) {
  struct stat info {};
  if (int32_t error = StatBeneath(drives, path, info); error != kSuccess) return error;
  return S_ISDIR(info.st_mode) ? kSuccess : kFileNotFound;
}

int32_t CreateFile(const DriveTable& drives, const DrivePath& path, bool overwrite, bool unicode) {
  if (path.IsRoot()) return kAccessDenied;
  Opened opened = drives.OpenBeneath(path, O_WRONLY | O_CREAT | O_EXCL, 0644);
  bool created = static_cast<bool>(opened.fd);
  if (!created && opened.error == EEXIST && overwrite) {
    opened = drives.OpenRegular(path, O_WRONLY | O_TRUNC);
  }
  if (!opened.fd) {
    if (opened.error == ENOENT) return kPathNotFound;
    if (opened.error == EEXIST) return kFileExists;
    return FromErrno(opened.error, Missing::kPath);
  }
  if (!unicode) return kSuccess;
  static constexpr std::array<uint8_t, 2> kByteOrderMark = {0xFF, 0xFE};
  if (::write(opened.fd.get(), kByteOrderMark.data(), 2) != 2) {
    return FromErrno(errno, Missing::kFile);
  }
  return kSuccess;
}

int32_t CreateFolder(const DriveTable& drives, const DrivePath& path) {
  if (path.IsRoot()) return kAlreadyExists;
  Opened parent = drives.OpenParent(path);
  if (!parent.fd) return FromErrno(parent.error, Missing::kPath);
  if (::mkdirat(parent.fd.get(), path.Name().c_str(), 0755) != 0) {
    return errno == EEXIST ? kAlreadyExists : FromErrno(errno, Missing::kPath);
  }
  return kSuccess;
}

int32_t DeleteFile(const DriveTable& drives, const DrivePath& path) {
  if (path.IsRoot()) return kAccessDenied;
  Opened parent = drives.OpenParent(path);
  if (!parent.fd) return FromErrno(parent.error, Missing::kPath);
  struct stat info {};
  if (::fstatat(parent.fd.get(), path.Name().c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
    return FromErrno(errno, Missing::kFile);
  }
  if (S_ISDIR(info.st_mode)) return kAccessDenied;
  if (::unlinkat(parent.fd.get(), path.Name().c_str(), 0) != 0) {
    return FromErrno(errno, Missing::kFile);
  }
  return kSuccess;
}

int32_t DeleteFolder(const DriveTable& drives, const DrivePath& path) {
  if (path.IsRoot()) return kAccessDenied;
  Opened parent = drives.OpenParent(path);
  if (!parent.fd) return FromErrno(parent.error, Missing::kPath);
  if (::unlinkat(parent.fd.get(), path.Name().c_str(), AT_REMOVEDIR) != 0) {
    if (errno == ENOTDIR) return kNotAFolder;
    if (errno == EEXIST) return kFolderNotEmpty;
    return FromErrno(errno, Missing::kFile);
  }
  return kSuccess;
}

int32_t CopyFile(const DriveTable& drives, const DrivePath& from, const DrivePath& to,
                 bool overwrite) {
  Opened source = drives.OpenRegular(from, O_RDONLY);
  if (!source.fd) return drives.ResolveError(from, source.error);
  struct stat info {};
  if (::fstat(source.fd.get(), &info) != 0) return FromErrno(errno, Missing::kFile);
  if (S_ISDIR(info.st_mode)) return kAccessDenied;
  struct stat existing {};
  if (!overwrite && StatBeneath(drives, to, existing) == kSuccess) return kFileExists;
  AtomicFile target;
  if (int32_t error = target.Begin(drives, to); error != kSuccess) return error;
  if (int32_t error = CopyContent(source.fd.get(), target.fd()); error != kSuccess) return error;
  return target.Commit(FileTimes{info.st_atim, info.st_mtim}, overwrite);
}

int32_t CopyFolder(const DriveTable& drives, const DrivePath& from, const DrivePath& to,
                   bool overwrite) {
  if (from.Contains(to)) return kAccessDenied;
  if (int32_t error = FolderExists(drives, from); error != kSuccess) {
    return error == kFileNotFound ? kPathNotFound : error;
  }
  struct stat existing {};
  if (!overwrite && StatBeneath(drives, to, existing) == kSuccess) return kAlreadyExists;
  return CopyTree(drives, from, to, overwrite, 0);
}

int32_t MoveFile(const DriveTable& drives, const DrivePath& from, const DrivePath& to) {
  if (from.IsRoot() || to.IsRoot()) return kAccessDenied;
  Opened source = drives.OpenParent(from);
  if (!source.fd) return FromErrno(source.error, Missing::kPath);
  Opened target = drives.OpenParent(to);
  if (!target.fd) return FromErrno(target.error, Missing::kPath);
  if (::renameat2(source.fd.get(), from.Name().c_str(), target.fd.get(), to.Name().c_str(),
                  RENAME_NOREPLACE) == 0) {
    return kSuccess;
  }
  int error = errno;
  if (error == EEXIST) return kAlreadyExists;
  if (error != EXDEV) return FromErrno(error, Missing::kFile);
  struct stat info {};
  if (::fstatat(source.fd.get(), from.Name().c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISREG(info.st_mode)) {
    return kAccessDenied;
  }
  if (int32_t copied = CopyFile(drives, from, to, false); copied != kSuccess) return copied;
  return DeleteFile(drives, from);
}

}  // namespace pelmorad
