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
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "pelmora/platform/file_io.h"

namespace pelmora::archive::internal {

using platform::UniqueFd;

// Why a path inside the folder could not be reached.
enum class PathStatus { kOk, kThroughLink, kNotFolder, kSystemError };

// A relative path's parent folder, opened, and its last component.
struct OpenedParent {
  UniqueFd folder;
  std::string leaf;
};

// A file being written in its final folder, under its own name or a temporary one.
class PendingFile {
 public:
  // `created_mode`: the permission bits the file was created with (0 when unknown).
  PendingFile(UniqueFd folder, std::string leaf, std::string temp_name, UniqueFd file,
              uint32_t created_mode = 0);
  PendingFile(PendingFile&&) noexcept = default;
  ~PendingFile();  // removes the file written unless committed

  // Appends `data`; false (errno set) on a write failure.
  bool Write(std::span<const uint8_t> data);
  // Sets `mode` (unless the file was created with it) and the modification time, then renames a
  // temporary file over the final name. False on failure.
  bool Commit(uint32_t mode, int64_t mtime);

 private:
  UniqueFd folder_;
  std::string leaf_;
  std::string temp_name_;
  UniqueFd file_;
  uint32_t created_mode_ = 0;
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
  // Starts writing file `path`, created with permission bits `mode` where the file creation mask
  // lets them through whole (else 0600, and Commit sets them); nullopt (errno set) on failure.
  std::optional<PendingFile> StartFile(std::string_view path, uint32_t mode,
                                       PathStatus& status) const;
  // Creates symbolic link `path` -> `target`, replacing an existing non-folder.
  bool MakeLink(std::string_view path, const std::string& target, PathStatus& status) const;
  // Sets the modification time of `path` without following links.
  void SetTime(std::string_view path, int64_t mtime) const;

 private:
  explicit ExtractionFolder(UniqueFd root, uint32_t umask)
      : root_(std::move(root)), umask_(umask) {}
  PathStatus WalkToParent(std::string_view parent, bool create, UniqueFd& out) const;
  // The parent folder of `path`, borrowed from the cache (valid until the next call), and the
  // last component into `leaf`; -1 when it cannot be reached.
  int CachedParent(std::string_view path, bool create, std::string& leaf,
                   PathStatus& status) const;

  UniqueFd root_;
  uint32_t umask_;  // the process's file creation mask when the folder was opened
  // The last parent folder reached, so that the files of one folder need one walk. Links are
  // only created by MakeLink, which forgets it.
  mutable bool cache_valid_ = false;
  mutable std::string cached_parent_;
  mutable UniqueFd cached_folder_;
};

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_EXTRACTION_FOLDER_H_
