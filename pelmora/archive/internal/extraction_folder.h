// Writing inside one extraction folder and nowhere else. Every path is walked component by
// component from the folder's descriptor with O_NOFOLLOW, so neither "..", nor an absolute name,
// nor a symbolic link (one planted earlier in the same archive included) can lead outside it.
// A file whose name is free is created there exclusively and removed again unless completed; one
// that replaces an existing entry is written under a temporary name and renamed into place only
// when complete. Either way a failed entry leaves nothing behind and replaces nothing.
#ifndef PELMORA_ARCHIVE_INTERNAL_EXTRACTION_FOLDER_H_
#define PELMORA_ARCHIVE_INTERNAL_EXTRACTION_FOLDER_H_

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pelmora/platform/file_io.h"

namespace pelmora::archive::internal {

using platform::UniqueFd;

// Why a path inside the folder could not be reached.
enum class PathStatus { kOk, kThroughLink, kNotFolder, kSystemError };

// An open folder shared by the files being written in it and the walk cache.
using SharedFolder = std::shared_ptr<const UniqueFd>;

// A relative path's parent folder, opened, and its last component.
struct OpenedParent {
  SharedFolder folder;
  std::string leaf;
};

// A file not created yet: its folder, reached already, its name there and the permission bits to
// create it with.
struct FileTarget {
  SharedFolder folder;
  std::string leaf;
  uint32_t created_mode = 0;
};

// A file being written in its final folder, under its own name or a temporary one.
class PendingFile {
 public:
  // Creates the file of `target`: under its own name when that is free, exclusively (so nothing
  // that appears there meanwhile, a link included, is followed or replaced), else under a
  // temporary name beside it. nullopt (errno set) on failure. Any thread may call it.
  static std::optional<PendingFile> Create(FileTarget target);
  PendingFile(PendingFile&&) noexcept = default;
  ~PendingFile();  // removes the file written unless committed

  // Appends `data`; false (errno set) on a write failure.
  bool Write(std::span<const uint8_t> data);
  // Sets `mode` (unless the file was created with it) and the modification time, then renames a
  // temporary file over the final name. False on failure.
  bool Commit(uint32_t mode, int64_t mtime);

 private:
  PendingFile(FileTarget target, std::string temp_name, UniqueFd file);

  FileTarget target_;
  std::string temp_name_;
  UniqueFd file_;
  bool committed_ = false;
};

// The folder that an extraction writes into.
class ExtractionFolder {
 public:
  // Opens `path` ("" is the current folder), creating it and its parents when missing.
  static std::optional<ExtractionFolder> Open(const std::string& path);

  // Opens the parent of relative path `path`, creating missing folders when `create` is set.
  PathStatus OpenParent(std::string_view path, bool create, OpenedParent& out) const;
  // Creates folder `path` and its parents.
  PathStatus MakeFolder(std::string_view path) const;
  // lstat of `path`; nullopt when it does not exist or cannot be reached.
  std::optional<struct stat> Stat(std::string_view path) const;
  // Reaches the folder of file `path`, creating missing folders, for a file with permission bits
  // `mode`: created with them where the file creation mask lets them through whole (else 0600,
  // and Commit sets them). nullopt when the folder cannot be reached (`status` says why).
  std::optional<FileTarget> PrepareFile(std::string_view path, uint32_t mode,
                                        PathStatus& status) const;
  // The process's file creation mask when the folder was opened.
  uint32_t Umask() const { return umask_; }
  // Creates symbolic link `path` -> `target`, replacing an existing non-folder.
  bool MakeLink(std::string_view path, const std::string& target, PathStatus& status) const;
  // Sets the modification time of `path` without following links.
  void SetTime(std::string_view path, int64_t mtime) const;

 private:
  ExtractionFolder(UniqueFd root, uint32_t umask);
  // Opens folder `parent` (relative), starting from the deepest folder of the last walk that
  // leads there.
  PathStatus WalkToParent(std::string_view parent, bool create, SharedFolder& out) const;
  // Whether the last walk ended exactly at folder `parent`.
  bool WalkedTo(std::string_view parent) const;

  SharedFolder root_;
  uint32_t umask_;
  // The folders of the last walk, outermost first, each with its relative path, so that an
  // archive's entries (stored folder by folder) reopen only the folders they have not been in.
  // At most kMaxWalked deep; links are only created by MakeLink, which forgets them.
  static constexpr size_t kMaxWalked = 64;
  mutable std::vector<std::pair<std::string, SharedFolder>> walked_;
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_EXTRACTION_FOLDER_H_
