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

constexpr int kCreateFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;

// Whether relative folder `outer` is `path` or one of its parents ("" is the root's).
bool LeadsTo(std::string_view outer, std::string_view path) {
  if (outer.empty()) return true;
  return path.starts_with(outer) && (path.size() == outer.size() || path[outer.size()] == '/');
}

SharedFolder Share(UniqueFd fd) { return std::make_shared<const UniqueFd>(std::move(fd)); }

}  // namespace

PendingFile::PendingFile(FileTarget target, std::string temp_name, UniqueFd file)
    : target_(std::move(target)), temp_name_(std::move(temp_name)), file_(std::move(file)) {}

std::optional<PendingFile> PendingFile::Create(FileTarget target) {
  int folder = target.folder->get();
  // A name not taken yet is written in place and removed again unless committed.
  int direct = platform::OpenAt(folder, target.leaf.c_str(), kCreateFlags, target.created_mode);
  if (direct >= 0) {
    std::string name = target.leaf;
    return PendingFile(std::move(target), std::move(name), UniqueFd(direct));
  }
  if (errno != EEXIST) return std::nullopt;
  for (int attempt = 0; attempt < 16; ++attempt) {
    std::string temp = TempName(target.leaf);
    int fd = platform::OpenAt(folder, temp.c_str(), kCreateFlags, target.created_mode);
    if (fd >= 0) return PendingFile(std::move(target), std::move(temp), UniqueFd(fd));
    if (errno != EEXIST) return std::nullopt;
  }
  return std::nullopt;  // errno is EEXIST
}

PendingFile::~PendingFile() {
  if (!committed_ && target_.folder) unlinkat(target_.folder->get(), temp_name_.c_str(), 0);
}

bool PendingFile::Write(std::span<const uint8_t> data) {
  int error = platform::WriteFully(file_.get(), data);
  if (error != 0) errno = error;
  return error == 0;
}

bool PendingFile::Commit(uint32_t mode, int64_t mtime) {
  if ((mode & 07777) != target_.created_mode && fchmod(file_.get(), mode & 07777) != 0) {
    return false;
  }
  struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
  if (futimens(file_.get(), times) != 0) return false;
  if (close(file_.release()) != 0) return false;
  int folder = target_.folder->get();
  if (temp_name_ != target_.leaf &&
      platform::RenameAt(folder, temp_name_.c_str(), folder, target_.leaf.c_str()) != 0) {
    return false;
  }
  committed_ = true;
  return true;
}

ExtractionFolder::ExtractionFolder(UniqueFd root, uint32_t umask)
    : root_(Share(std::move(root))), umask_(umask) {}

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

bool ExtractionFolder::WalkedTo(std::string_view parent) const {
  return walked_.empty() ? parent.empty() : walked_.back().first == parent;
}

PathStatus ExtractionFolder::WalkToParent(std::string_view parent, bool create,
                                          SharedFolder& out) const {
  while (!walked_.empty() && !LeadsTo(walked_.back().first, parent)) walked_.pop_back();
  SharedFolder current = walked_.empty() ? root_ : walked_.back().second;
  size_t at = walked_.empty() ? 0 : walked_.back().first.size() + 1;
  // Folders beyond the cache's depth are walked on each call without being kept.
  bool keep = true;
  for (; at < parent.size();) {
    size_t slash = std::min(parent.find('/', at), parent.size());
    UniqueFd next;
    PathStatus status =
        OpenChild(current->get(), std::string(parent.substr(at, slash - at)), create, next);
    if (status != PathStatus::kOk) return status;
    current = Share(std::move(next));
    keep = keep && walked_.size() < kMaxWalked;
    if (keep) walked_.emplace_back(std::string(parent.substr(0, slash)), current);
    at = slash + 1;
  }
  out = std::move(current);
  return PathStatus::kOk;
}

PathStatus ExtractionFolder::OpenParent(std::string_view path, bool create,
                                        OpenedParent& out) const {
  size_t slash = path.rfind('/');
  std::string_view parent = slash == std::string_view::npos ? "" : path.substr(0, slash);
  out.leaf = std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
  return WalkToParent(parent, create, out.folder);
}

PathStatus ExtractionFolder::MakeFolder(std::string_view path) const {
  OpenedParent parent;
  PathStatus status = OpenParent(path, true, parent);
  if (status != PathStatus::kOk) return status;
  UniqueFd folder;
  status = OpenChild(parent.folder->get(), parent.leaf, true, folder);
  // The files that follow a folder's entry are usually its own.
  std::string_view parent_path = path.substr(0, path.size() - parent.leaf.size());
  if (!parent_path.empty()) parent_path.remove_suffix(1);
  if (status == PathStatus::kOk && walked_.size() < kMaxWalked && WalkedTo(parent_path)) {
    walked_.emplace_back(std::string(path), Share(std::move(folder)));
  }
  return status;
}

std::optional<struct stat> ExtractionFolder::Stat(std::string_view path) const {
  OpenedParent parent;
  if (OpenParent(path, false, parent) != PathStatus::kOk) return std::nullopt;
  struct stat st {};
  if (fstatat(parent.folder->get(), parent.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
    return std::nullopt;
  }
  return st;
}

std::optional<FileTarget> ExtractionFolder::PrepareFile(std::string_view path, uint32_t mode,
                                                        PathStatus& status) const {
  OpenedParent parent;
  status = OpenParent(path, true, parent);
  if (status != PathStatus::kOk) return std::nullopt;
  // Created with its final permissions where the mask keeps them all, which spares a change
  // of mode at the end; otherwise private until Commit sets them.
  mode &= 0777;
  return FileTarget{.folder = std::move(parent.folder),
                    .leaf = std::move(parent.leaf),
                    .created_mode = (mode & umask_) == 0 ? mode : 0600};
}

bool ExtractionFolder::MakeLink(std::string_view path, const std::string& target,
                                PathStatus& status) const {
  walked_.clear();
  OpenedParent parent;
  status = OpenParent(path, true, parent);
  walked_.clear();
  if (status != PathStatus::kOk) return false;
  int folder = parent.folder->get();
  struct stat st {};
  if (fstatat(folder, parent.leaf.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
    if (S_ISDIR(st.st_mode)) return false;
    unlinkat(folder, parent.leaf.c_str(), 0);
  }
  return symlinkat(target.c_str(), folder, parent.leaf.c_str()) == 0;
}

void ExtractionFolder::SetTime(std::string_view path, int64_t mtime) const {
  OpenedParent parent;
  if (OpenParent(path, false, parent) != PathStatus::kOk) return;
  struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(mtime), 0}};
  utimensat(parent.folder->get(), parent.leaf.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

}  // namespace pelmora::archive::internal
