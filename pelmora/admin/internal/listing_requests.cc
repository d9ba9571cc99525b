// The folder listing and file information requests.
#include "pelmora/admin/internal/listing_requests.h"

#include <algorithm>
#include <string>
#include <vector>

#include "pelmora/admin/listing_reader.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin::internal {
namespace {

// Listing data and records are read from the socket in pieces of at most this many bytes.
constexpr int32_t kListingPiece = 64 * 1024;

// The path GetFileInfo sends: one trailing "\" or "/" dropped, except after ":" (a drive root).
std::string_view WithoutTrailingSeparator(std::string_view path) {
  if (path.size() > 1 && (path.back() == '\\' || path.back() == '/') &&
      path[path.size() - 2] != ':') {
    path.remove_suffix(1);
  }
  return path;
}

}  // namespace

RCFileInfoCollection ListingRequests::GetFolderFiles(std::string_view folder) {
  error_.Clear();
  RCFileInfoCollection files;
  if (!CheckArgument(error_, folder, "Empty remote folder name")) return files;
  Trace(channel_.HandlePrefix() + "** GetFolderFile " + std::string(folder), "RSFSO",
        "GetFolderFiles");
  if (!channel_.SendRequestUnicode(folder, Code(RequestCode::kGetFolderFiles))) {
    LogFailure(channel_.HandlePrefix() + "** send request fail", "RSFSO", "GetFolderFiles");
    return files;
  }
  const std::optional<int32_t> size = channel_.ReceiveSize();
  if (!size) return files;
  if (*size < 0) {
    error_.Set(errors::kCannotOpenFile, "Cannot open remote folder");
    return files;
  }
  ListingReader reader;
  std::vector<FileInfoRecord> records;
  const int32_t e = channel_.StreamRawBytes(
      *size, kListingPiece, [&](std::span<const uint8_t> bytes) { reader.Feed(bytes, records); });
  if (e != sckSuccess) {
    LogFailure(channel_.HandlePrefix() + "**Get data info content fail", "RSFSO", "GetFolderFiles");
    channel_.SetSocketError(e);
    return files;
  }
  if (!reader.Finish()) {
    RefuseMalformed("GetFolderFiles");
    return files;
  }
  for (const FileInfoRecord& record : records) files.Add(RCFileInfo::FromRecord(record));
  return files;
}

void ListingRequests::RefuseMalformed(std::string_view routine) {
  error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
  LogFailure(channel_.HandlePrefix() + "Invalid Data Size", "RSFSO", routine);
}

bool ListingRequests::GetFileInfo(std::string_view file, RCFileInfo& info) {
  error_.Clear();
  const std::string prefix = channel_.HandlePrefix();
  Trace(prefix + "** GetFileInfo " + std::string(file), "RSFSO", "GetFileInfo");
  if (!CheckArgument(error_, file, "Empty file name")) return false;
  if (!channel_.SendRequestUnicode(WithoutTrailingSeparator(file),
                                   Code(RequestCode::kGetFileInfo))) {
    LogFailure(prefix + "** send request fail", "RSFSO", "GetFileInfo");
    return false;
  }
  const std::optional<int32_t> size = channel_.ReceiveSize();
  if (!size) {
    LogFailure(prefix + "** get file info size fail", "RSFSO", "GetFileInfo");
    return false;
  }
  Trace(prefix + "** Data size = " + std::to_string(*size), "RSFSO", "GetFileInfo");
  if (*size <= 0) {
    error_.Set(errors::kCannotOpenFile, "Cannot open remote file");
    return false;
  }
  // The service pads a short record to a whole packet.
  const int64_t count = std::max<int64_t>(*size, static_cast<int64_t>(kPacketSize));
  Channel::Bytes record;
  bool too_long = false;
  const int32_t e = channel_.StreamRawBytes(count, kListingPiece, [&](std::span<const uint8_t> b) {
    too_long = too_long || record.size() + b.size() > kMaxListingRecord + kPacketSize;
    if (!too_long) record.insert(record.end(), b.begin(), b.end());
  });
  if (e != sckSuccess) {
    LogFailure(prefix + "** Get file info data fail", "RSFSO", "GetFileInfo");
    channel_.SetSocketError(e);
    return false;
  }
  const std::optional<FileInfoRecord> parsed =
      too_long ? std::nullopt : ParseFileInfoRecord(record);
  if (!parsed) {
    RefuseMalformed("GetFileInfo");
    return false;
  }
  info = RCFileInfo::FromRecord(*parsed);
  return true;
}

}  // namespace pelmora::admin::internal
