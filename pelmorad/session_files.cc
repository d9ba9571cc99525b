// File and folder requests: existence tests, create, delete, copy, move (result replies), file
// information and listings (sized records).
#include <climits>
#include <memory>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/blocking.h"
#include "pelmorad/file_info.h"
#include "pelmorad/file_ops.h"
#include "pelmorad/session.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;

namespace {

constexpr std::size_t kListingPieceEntries = 256;

int32_t RunFileRequest(const DriveTable& drives, RequestCode code, const DrivePath& path,
                       bool overwrite, bool unicode) {
  switch (code) {
    case RequestCode::kFileExists:
      return FileExists(drives, path);
    case RequestCode::kFolderExists:
      return FolderExists(drives, path);
    case RequestCode::kCreateRemoteFile:
      return CreateFile(drives, path, overwrite, unicode);
    case RequestCode::kCreateRemoteFolder:
      return CreateFolder(drives, path);
    case RequestCode::kDeleteRemoteFile:
      return DeleteFile(drives, path);
    case RequestCode::kDeleteRemoteFolder:
      return DeleteFolder(drives, path);
    default:
      return kInvalidFunction;
  }
}

int32_t RunCopy(const DriveTable& drives, RequestCode code, const DrivePath& from,
                const DrivePath& to, bool overwrite) {
  switch (code) {
    case RequestCode::kCopyRemoteFile:
      return CopyFile(drives, from, to, overwrite);
    case RequestCode::kCopyRemoteFolder:
      return CopyFolder(drives, from, to, overwrite);
    case RequestCode::kMoveRemoteFile:
      return MoveFile(drives, from, to);
    default:
      return kInvalidFunction;
  }
}

}  // namespace

asio::awaitable<bool> Session::HandleFileRequest(const RequestBlock& block) {
  auto code = static_cast<RequestCode>(block.code);
  bool write = code != RequestCode::kFileExists && code != RequestCode::kFolderExists;
  Target target = ResolveArgument(block, 0, write);
  int32_t result = target.error;
  if (result == kSuccess) {
    bool overwrite = FlagArgument(block, 1);
    bool unicode = FlagArgument(block, 2);
    auto drives = runtime_->drives;
    result = co_await RunFileWork([&] {
      return RunFileRequest(*drives, code, target.path, overwrite, unicode);
    });
  }
  AuditRequest(block.code, target.text, result);
  co_return co_await SendResult(result);
}

asio::awaitable<bool> Session::HandleCopy(const RequestBlock& block) {
  auto code = static_cast<RequestCode>(block.code);
  bool moves = code == RequestCode::kMoveRemoteFile;
  Target from = ResolveArgument(block, 0, moves);
  Target to = ResolveArgument(block, 1, true);
  int32_t result = from.error != kSuccess ? from.error : to.error;
  if (result == kSuccess) {
    bool overwrite = !moves && FlagArgument(block, 2);
    auto drives = runtime_->drives;
    result = co_await RunFileWork(
        [&] { return RunCopy(*drives, code, from.path, to.path, overwrite); });
  }
  AuditRequest(block.code, from.text + " -> " + to.text, result);
  co_return co_await SendResult(result);
}

asio::awaitable<bool> Session::HandleFileInfo(const RequestBlock& block) {
  Target target = ResolveArgument(block, 0, false);
  InfoResult info;
  info.error = target.error;
  if (info.error == kSuccess) {
    auto drives = runtime_->drives;
    info = co_await RunFileWork([&] { return ReadFileInfo(*drives, target.path); });
  }
  AuditRequest(block.code, target.text, info.error);
  if (info.error != kSuccess) co_return co_await SendMessage(pelmora::admin::BuildSizeMessage(-1));
  std::vector<uint8_t> record = pelmora::admin::BuildFileInfoRecord(info.record);
  auto size = static_cast<int32_t>(record.size());
  if (record.size() < pelmora::admin::kPacketSize) record.resize(pelmora::admin::kPacketSize);
  co_return co_await SendMessage(pelmora::admin::BuildSizeMessage(size)) &&
      co_await SendRaw(record);
}

asio::awaitable<bool> Session::HandleListing(const RequestBlock& block) {
  Target target = ResolveArgument(block, 0, false);
  int32_t result = target.error;
  auto listing = std::make_unique<FolderListing>();
  std::size_t total = 0;
  auto drives = runtime_->drives;
  if (result == kSuccess) {
    result = co_await RunFileWork([&] {
      int32_t error = listing->Open(*drives, target.path);
      if (error == kSuccess) total = listing->TotalBytes();
      return error;
    });
  }
  if (result == kSuccess && total > static_cast<std::size_t>(INT32_MAX)) result = kNotEnoughMemory;
  AuditRequest(block.code, target.text, result);
  if (result != kSuccess) co_return co_await SendMessage(pelmora::admin::BuildSizeMessage(-1));
  if (!co_await SendMessage(pelmora::admin::BuildSizeMessage(static_cast<int32_t>(total)))) {
    co_return false;
  }
  // A piece at a time, so a client that does not read holds one piece of the reply, not all.
  std::size_t sent = 0;
  while (true) {
    std::vector<uint8_t> piece =
        co_await RunFileWork([&] { return listing->Piece(*drives, kListingPieceEntries); });
    if (piece.empty()) break;
    sent += piece.size();
    if (sent > total || !co_await SendRaw(piece)) break;
  }
  // The announced size is what the client reads; any other count would leave it out of step.
  co_return sent == total;
}

}  // namespace pelmorad
