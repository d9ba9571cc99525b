// File-information records and folder listings built from the file system: Linux mode bits
// become Windows attribute bits and times become FILETIME values.
//
//   InfoResult info = ReadFileInfo(drives, path);
//   if (info.error == 0) Send(pelmora::admin::BuildFileInfoRecord(info.record));
#ifndef PELMORAD_FILE_INFO_H_
#define PELMORAD_FILE_INFO_H_

#include <sys/stat.h>

#include <cstdint>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/drives.h"

namespace pelmorad {

// Attribute bits used in records.
inline constexpr int32_t kAttributeReadOnly = 0x01;
inline constexpr int32_t kAttributeHidden = 0x02;
inline constexpr int32_t kAttributeDirectory = 0x10;
inline constexpr int32_t kAttributeArchive = 0x20;
inline constexpr int32_t kAttributeReparsePoint = 0x400;

// Entries beyond this many are left out of a listing.
inline constexpr std::size_t kMaxListingEntries = 100000;

// A FILETIME (100 ns since 1601-01-01 UTC) for a Linux time, and back; times before 1601 give 0.
uint64_t ToFileTime(const timespec& time);
timespec FromFileTime(uint64_t filetime);

// The attribute bits for a file called `name` with `mode`: 0x10 for a folder, else 0x20; 0x01
// when the owner has no write permission; 0x02 when the name starts with ".".
int32_t AttributesFor(mode_t mode, std::string_view name);

// One record or the error number that prevented it.
struct InfoResult {
  pelmora::admin::FileInfoRecord record;
  int32_t error = 0;
};

// The record of `path` (a file or a folder; symbolic links inside the drive are followed).
// Errors: 2 missing, 3 a folder on the way missing, 5 a link leaving the drive. Blocks.
InfoResult ReadFileInfo(const DriveTable& drives, const DrivePath& path);

// The records of the entries of folder `path` sorted by name ("." and ".." left out), at most
// kMaxListingEntries. A link is listed with 0x400 added: with its target's data when the target
// lies in the drive, else with the link's own. Errors: 3 missing or not a folder, 5. Blocks.
int32_t ListFolder(const DriveTable& drives, const DrivePath& path,
                   std::vector<pelmora::admin::FileInfoRecord>& records);

// A listing sent piece by piece, so that a session holds its sorted names and one piece of
// records at a time rather than the whole reply:
//
//   FolderListing listing;
//   if (int32_t error = listing.Open(drives, path); error != 0) ...
//   send listing.TotalBytes(), then listing.Piece(drives, 256) until it comes back empty
class FolderListing {
 public:
  // Reads and sorts the names of folder `path` (as ListFolder). Blocks.
  int32_t Open(const DriveTable& drives, const DrivePath& path);
  // The bytes of the whole listing reply (as BuildListing would make it); known before any
  // record is read, since a record's length depends only on its names.
  std::size_t TotalBytes() const;
  // The listing bytes of the next `count` entries (empty at the end). Blocks.
  std::vector<uint8_t> Piece(const DriveTable& drives, std::size_t count);

 private:
  DrivePath path_;
  UniqueFd folder_;
  std::vector<std::string> names_;
  std::size_t next_ = 0;
};

}  // namespace pelmorad

#endif  // PELMORAD_FILE_INFO_H_
