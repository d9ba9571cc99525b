// RCFileInfo: what the administration service reports about one remote file or folder.
//
// A plain value object of eight read/write properties, filled from a file-information record by
// RCFSO::GetFileInfo and RCFSO::GetFolderFiles. Nothing is computed or checked; the times are
// local dates at whole seconds. The misspelled property name FileAttribues is the public name.
//
//   pelmora::admin::RCFileInfo info;
//   if (fso.GetFileInfo("C:\\Data\\shop.ini", info)) {
//     std::cout << info.FileName() << " " << info.FileSize() << '\n';
//   }
#ifndef PELMORA_ADMIN_RC_FILE_INFO_H_
#define PELMORA_ADMIN_RC_FILE_INFO_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"

namespace pelmora::admin {

class PELMORA_API RCFileInfo {
 public:
  // An empty object: zero attributes and size, empty dates and texts.
  RCFileInfo() = default;

  // The attribute bits as the server's file system reports them.
  int32_t FileAttribues() const { return file_attribues_; }
  void SetFileAttribues(int32_t value) { file_attribues_ = value; }
  // Creation, last access and last write times, local time of this machine.
  Date CreationTime() const { return creation_time_; }
  void SetCreationTime(Date value) { creation_time_ = value; }
  Date LastAccessTime() const { return last_access_time_; }
  void SetLastAccessTime(Date value) { last_access_time_ = value; }
  Date LastWriteTime() const { return last_write_time_; }
  void SetLastWriteTime(Date value) { last_write_time_ = value; }
  // The size in bytes: only the low 32 bits travel, as a signed number.
  int32_t FileSize() const { return file_size_; }
  void SetFileSize(int32_t value) { file_size_ = value; }
  // The entry's name without its folder, its full path on the server and the folder holding it.
  const std::string& FileName() const { return file_name_; }
  void SetFileName(std::string value) { file_name_ = std::move(value); }
  const std::string& FullPathName() const { return full_path_name_; }
  void SetFullPathName(std::string value) { full_path_name_ = std::move(value); }
  const std::string& ParentPath() const { return parent_path_; }
  void SetParentPath(std::string value) { parent_path_ = std::move(value); }

  // The object a parsed file-information record describes, its FILETIMEs turned into local dates
  // with FileTimeToDate. Never fails.
  static RCFileInfo FromRecord(const FileInfoRecord& record);

 private:
  int32_t file_attribues_ = 0;
  Date creation_time_;
  Date last_access_time_;
  Date last_write_time_;
  int32_t file_size_ = 0;
  std::string file_name_;
  std::string full_path_name_;
  std::string parent_path_;
};

// The local date of a UTC FILETIME (100-ns intervals since 1601-01-01): converted to local time
// with the zone's rules for that instant (daylight saving included), sub-second parts dropped.
// A zero FILETIME gives the local equivalent of 1601-01-01 00:00:00. A FILETIME whose local date
// falls after 9999-12-31 23:59:59 gives the empty date. Never fails.
PELMORA_API Date FileTimeToDate(uint64_t filetime);

// The entries of a remote folder in the server's order, as GetFolderFiles returns them: an
// ordered collection without keys whose items are shared, so a late-bound caller that asks for
// Item(i) twice gets the same object.
class PELMORA_API RCFileInfoCollection {
 public:
  RCFileInfoCollection() = default;

  // The number of entries.
  int32_t Count() const { return static_cast<int32_t>(items_.size()); }
  // The entry at 1-based `index`. Raises pelmora::Error 9 "Subscript out of range" (source
  // "Collection") outside 1..Count().
  std::shared_ptr<RCFileInfo> Item(int32_t index) const;
  // Appends an entry at the end.
  void Add(RCFileInfo info);
  // Removes every entry.
  void Clear() { items_.clear(); }

  // C++ iteration over the entries.
  auto begin() const { return items_.begin(); }
  auto end() const { return items_.end(); }

 private:
  std::vector<std::shared_ptr<RCFileInfo>> items_;
};

}  // namespace pelmora::admin

#endif  // PELMORA_ADMIN_RC_FILE_INFO_H_
