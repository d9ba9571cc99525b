// RCFSO's folder listing and file information requests (codes 4 and 3).
//
// A listing's length comes from the network: its bytes are read in bounded pieces and parsed as
// they arrive (ListingReader), so memory follows the entries actually received. A malformed
// listing or record is still read to its announced end, so the session stays in step.
#include <algorithm>
#include <string>

#include "pelmora/admin/listing_reader.h"
#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {
namespace {

// Listing data and records are read from the socket in pieces of at most this many bytes.
constexpr int32_t kListingPiece = 64 * 1024;

int16_t Code(RequestCode code) { return static_cast<int16_t>(code); }

// The path GetFileInfo sends: one trailing "\" or "/" dropped, except after ":" (a drive root).
std::string_view WithoutTrailingSeparator(std::string_view path) {
  if (path.size() > 1 && (path.back() == '\\' || path.back() == '/') &&
      path[path.size() - 2] != ':') {
    path.remove_suffix(1);
  }
  return path;
}

}  // namespace

int32_t RCFSO::StreamRawBytes(int64_t count, int32_t piece, const RawConsumer& consumer) {
  Bytes data;
  while (count > 0) {
    const auto wanted = static_cast<int32_t>(std::min<int64_t>(count, piece));
    const int32_t e = ReceiveRaw(wanted, data);
    if (e != sckSuccess) return e;
    consumer(data);
    count -= wanted;
  }
  return sckSuccess;
}

RCFileInfoCollection RCFSO::GetFolderFiles(std::string_view sRemoteFolder) {
  ClearError();
  RCFileInfoCollection files;
  if (!CheckArgument(sRemoteFolder, "Empty remote folder name")) return files;
  Trace(HandlePrefix() + "** GetFolderFile " + std::string(sRemoteFolder), "RSFSO",
        "GetFolderFiles");
  if (!SendRequestUnicode(sRemoteFolder, Code(RequestCode::kGetFolderFiles))) {
    LogFailure(HandlePrefix() + "** send request fail", "RSFSO", "GetFolderFiles");
    return files;
  }
  const std::optional<int32_t> size = ReceiveSize();
  if (!size) return files;
  if (*size < 0) {
    SetError(errors::kCannotOpenFile, "Cannot open remote folder");
    return files;
  }
  ListingReader reader;
  std::vector<FileInfoRecord> records;
  const int32_t e = StreamRawBytes(
      *size, kListingPiece, [&](std::span<const uint8_t> bytes) { reader.Feed(bytes, records); });
  if (e != sckSuccess) {
    LogFailure(HandlePrefix() + "**Get data info content fail", "RSFSO", "GetFolderFiles");
    SetSocketError(e);
    return files;
  }
  if (!reader.Finish()) {
    RefuseMalformed("GetFolderFiles");
    return files;
  }
  for (const FileInfoRecord& record : records) files.Add(RCFileInfo::FromRecord(record));
  return files;
}

void RCFSO::RefuseMalformed(std::string_view routine) {
  SetError(errors::kInvalidDataSize, "Invalid Data Size");
  LogFailure(HandlePrefix() + "Invalid Data Size", "RSFSO", routine);
}

bool RCFSO::GetFileInfo(std::string_view sFileName, RCFileInfo& oFileInfo) {
  ClearError();
  Trace(HandlePrefix() + "** GetFileInfo " + std::string(sFileName), "RSFSO", "GetFileInfo");
  if (!CheckArgument(sFileName, "Empty file name")) return false;
  if (!SendRequestUnicode(WithoutTrailingSeparator(sFileName), Code(RequestCode::kGetFileInfo))) {
    LogFailure(HandlePrefix() + "** send request fail", "RSFSO", "GetFileInfo");
    return false;
  }
  const std::optional<int32_t> size = ReceiveSize();
  if (!size) {
    LogFailure(HandlePrefix() + "** get file info size fail", "RSFSO", "GetFileInfo");
    return false;
  }
  Trace(HandlePrefix() + "** Data size = " + std::to_string(*size), "RSFSO", "GetFileInfo");
  if (*size <= 0) {
    SetError(errors::kCannotOpenFile, "Cannot open remote file");
    return false;
  }
  // The service pads a short record to a whole packet.
  const int64_t count = std::max<int64_t>(*size, static_cast<int64_t>(kPacketSize));
  Bytes record;
  bool too_long = false;
  const int32_t e = StreamRawBytes(count, kListingPiece, [&](std::span<const uint8_t> bytes) {
    too_long = too_long || record.size() + bytes.size() > kMaxListingRecord + kPacketSize;
    if (!too_long) record.insert(record.end(), bytes.begin(), bytes.end());
  });
  if (e != sckSuccess) {
    LogFailure(HandlePrefix() + "** Get file info data fail", "RSFSO", "GetFileInfo");
    SetSocketError(e);
    return false;
  }
  const std::optional<FileInfoRecord> parsed =
      too_long ? std::nullopt : ParseFileInfoRecord(record);
  if (!parsed) {
    RefuseMalformed("GetFileInfo");
    return false;
  }
  oFileInfo = RCFileInfo::FromRecord(*parsed);
  return true;
}

}  // namespace pelmora::admin
