// The mapped drives: each drive letter's Linux folder held open, and every name resolved beneath
// it with openat2(RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS), so "..", absolute symbolic links,
// links that climb out and /proc magic links can never leave the folder.
//
//   DriveTable drives = DriveTable::Open({{'C', "/srv/pelmora/c"}});
//   Opened file = drives.OpenBeneath(path, O_RDONLY);
//   if (!file.fd) return FromErrno(file.error, Missing::kFile);
#ifndef PELMORAD_DRIVES_H_
#define PELMORAD_DRIVES_H_

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "pelmora/platform/file_io.h"
#include "pelmorad/drive_path.h"

namespace pelmorad {

using pelmora::platform::UniqueFd;

// A descriptor from a resolution, or the errno that stopped it.
struct Opened {
  UniqueFd fd;
  int error = 0;
};

// True when the kernel has openat2 with RESOLVE_BENEATH (Linux 5.6 and later). Probes once.
bool BeneathResolutionAvailable();

// The letter-to-folder map with each folder held open (O_PATH). Shared by every session; its
// members are safe to call from several threads at once.
class DriveTable {
 public:
  // Opens every folder. Throws pelmora::Error 3 naming the folder when one cannot be opened as a
  // folder. Blocks on the file system.
  static std::shared_ptr<const DriveTable> Open(const std::map<char, std::string>& drives);
  // A table of folders opened elsewhere (an account worker takes its service's): `roots` gives
  // each letter's folder and its O_PATH descriptor, which the table then owns.
  static std::shared_ptr<const DriveTable> Adopt(std::map<char, std::pair<std::string, UniqueFd>> roots);
  // Each letter's folder descriptor, owned by the table, in letter order.
  std::vector<std::pair<char, int>> Descriptors() const;

  // True when `letter` is mapped.
  bool IsMapped(char letter) const { return roots_.contains(letter); }
  // The Linux folder of `letter` ("" when unmapped).
  std::string Folder(char letter) const;

  // openat2 of `path` beneath its drive's folder with `flags` (O_CLOEXEC added) and `mode`.
  // error ENOENT for an unmapped drive. Retries EAGAIN (a rename raced the lookup) a few times.
  Opened OpenBeneath(const DrivePath& path, int flags, mode_t mode = 0) const;

  // Opens a regular file beneath the drive with `flags`, never anything else: a folder gives
  // EISDIR, a FIFO, socket or device ENXIO, without opening it (so opening cannot block on a FIFO
  // or act on a device). The open itself adds O_NONBLOCK | O_NOCTTY and the result is checked
  // again, so a name swapped meanwhile is refused too.
  Opened OpenRegular(const DrivePath& path, int flags) const;

  // The folder that holds `path`, opened O_PATH | O_DIRECTORY beneath the drive.
  Opened OpenParent(const DrivePath& path) const;

  // The reply number for `error` from resolving `path`: ENOENT gives 2 when the folder that
  // would hold `path` exists and 3 when it does not; other values as FromErrno. Blocks.
  int32_t ResolveError(const DrivePath& path, int error) const;

 private:
  std::map<char, std::pair<std::string, UniqueFd>> roots_;
};

}  // namespace pelmorad

#endif  // PELMORAD_DRIVES_H_
