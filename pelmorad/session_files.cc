// File and folder requests: existence tests, create, delete, copy, move (result replies).
#include <cstdint>

#include "pelmora/admin/wire_replies.h"
#include "pelmorad/blocking.h"
#include "pelmorad/file_ops.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::RequestCode;

namespace {

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

asio::awaitable<bool> HandleFileRequest(RequestScope& request, const RequestBlock& block) {
  auto code = static_cast<RequestCode>(block.code);
  bool write = code != RequestCode::kFileExists && code != RequestCode::kFolderExists;
  Target target = request.ResolveArgument(block, 0, write);
  int32_t result = target.error;
  if (result == kSuccess) {
    bool overwrite = RequestScope::FlagArgument(block, 1);
    bool unicode = RequestScope::FlagArgument(block, 2);
    auto drives = request.runtime.drives;
    result = co_await request.RunOnPool(
        [&] { return RunFileRequest(*drives, code, target.path, overwrite, unicode); });
  }
  request.Audit(block.code, target.text, result);
  co_return co_await request.channel.SendResult(result);
}

asio::awaitable<bool> HandleCopy(RequestScope& request, const RequestBlock& block) {
  auto code = static_cast<RequestCode>(block.code);
  bool moves = code == RequestCode::kMoveRemoteFile;
  Target from = request.ResolveArgument(block, 0, moves);
  Target to = request.ResolveArgument(block, 1, true);
  int32_t result = from.error != kSuccess ? from.error : to.error;
  if (result == kSuccess) {
    bool overwrite = !moves && RequestScope::FlagArgument(block, 2);
    auto drives = request.runtime.drives;
    result = co_await request.RunOnPool(
        [&] { return RunCopy(*drives, code, from.path, to.path, overwrite); });
  }
  request.Audit(block.code, from.text + " -> " + to.text, result);
  co_return co_await request.channel.SendResult(result);
}

}  // namespace pelmorad
