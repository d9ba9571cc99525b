// Byte-level pieces of the zip format that both engines share: the Unix time (UT, 0x5455) and
// Unix owner (ux, 0x7875) extra fields, MS-DOS date and time, the rules that turn an entry name
// into a safe relative path, and a bounds-checked walk of the central directory for the general
// purpose flags and MS-DOS times that libzip does not expose.
#ifndef PELMORA_ARCHIVE_INTERNAL_ZIP_FIELDS_H_
#define PELMORA_ARCHIVE_INTERNAL_ZIP_FIELDS_H_

#include <cstdint>
#include <ctime>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pelmora::archive::internal {

inline constexpr uint16_t kUnixTimeFieldId = 0x5455;
inline constexpr uint16_t kUnixOwnerFieldId = 0x7875;

// The local UT field body: flags 3, modification and access time (9 bytes).
std::vector<uint8_t> BuildLocalUnixTime(int64_t mtime, int64_t atime);
// The central UT field body: flags 3 and the modification time (5 bytes).
std::vector<uint8_t> BuildCentralUnixTime(int64_t mtime);
// The ux field body: version 1, 4-byte uid, 4-byte gid (11 bytes).
std::vector<uint8_t> BuildUnixOwner(uint32_t uid, uint32_t gid);

// The modification time a UT field body holds, or nullopt when it holds none or is malformed.
std::optional<int64_t> ParseUnixTimeField(std::span<const uint8_t> body);

// Owner of a ux field body.
struct UnixOwner {
  uint32_t uid = 0;
  uint32_t gid = 0;
};
// The owner a ux field body holds (ids of 1 to 4 bytes), or nullopt when malformed.
std::optional<UnixOwner> ParseUnixOwnerField(std::span<const uint8_t> body);

// The body of the first field with `id` in a whole extra-field block, or nullopt.
std::optional<std::span<const uint8_t>> FindExtraField(std::span<const uint8_t> block,
                                                       uint16_t id);

// MS-DOS date (high 16 bits) and time (low 16 bits) of a local time, seconds rounded up to even
// as the zip program does. Times before 1980 give 1980-01-01 00:00.
uint32_t ToDosTime(int64_t unix_time);
// Local time of an MS-DOS date and time.
int64_t FromDosTime(uint32_t dos);
// `unix_time` rounded up to an even second (what the MS-DOS time can hold).
int64_t RoundUpToEven(int64_t unix_time);

// The safe relative path for an entry name, and what was removed from it.
struct SafeName {
  std::string path;             // components joined by '/', no "." or ".." or empty parts
  bool is_directory = false;    // the name ended with '/'
  bool stripped_absolute = false;
  bool skipped_parent = false;  // one or more ".." components were dropped
};
// Makes `name` safe: leading slashes are stripped, ".." and "." and empty components dropped.
// With `junk_folders` only the last component is kept. With `space_to_underscore` spaces become
// underscores. The path is empty when nothing is left.
SafeName SanitizeEntryName(std::string_view name, bool junk_folders, bool space_to_underscore);

// Whether a symbolic link at relative path `link_path` (inside the extraction folder) with
// `target` stays inside the folder: relative, and its ".." never climb above the folder.
bool LinkStaysInside(std::string_view link_path, std::string_view target);

// What the central directory says of one entry beyond what libzip reports.
struct CentralFlags {
  uint16_t flags = 0;     // general purpose bit flags
  uint32_t dos_time = 0;  // modification date (high) and time (low)
  uint16_t internal_attributes = 0;
};
// Reads `size` bytes at `offset` into `out`; false when they cannot be read.
using ReadAt = std::function<bool(uint64_t offset, std::span<uint8_t> out)>;
// The flags and times of the central directory's entries in order, read through `read` from an
// archive of `archive_size` bytes; at most `max_entries`. Empty when the end record or the
// directory cannot be found or is inconsistent.
std::vector<CentralFlags> ReadCentralFlags(const ReadAt& read, uint64_t archive_size,
                                           uint64_t max_entries);

}  // namespace pelmora::archive::internal

#endif  // PELMORA_ARCHIVE_INTERNAL_ZIP_FIELDS_H_
