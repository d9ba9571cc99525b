// A file the service writes for a client, put in place at once (pelmora::platform::AtomicFile:
// readers see the old file or the whole new one, never a part), owned by the client's account
// before it gets its name, with the permission bits of the file it replaces. A crash or a dropped
// client before Commit leaves the target as it was. A temporary left by a crash between link and
// rename is removed the first time the next run writes to its folder.
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

#include "pelmora/platform/atomic_file.h"
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
  // An uncommitted file is discarded (a temporary name, if one was made, is removed).

  // Prepares the new content for `target`: 3 when its folder is missing, 5 when the target is a
  // folder or the folder cannot be written, other errno mappings; 0 when ready. Blocks.
  int32_t Begin(const DriveTable& drives, const DrivePath& target);

  // Appends `bytes`; the first failure (112 disk full, ...) sticks and is returned by every
  // later call, so a sender can keep draining its stream. Blocks.
  int32_t Write(std::span<const uint8_t> bytes);

  // The times, fsync, then the link or rename: over an existing target when `replace`, else 80
  // when the target appeared meanwhile. Returns the first error of any step (the target is then
  // untouched). Blocks.
  int32_t Commit(const FileTimes& times, bool replace);

  // The descriptor of the new content (for copy_file_range).
  int fd() const { return file_.fd(); }

 private:
  pelmora::platform::AtomicFile file_;
  int32_t error_ = 0;
};

}  // namespace pelmorad

#endif  // PELMORAD_ATOMIC_FILE_H_
