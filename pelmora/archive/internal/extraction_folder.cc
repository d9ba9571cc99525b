// Descriptor-relative folder walking, temporary files and renames.
#include "pelmora/archive/internal/extraction_folder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>
#include <utility>

#include "pelmora/platform/file_io.h"

namespace pelmora::archive::internal {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens component `name` of `folder` as a folder, creating it when asked.
PathStatus OpenChild(int folder, const std::string& name, bool create, UniqueFd& out) {
  int fd = openat(folder, name.c_str(), kFolderFlags);
  if (fd < 0 && errno == ENOENT && create) {
    if (mkdirat(folder, name.c_str(), 0777) != 0 && errno != EEXIST) {
      return PathStatus::kSystemError;
    }
    fd = openat(folder, name.c_str(), kFolderFlags);
  }
  if (fd >= 0) {
    out = UniqueFd(fd);
    return PathStatus::kOk;
  }
  int error = errno;
  struct stat st {};
  if (fstatat(folder, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    return S_ISLNK(st.st_mode) ? PathStatus::kThroughLink : PathStatus::kNotFolder;
  }
  errno = error;
  return PathStatus::kSystemError;
}

// The process's file creation mask, read without changing it where the system tells it.
uint32_t CurrentUmask() {
  if (std::FILE* status = std::fopen("/proc/self/status", "re")) {
    char line[256];
    unsigned mask = 0;
    bool found = false;
    while (!found && std::fgets(line, sizeof line, status) != nullptr) {
      found = std::sscanf(line, "Umask: %o", &mask) == 1;
    }
    std::fclose(status);
    if (found) return mask & 0777;
  }
  mode_t mask = umask(0);
  umask(mask);
  return mask & 0777;
}

std::string TempName(const std::string& leaf) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  return "." + leaf.substr(0, 200) + ".pz" + std::to_string(random() % 1000000000);
}

}  // namespace

PendingFile::PendingFile(UniqueFd folder, std::string leaf, std::string temp_name, UniqueFd file,
                         uint32_t created_mode)
    : folder_(std::move(folder)),
      leaf_(std::move(leaf)),
      temp_name_(std::move(temp_name)),
      file_(std::move(file)),
      created_mode_(created_mode) {}

PendingFile::~PendingFile() {
  if (!committed_ && folder_) unlinkat(folder_.get(), temp_name_.c_str(), 0);
}

bool PendingFile::Write(std::span<const uint8_t> data) {
  int error = platform::WriteFully(file_.get(), data);
  if (error != 0) errno = error;
  return error == 0;
}

bool PendingFile::Commit(uint32_t mode, int64_t mtime) {
  if ((mode & 07777) != created_mode_ && fchmod(file_.get(), mode & 07777) != 0) return false;
  struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
  if (futimens(file_.get(), times) != 0) return false;
  if (close(file_.release()) != 0) return false;
  if (temp_name_ != leaf_ &&
      platform::RenameAt(folder_.get(), temp_name_.c_str(), folder_.get(), leaf_.c_str()) != 0) {
    return false;
  }
  committed_ = true;
  return true;
}

std::optional<ExtractionFolder> ExtractionFolder::Open(const std::string& path) {
  std::string base = path.empty() ? "." : path;
  UniqueFd root(open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (root) return ExtractionFolder(std::move(root), CurrentUmask());
  // Create the missing folders one by one, like mkdir -p.
  for (size_t at = base.find('/', 1); at != std::string::npos; at = base.find('/', at + 1)) {
    mkdir(base.substr(0, at).c_str(), 0777);
  }
  mkdir(base.c_str(), 0777);
  root = UniqueFd(open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root) return std::nullopt;
  return ExtractionFolder(std::move(root), CurrentUmask());
}

PathStatus ExtractionFolder::WalkToParent(std::string_view parent, bool create,
                                          UniqueFd& out) const {
  UniqueFd current(dup(root_.get()));
  if (!current) return PathStatus::kSystemError;
  for (size_t at = 0; at < parent.size();) {
    size_t slash = std::min(parent.find('/', at), parent.size());
    UniqueFd next;
    PathStatus status = OpenChild(current.get(), std::string(parent.substr(at, slash - at)),
                                  create, next);
    if (status != PathStatus::kOk) return status;
    current = std::move(next);
    at = slash + 1;
  }
  out = std::move(current);
  return PathStatus::kOk;
}

int ExtractionFolder::CachedParent(std::string_view path, bool create, std::string& leaf,
                                   PathStatus& status) const {
  size_t slash = path.rfind('/');
  std::string_view parent = slash == std::string_view::npos ? "" : path.substr(0, slash);
  leaf = std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
  status = PathStatus::kOk;
  if (cache_valid_ && parent == cached_parent_) return cached_folder_.get();
  cache_valid_ = false;
  status = WalkToParent(parent, create, cached_folder_);
  if (status != PathStatus::kOk) return -1;
  cached_parent_ = std::string(parent);
  cache_valid_ = true;
  return cached_folder_.get();
}

PathStatus ExtractionFolder::OpenParent(std::string_view path, bool create,
                                        OpenedParent& out) const {
  PathStatus status = PathStatus::kOk;
  int folder = CachedParent(path, create, out.leaf, status);
  if (folder < 0) return status;
  out.folder = UniqueFd(dup(folder));
  return out.folder ? PathStatus::kOk : PathStatus::kSystemError;
}

PathStatus ExtractionFolder::MakeFolder(std::string_view path) const {
  OpenedParent parent;
  PathStatus status = OpenParent(path, true, parent);
  if (status != PathStatus::kOk) return status;
  UniqueFd folder;
  return OpenChild(parent.folder.get(), parent.leaf, true, folder);
}

std::optional<struct stat> ExtractionFolder::Stat(std::string_view path) const {
  std::string leaf;
  PathStatus status = PathStatus::kOk;
  int folder = CachedParent(path, false, leaf, status);
  if (folder < 0) return std::nullopt;
  struct stat st {};
  if (fstatat(folder, leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return st;
}

std::optional<PendingFile> ExtractionFolder::StartFile(std::string_view path, uint32_t mode,
                                                       PathStatus& status) const {
  OpenedParent parent;
  status = OpenParent(path, true, parent);
  if (status != PathStatus::kOk) return std::nullopt;
  // Created with its final permissions where the mask keeps them all, which spares a change
  // of mode at the end; otherwise private until Commit sets them.
  mode &= 0777;
  uint32_t created = (mode & umask_) == 0 ? mode : 0600;
  // A name not taken yet is written in place: created exclusively (so nothing that appears there
  // meanwhile, a link included, is followed or replaced) and removed again unless committed.
  int direct = platform::OpenAt(parent.folder.get(), parent.leaf.c_str(),
                                    O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, created);
  if (direct >= 0) {
    std::string name = parent.leaf;
    return PendingFile(std::move(parent.folder), std::move(parent.leaf), std::move(name),
                       UniqueFd(direct), created);
  }
  if (errno != EEXIST) {
    status = PathStatus::kSystemError;
    return std::nullopt;
  }
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::string temp = TempName(parent.leaf);
    int fd = platform::OpenAt(parent.folder.get(), temp.c_str(),
                              O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, created);
    if (fd >= 0) {
      return PendingFile(std::move(parent.folder), std::move(parent.leaf), std::move(temp),
                         UniqueFd(fd), created);
    }
    if (errno != EEXIST) break;
  }
  status = PathStatus::kSystemError;
  return std::nullopt;
}

bool ExtractionFolder::MakeLink(std::string_view path, const std::string& target,
                                PathStatus& status) const {
  cache_valid_ = false;
  OpenedParent parent;
  status = OpenParent(path, true, parent);
  cache_valid_ = false;
  if (status != PathStatus::kOk) return false;
  struct stat st {};
  if (fstatat(parent.folder.get(), parent.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISDIR(st.st_mode)) return false;
    unlinkat(parent.folder.get(), parent.leaf.c_str(), 0);
  }
  return symlinkat(target.c_str(), parent.folder.get(), parent.leaf.c_str()) == 0;
}

void ExtractionFolder::SetTime(std::string_view path, int64_t mtime) const {
  OpenedParent parent;
  if (OpenParent(path, false, parent) != PathStatus::kOk) return;
  struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
  utimensat(parent.folder.get(), parent.leaf.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace pelmora::archive::internal
