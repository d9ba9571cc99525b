#include "pelmora/admin/rc_file_info.h"

#include <utility>

#include "pelmora/common/error.h"

namespace pelmora::admin {

Date FileTimeToDate(uint64_t filetime) { return Date::FromFileTime(filetime); }

RCFileInfo RCFileInfo::FromRecord(const FileInfoRecord& record) {
  RCFileInfo info;
  info.SetFileAttribues(record.attributes);
  info.SetFileSize(record.size);
  info.SetCreationTime(FileTimeToDate(record.creation_time));
  info.SetLastAccessTime(FileTimeToDate(record.last_access_time));
  info.SetLastWriteTime(FileTimeToDate(record.last_write_time));
  info.SetFileName(record.name);
  info.SetFullPathName(record.full_path);
  info.SetParentPath(record.parent_path);
  return info;
}

std::shared_ptr<RCFileInfo> RCFileInfoCollection::Item(int32_t index) const {
  if (index < 1 || index > Count()) throw RuntimeError(9, "Collection");
  return items_[static_cast<size_t>(index - 1)];
}

void RCFileInfoCollection::Add(RCFileInfo info) {
  items_.push_back(std::make_shared<RCFileInfo>(std::move(info)));
}

}  // namespace pelmora::admin
