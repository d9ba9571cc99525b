// A file written beside its target and put in place at once, so readers see the old file or the
// whole new one, never a part: the content goes to an unnamed file (O_TMPFILE) in the target's
// folder and is flushed with fsync; then it is linked under the target name when there is none,
// or gets a temporary name (".pelmora-<16 hex digits>.part") and is renamed over the target.
// A crash or a dropped client before Commit leaves the target as it was. A temporary left by a
// crash between link and rename is removed the first time the next run writes to its folder.
//
//   AtomicFile file;
//   if (int32_t error = file.Begin(drives, path); error != 0) return error;
//   file.Write(bytes);
//   return file.Commit(times, /*replace=*/true);
#ifndef PELMORAD_ATOMIC_FILE_H_
#define PELMORAD_ATOMIC_FILE_H_

#include <sys/stat.h>

#include <cstdint>
#include <span>
#include <string>

#include "pelmorad/drives.h"

namespace pelmorad {

// Access and modification times to give the new file (timespec, UTC).
struct FileTimes {
  timespec access{};
  timespec modification{};
};

// Removes from the folder the temporaries that earlier runs of the service left: files named as
// above whose last change is older than this process.
void RemoveLeftoverTemporaries(int folder_fd);

class AtomicFile {
 public:
  AtomicFile() = default;
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;
  // Discards an uncommitted file (a temporary name, if one was made, is removed).
  ~AtomicFile();

  // Prepares the new content for `target`: 3 when its folder is missing, 5 when the target is a
  // folder or the folder cannot be written, other errno mappings; 0 when ready. Blocks.
  int32_t Begin(const DriveTable& drives, const DrivePath& target);

  // Appends `bytes`; the first failure (112 disk full, ...) sticks and is returned by every
  // later call, so a sender can keep draining its stream. Blocks.
  int32_t Write(std::span<const uint8_t> bytes);

  // fsync, the times, then the link or rename: over an existing target when `replace`, else 80
  // when the target appeared meanwhile. Returns the first error of any step (the target is then
  // untouched). Blocks.
  int32_t Commit(const FileTimes& times, bool replace);

  // The descriptor of the new content (for copy_file_range).
  int fd() const { return file_.get(); }

 private:
  int32_t PlaceUnder(const std::string& temporary, bool replace);
  void Discard();

  UniqueFd folder_;
  UniqueFd file_;
  std::string name_;
  std::string temporary_;  // set when the content already has a name in the folder
  int32_t error_ = 0;
  bool committed_ = false;
};

}  // namespace pelmorad

#endif  // PELMORAD_ATOMIC_FILE_H_
