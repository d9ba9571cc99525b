#include "pelmorad/file_info.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "pelmora/platform/file_io.h"
#include "pelmora/platform/file_time.h"
#include "pelmorad/win_error.h"

namespace pelmorad {
namespace {

timespec FromStatx(const statx_timestamp& stamp) {
  return timespec{static_cast<time_t>(stamp.tv_sec), static_cast<long>(stamp.tv_nsec)};
}

pelmora::admin::FileInfoRecord RecordFrom(const struct statx& info, const DrivePath& path) {
  pelmora::admin::FileInfoRecord record;
  record.attributes = AttributesFor(info.stx_mode, path.Name());
  record.size = static_cast<int32_t>(static_cast<uint32_t>(info.stx_size));
  const statx_timestamp& created =
      (info.stx_mask & STATX_BTIME) != 0 ? info.stx_btime : info.stx_mtime;
  record.creation_time = ToFileTime(FromStatx(created));
  record.last_access_time = ToFileTime(FromStatx(info.stx_atime));
  record.last_write_time = ToFileTime(FromStatx(info.stx_mtime));
  record.name = path.Name();
  record.full_path = path.Wire();
  record.parent_path = path.IsRoot() ? std::string() : path.Parent().Wire();
  return record;
}

int StatxAt(int dirfd, const char* name, int flags, struct statx& info) {
  return ::statx(dirfd, name, flags, STATX_BASIC_STATS | STATX_BTIME, &info);
}

// The record of one entry of an open folder.
pelmora::admin::FileInfoRecord EntryRecord(const DriveTable& drives, int folder,
                                           const DrivePath& child) {
  struct statx info {};
  StatxAt(folder, child.Name().c_str(), AT_SYMLINK_NOFOLLOW, info);
  if (!S_ISLNK(info.stx_mode)) return RecordFrom(info, child);
  Opened target = drives.OpenBeneath(child, O_PATH);
  struct statx followed {};
  if (target.fd && StatxAt(target.fd.get(), "", AT_EMPTY_PATH, followed) == 0) info = followed;
  pelmora::admin::FileInfoRecord record = RecordFrom(info, child);
  record.attributes |= kAttributeReparsePoint;
  return record;
}

}  // namespace

uint64_t ToFileTime(const timespec& time) {
  return pelmora::platform::FileTimeFromUnix(time.tv_sec, time.tv_nsec);
}

timespec FromFileTime(uint64_t filetime) {
  pelmora::platform::UnixTime time = pelmora::platform::UnixFromFileTime(filetime);
  return timespec{static_cast<time_t>(time.seconds), static_cast<long>(time.nanoseconds)};
}

int32_t AttributesFor(mode_t mode, std::string_view name) {
  int32_t attributes = S_ISDIR(mode) ? kAttributeDirectory : kAttributeArchive;
  if ((mode & S_IWUSR) == 0) attributes |= kAttributeReadOnly;
  if (!name.empty() && name[0] == '.') attributes |= kAttributeHidden;
  return attributes;
}

InfoResult ReadFileInfo(const DriveTable& drives, const DrivePath& path) {
  InfoResult result;
  Opened opened = drives.OpenBeneath(path, O_PATH);
  if (!opened.fd) {
    result.error = drives.ResolveError(path, opened.error);
    return result;
  }
  struct statx info {};
  if (StatxAt(opened.fd.get(), "", AT_EMPTY_PATH, info) != 0) {
    result.error = FromErrno(errno, Missing::kFile);
    return result;
  }
  result.record = RecordFrom(info, path);
  return result;
}

namespace {

// The sorted names in the open folder `folder`, at most kMaxListingEntries.
int32_t SortedNames(int folder, std::vector<std::string>& names) {
  pelmora::platform::UniqueDir dir(::fdopendir(::dup(folder)));
  if (!dir) return FromErrno(errno, Missing::kPath);
  while (dirent* entry = ::readdir(dir.get())) {
    std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (names.size() >= kMaxListingEntries) break;
    names.emplace_back(name);
  }
  std::sort(names.begin(), names.end());
  return kSuccess;
}

}  // namespace

int32_t ListFolder(const DriveTable& drives, const DrivePath& path,
                   std::vector<pelmora::admin::FileInfoRecord>& records) {
  Opened opened = drives.OpenBeneath(path, O_RDONLY | O_DIRECTORY);
  if (!opened.fd) return FromErrno(opened.error, Missing::kPath);
  std::vector<std::string> names;
  if (int32_t error = SortedNames(opened.fd.get(), names); error != kSuccess) return error;
  records.reserve(names.size());
  for (const std::string& name : names) {
    records.push_back(EntryRecord(drives, opened.fd.get(), path.Child(name)));
  }
  return kSuccess;
}

int32_t FolderListing::Open(const DriveTable& drives, const DrivePath& path) {
  Opened opened = drives.OpenBeneath(path, O_RDONLY | O_DIRECTORY);
  if (!opened.fd) return FromErrno(opened.error, Missing::kPath);
  path_ = path;
  folder_ = std::move(opened.fd);
  names_.clear();
  next_ = 0;
  return SortedNames(folder_.get(), names_);
}

std::size_t FolderListing::TotalBytes() const {
  std::size_t total = 0;
  pelmora::admin::FileInfoRecord shape;
  shape.parent_path = path_.Wire();
  for (const std::string& name : names_) {
    DrivePath child = path_.Child(name);
    shape.name = name;
    shape.full_path = child.Wire();
    total += pelmora::admin::BuildListing({&shape, 1}).size();
  }
  return total;
}

std::vector<uint8_t> FolderListing::Piece(const DriveTable& drives, std::size_t count) {
  std::vector<pelmora::admin::FileInfoRecord> records;
  for (; next_ < names_.size() && records.size() < count; ++next_) {
    records.push_back(EntryRecord(drives, folder_.get(), path_.Child(names_[next_])));
  }
  return pelmora::admin::BuildListing(records);
}

}  // namespace pelmorad
