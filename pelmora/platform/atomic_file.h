// A file whose new content is put in place at once, so readers see the old file or the whole new
// one, never a part. The content goes to an unnamed file (O_TMPFILE) in the target's folder and is
// flushed with fsync; then it is linked under the target name when there is none, or gets a
// temporary name (".pelmora-<16 hex digits>.part") that a rename puts over the target. Where the
// file system has no O_TMPFILE the content is written under the temporary name from the start.
// Until Commit succeeds nothing is ever under the target name; a failure or a drop before it
// leaves the target as it was and removes the temporary.
//
//   pelmora::platform::AtomicFile file;
//   if (int error = file.Begin(std::move(folder), "a.job", 0644); error != 0) return error;
//   file.Write(bytes);
//   return file.Commit(/*replace=*/true);  // 0 or an errno
#ifndef PELMORA_PLATFORM_ATOMIC_FILE_H_
#define PELMORA_PLATFORM_ATOMIC_FILE_H_

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "pelmora/platform/file_io.h"

#include "pelmora/platform/export.h"

namespace pelmora::platform {

// True for a name that AtomicFile gives its temporaries.
PELMORA_API bool IsTemporaryName(std::string_view name);

// Removes from the folder the regular files with a temporary's name whose last status change is
// before `before`: what a process killed between its link and its rename left behind.
PELMORA_API void RemoveTemporariesBefore(int folder_fd, const timespec& before);

class PELMORA_API AtomicFile {
 public:
  AtomicFile() = default;
  AtomicFile(const AtomicFile&) = delete;
  AtomicFile& operator=(const AtomicFile&) = delete;
  // Discards an uncommitted file (a temporary name, if one was made, is removed).
  ~AtomicFile();

  // Opens the new content for `name` in `folder` with permission bits `mode` (the caller's
  // umask applies, as to any new file): 0, or the errno of the open. Blocks on the file system.
  int Begin(UniqueFd folder, std::string name, mode_t mode);

  // Appends `bytes`; the first failure (ENOSPC, ...) sticks and is returned by every later call,
  // so a caller may keep draining what it copies. Blocks on the file system.
  int Write(std::span<const uint8_t> bytes);
  int Write(std::string_view bytes);

  // fsync, then the link or rename: over an existing target when `replace`, else EEXIST when the
  // target exists. 0, or the first errno of any step (the target is then untouched and the
  // temporary gone). Blocks on the file system.
  int Commit(bool replace);

  // The descriptor of the new content (to set its owner and times, or copy into it).
  int fd() const { return file_.get(); }
  // The folder the target is in.
  int folder() const { return folder_.get(); }

 private:
  int PlaceUnder(const std::string& temporary, bool replace);
  void Discard();

  UniqueFd folder_;
  UniqueFd file_;
  std::string name_;
  std::string temporary_;  // set when the content has a name in the folder
  int error_ = 0;
  bool committed_ = false;
};

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_ATOMIC_FILE_H_
