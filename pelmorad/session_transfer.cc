// Uploads (code 0) into an atomic file and downloads (code 1) streamed in large writes.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <vector>

#include "pelmora/admin/wire_replies.h"
#include "pelmora/platform/file_io.h"
#include "pelmorad/atomic_file.h"
#include "pelmorad/blocking.h"
#include "pelmorad/file_info.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::RequestBlock;
using pelmora::admin::TransferHeader;

namespace {

constexpr std::size_t kPiecesPerRead = 64;          // 96 000 bytes of upload per read
constexpr std::size_t kDownloadChunk = 256 * 1024;  // bytes per download write

// An opened download source.
struct Source {
  UniqueFd fd;
  TransferHeader header;
  int32_t error = 0;
};

Source OpenSource(const DriveTable& drives, const DrivePath& path) {
  Source source;
  Opened opened = drives.OpenRegular(path, O_RDONLY);
  struct stat info {};
  if (!opened.fd) {
    source.error = drives.ResolveError(path, opened.error);
  } else if (::fstat(opened.fd.get(), &info) != 0) {
    source.error = FromErrno(errno, Missing::kFile);
  } else if (!S_ISREG(info.st_mode) || info.st_size > INT32_MAX) {
    source.error = kAccessDenied;
  }
  if (source.error != kSuccess) return source;
  InfoResult times = ReadFileInfo(drives, path);
  source.header.size = static_cast<int32_t>(info.st_size);
  source.header.creation_time = times.record.creation_time;
  source.header.last_access_time = ToFileTime(info.st_atim);
  source.header.last_write_time = ToFileTime(info.st_mtim);
  source.fd = std::move(opened.fd);
  return source;
}

// Reads `buffer.size()` bytes at `offset`; a file that shrank meanwhile or a read that fails is
// padded with zeros (the client waits for exactly the announced size), and that is reported as 4.
int32_t ReadChunk(int fd, uint64_t offset, std::vector<uint8_t>& buffer) {
  // Zeroed first: a read that fails leaves the bytes read before it and zeros after them.
  std::fill(buffer.begin(), buffer.end(), 0);
  ssize_t got = pelmora::platform::PreadFully(fd, buffer, offset);
  return got == static_cast<ssize_t>(buffer.size()) ? kSuccess : kCannotOpen;
}

}  // namespace

asio::awaitable<bool> HandleUpload(RequestScope& request, const RequestBlock& block) {
  Target target = request.ResolveArgument(block, 0, true);
  std::optional<SessionChannel::Message> message = co_await request.channel.ReadMessage();
  if (!message) co_return false;
  std::optional<TransferHeader> header = pelmora::admin::ParseTransferHeader(message->data);
  if (!header) co_return false;
  int32_t result = target.error != kSuccess ? target.error
                   : header->size < 0       ? kInvalidParameter
                                            : kSuccess;
  auto file = std::make_unique<AtomicFile>();
  auto drives = request.runtime.drives;
  if (result == kSuccess) {
    result = co_await request.RunOnPool([&] { return file->Begin(*drives, target.path); });
  }
  if (result != kSuccess) {
    request.Audit(block.code, target.text, result);
    co_return co_await request.channel.SendMessage(pelmora::admin::BuildGoReply(false));
  }
  if (!co_await request.channel.SendMessage(pelmora::admin::BuildGoReply(true))) co_return false;
  std::size_t remaining = static_cast<std::size_t>(header->size);
  std::vector<uint8_t> buffer;
  while (remaining > 0) {
    std::size_t pieces = std::min(kPiecesPerRead, (remaining + 1499) / 1500);
    buffer.resize(pieces * pelmora::admin::kPacketSize);
    if (!co_await request.channel.ReadExactly(buffer)) {
      request.Audit(block.code, target.text + " (connection lost)", kCannotOpen);
      co_return false;  // the AtomicFile goes and leaves the target alone
    }
    std::size_t useful = std::min(remaining, buffer.size());
    co_await request.RunOnPool([&] { return file->Write({buffer.data(), useful}); });
    remaining -= useful;
  }
  FileTimes times{FromFileTime(header->last_access_time), FromFileTime(header->last_write_time)};
  result = co_await request.RunOnPool([&] { return file->Commit(times, true); });
  request.Audit(block.code, target.text, result);
  co_return co_await request.channel.SendResult(result);
}

asio::awaitable<bool> HandleDownload(RequestScope& request, const RequestBlock& block) {
  co_return co_await SendDownload(request, block.code, request.ResolveArgument(block, 0, false), 0);
}

asio::awaitable<bool> SendDownload(RequestScope& request, int code, Target target,
                                   int32_t offset_asked) {
  Source source;
  source.error = target.error;
  auto drives = request.runtime.drives;
  if (source.error == kSuccess) {
    source = co_await request.RunOnPool([&] { return OpenSource(*drives, target.path); });
  }
  if (source.error != kSuccess) source.header = TransferHeader{-1, 0, 0, 0};
  if (!co_await request.channel.SendMessage(pelmora::admin::BuildTransferHeader(source.header)))
    co_return false;
  if (source.error != kSuccess) {
    request.Audit(code, target.text, source.error);
    co_return true;
  }
  std::optional<SessionChannel::Message> go = co_await request.channel.ReadMessage();
  if (!go) co_return false;
  if (!pelmora::admin::IsGoReply(go->data)) {
    request.Audit(code, target.text + " (refused by the client)", kSuccess);
    co_return true;
  }
  int32_t result = kSuccess;
  std::size_t total = static_cast<std::size_t>(source.header.size);
  std::vector<uint8_t> buffer;
  // From the offset asked for (none past the end: then nothing follows the go reply).
  for (std::size_t offset = std::min(static_cast<std::size_t>(offset_asked), total);
       offset < total;) {
    buffer.resize(std::min(kDownloadChunk, total - offset));
    int32_t read =
        co_await request.RunOnPool([&] { return ReadChunk(source.fd.get(), offset, buffer); });
    if (result == kSuccess) result = read;
    if (!co_await request.channel.SendRaw(buffer)) co_return false;
    offset += buffer.size();
  }
  request.Audit(code, offset_asked > 0 ? target.text + " from " + std::to_string(offset_asked)
                                      : target.text,
                result);
  co_return true;
}

}  // namespace pelmorad
