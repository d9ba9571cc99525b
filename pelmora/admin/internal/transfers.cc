// Upload and Download, both in constant memory. Upload reads the file in blocks of whole pieces
// and sends each block in one socket send; the bytes on the wire are those of one 1500-byte buffer
// sent per piece, the last piece included, whose tail past the file's end still holds the previous
// piece's bytes (zeros for a file shorter than one piece). Download takes each piece through the
// socket's read-ahead buffer and writes the file in large blocks. A file that cannot be written (a
// full disk) is received to its end, so the session stays in step, then removed.
#include "pelmora/admin/internal/transfers.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <string>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_numbers.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/platform/win_error.h"

namespace pelmora::admin::internal {
namespace {

// Upload sends this many pieces per socket send.
constexpr size_t kPiecesPerSend = 44;
// Download asks the socket for this many bytes at a time (whole pieces, about 1 MiB: far more
// than the socket's read-ahead size, so that they are received straight into the block, and few
// enough receives and file writes per gigabyte that their cost per call does not show).
constexpr int64_t kReceiveBlock = 699 * kPacketSize;
// FILETIME ticks per millisecond: the last-write time a download sets is cut to milliseconds.
constexpr uint64_t kTicksPerMillisecond = 10000;

// Makes the first `count` bytes of `block` whole pieces and returns how many: a short last piece
// keeps, past its end, what a reused 1500-byte buffer holds there from the piece before (the
// piece before in `block`, or `previous`, the last piece of the block sent before).
size_t CompletePieces(std::span<uint8_t> block, size_t count, std::span<const uint8_t> previous) {
  const size_t pieces = (count + kPacketSize - 1) / kPacketSize;
  const size_t filled = count % kPacketSize;
  if (filled != 0) {
    const size_t last = (pieces - 1) * kPacketSize;
    const std::span<const uint8_t> before =
        pieces > 1 ? std::span<const uint8_t>(block).subspan(last - kPacketSize, kPacketSize)
                   : previous;
    std::copy(before.begin() + static_cast<std::ptrdiff_t>(filled), before.end(),
              block.begin() + static_cast<std::ptrdiff_t>(last + filled));
  }
  return pieces;
}

void TransferLog(std::string_view routine, std::string_view text, bool failure = false) {
  if (failure) {
    LogFailure(text, "RFSO", routine);
  } else {
    Trace(text, "RFSO", routine);
  }
}

}  // namespace

bool Transfers::Upload(std::string_view local_file, std::string_view remote_file) {
  error_.Clear();
  const std::string local(local_file);
  TransferLog("Upload", "** Upload " + local + " =>" + std::string(remote_file) + " **");
  if (!CheckArgument(error_, remote_file, "Empty remote file name")) {
    TransferLog("Upload", "Empty remote filename", true);
    return false;
  }
  LocalFile file;
  if (!OpenUploadSource(local, file)) return false;
  if (!channel_.SendRequestUnicode(remote_file, Code(RequestCode::kUpload))) {
    TransferLog("Upload", channel_.HandlePrefix() + "send request fail ");
    return false;
  }
  return UploadAnnounced(file) && channel_.RecvResult();
}

bool Transfers::OpenUploadSource(const std::string& local, LocalFile& file) {
  if (!IsRegularFile(local)) {
    std::string text = "File " + local + " does not exist !";
    channel_.events().Raise(&RCFSOEvents::FSOError, text);
    error_.Set(errors::kCannotOpenFile, text);
    TransferLog("Upload", text, true);
    return false;
  }
  file = LocalFile::OpenForReading(local);
  TransferLog("Upload", channel_.HandlePrefix() + "handle = " + std::to_string(file.Handle()));
  if (file.IsOpen()) return true;
  error_.Set(errors::kCannotOpenFile, "Cannot open file " + local);
  TransferLog("Upload", channel_.HandlePrefix() + "create file fail ");
  return false;
}

bool Transfers::UploadAnnounced(LocalFile& file) {
  TransferHeader header;
  header.size = static_cast<int32_t>(static_cast<uint32_t>(file.Size().value_or(0)));
  const FileTimes times = file.Times().value_or(FileTimes{});
  header.creation_time = times.creation;
  header.last_access_time = times.last_access;
  header.last_write_time = times.last_write;
  TransferLog("Upload",
              channel_.HandlePrefix() + "Upload file size = " + std::to_string(header.size));
  const Channel::Bytes message = BuildTransferHeader(header);
  if (!channel_.SendMessage(static_cast<int32_t>(message.size()), message)) {
    TransferLog("Upload", channel_.HandlePrefix() + "send file size fail ");
    return false;
  }
  Channel::Bytes reply;
  int32_t sequence = 0;
  if (!channel_.RecvMessage(static_cast<int32_t>(kPacketSize), reply, sequence)) {
    TransferLog("Upload", channel_.HandlePrefix() + "RecvMessage fail ");
    return false;
  }
  if (!IsGoReply(reply)) {
    error_.Set(errors::kCannotOpenFile, "server create file fail");
    TransferLog("Upload", channel_.HandlePrefix() + "Server create file fail");
    return false;
  }
  return UploadContent(file, header.size);
}

bool Transfers::UploadContent(LocalFile& file, int32_t size) {
  Channel::Bytes block(kPiecesPerSend * kPacketSize, 0);
  Channel::Bytes previous(kPacketSize,
                          0);  // the piece sent last: the stale tail of a short last piece
  int64_t sent = 0;
  for (int64_t n = file.ReadFull(block); n > 0; n = file.ReadFull(block)) {
    const size_t pieces = CompletePieces(block, static_cast<size_t>(n), previous);
    if (!channel_.SendPacket(std::span(block).first(pieces * kPacketSize))) {
      TransferLog("Upload", channel_.HandlePrefix() +
                                "send file content fail,bytes sent = " + std::to_string(sent));
      return false;
    }
    sent += n;
    const auto last = block.begin() + static_cast<std::ptrdiff_t>((pieces - 1) * kPacketSize);
    std::copy(last, last + static_cast<std::ptrdiff_t>(kPacketSize), previous.begin());
  }
  TransferLog("Upload", std::to_string(sent) + " bytes sent" + std::to_string(size));
  const int handle = file.Handle();
  file.Close();
  TransferLog("Upload", "close handle " + std::to_string(handle));
  return true;
}

bool Transfers::Download(std::string_view local_file, std::string_view remote_file) {
  error_.Clear();
  const std::string local(local_file);
  TransferLog("Download", "** Download " + local + " =>" + std::string(remote_file) + " **");
  for (const auto& [value, text] : {std::pair{local_file, "Empty local file name"},
                                    std::pair{remote_file, "Empty remote file name"}}) {
    if (!CheckArgument(error_, value, text)) {
      TransferLog("Download", text, true);
      return false;
    }
  }
  if (!channel_.SendRequestUnicode(remote_file, Code(RequestCode::kDownload))) {
    TransferLog("Download", channel_.HandlePrefix() + "Send request fail");
    return false;
  }
  const std::optional<TransferHeader> header = ReceiveTransferHeader();
  if (!header) return false;
  TransferLog("Download",
              channel_.HandlePrefix() + "Download file size = " + std::to_string(header->size));
  if (header->size < 0) {
    error_.Set(errors::kInvalidDataSize, "Cannot open remote file");
    return false;
  }
  return DownloadContent(local, *header);
}

std::optional<TransferHeader> Transfers::ReceiveTransferHeader() {
  Channel::Bytes data;
  int32_t sequence = 0;
  std::optional<TransferHeader> header;
  if (channel_.RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    header = ParseTransferHeader(data);
    if (!header) error_.Set(errors::kInvalidDataSize, "Invalid Data Size");
  }
  if (header) return header;
  TransferLog("Download", channel_.HandlePrefix() + "Recv Data Size fail");
  TransferLog("Download", channel_.HandlePrefix() + "errdesc = " + error_.description());
  // The refusal is sent as a message of its own; the receive's error is what the caller sees.
  const int32_t code = error_.code();
  std::string description = error_.description();
  SendGoReply(false);
  error_.Set(code, std::move(description));
  return std::nullopt;
}

bool Transfers::SendGoReply(bool ready) {
  const Channel::Bytes reply = BuildGoReply(ready);
  return channel_.SendMessage(static_cast<int32_t>(reply.size()), reply);
}

bool Transfers::DownloadContent(const std::string& local, const TransferHeader& header) {
  LocalFile file = LocalFile::CreateAlways(local);
  TransferLog("Download", channel_.HandlePrefix() + "hFile =" + std::to_string(file.Handle()));
  if (!file.IsOpen()) {
    SendGoReply(false);
    error_.Set(errors::kCannotOpenFile, "Cannot create file " + local);
    TransferLog("Download", channel_.HandlePrefix() + "Cannot create file " + local, true);
    return false;
  }
  SendGoReply(true);
  if (!ReceiveContent(file, header.size)) return false;
  return FinishDownload(file, local, header);
}

bool Transfers::FinishDownload(LocalFile& file, const std::string& local,
                               const TransferHeader& header) {
  if (file.WriteError() != 0) return FailWrite(file, local);
  // The last-write time goes through calendar fields with milliseconds and back: whole ms.
  const uint64_t last_write =
      header.last_write_time - header.last_write_time % kTicksPerMillisecond;
  file.SetTimes(header.last_access_time, last_write);
  file.Close();
  return true;
}

// The size message of the reply describes the whole file as the server opened it, so the check
// that it is still the file whose first part is kept is made on the very file the rest comes
// from.
bool Transfers::Resume(std::string_view local_file, std::string_view remote_file,
                       int32_t expected_size, Date expected_last_write) {
  error_.Clear();
  const std::string local(local_file);
  TransferLog("ResumeDownload", "** Resume " + local + " =>" + std::string(remote_file) + " **");
  if (!CheckArgument(error_, local_file, "Empty local file name") ||
      !CheckArgument(error_, remote_file, "Empty remote file name")) {
    return false;
  }
  LocalFile probe = LocalFile::OpenForReading(local);
  const int64_t kept = probe.IsOpen() ? probe.Size().value_or(-1) : -1;
  probe.Close();
  if (kept < 0 || kept > INT32_MAX) {
    error_.Set(errors::kCannotOpenFile, "Cannot open file " + local);
    return false;
  }
  const auto offset = static_cast<int32_t>(kept);
  if (!channel_.SendRequest(kResumeCode, ResumeArguments(remote_file, offset))) return false;
  const std::optional<TransferHeader> header = ReceiveTransferHeader();
  if (!header) return false;
  TransferLog("ResumeDownload", channel_.HandlePrefix() + "file size = " +
                                    std::to_string(header->size) + ", from " +
                                    std::to_string(offset));
  if (header->size < 0) {
    error_.Set(errors::kInvalidDataSize, "Cannot open remote file");
    return false;
  }
  if (header->size != expected_size || offset >= header->size ||
      !(FileTimeToDate(header->last_write_time) == expected_last_write)) {
    SendGoReply(false);
    error_.Set(errors::kInvalidDataSize, kRemoteFileChanged);
    return false;
  }
  LocalFile file = LocalFile::OpenAt(local, offset);
  if (!file.IsOpen()) {
    SendGoReply(false);
    error_.Set(errors::kCannotOpenFile, "Cannot open file " + local);
    return false;
  }
  SendGoReply(true);
  if (!ReceiveContent(file, ResumeContentSize(header->size, offset))) return false;
  return FinishDownload(file, local, *header);
}

// The content is asked of the socket in blocks of whole pieces and each block goes straight to
// the file. What reaches the file, and the count left when the socket fails, are those of
// piece-by-piece receiving: a failing receive keeps only the whole pieces that came before it.
bool Transfers::ReceiveContent(LocalFile& file, int32_t size) {
  error_.Clear();
  Channel::Bytes block;
  int64_t remaining = size;
  while (remaining > 0) {
    const auto wanted = static_cast<int32_t>(std::min<int64_t>(remaining, kReceiveBlock));
    const int32_t e = channel_.ReceiveRaw(wanted, block);
    const size_t usable =
        e == sckSuccess ? block.size() : block.size() - block.size() % kPacketSize;
    file.WriteAll(std::span(block).first(usable));
    remaining -= static_cast<int64_t>(usable);
    if (e != sckSuccess) return FailContent(file, e, remaining);
  }
  return true;
}

// The content has all been received but not all written (a full disk): the file, which holds only
// a part, is removed and the write's error reported.
bool Transfers::FailWrite(LocalFile& file, const std::string& local) {
  const int32_t error = platform::Win32FromErrno(file.WriteError());
  file.Close();
  ::unlink(local.c_str());
  error_.Set(error, DescribeError(error));
  TransferLog("Download", channel_.HandlePrefix() + "Cannot write file " + local, true);
  return false;
}

bool Transfers::FailContent(LocalFile& file, int32_t error, int64_t remaining) {
  channel_.SetSocketError(error);
  file.Close();
  TransferLog(
      "Download",
      channel_.HandlePrefix() + "Get file content fail ,remain = " + std::to_string(remaining),
      true);
  return false;
}

}  // namespace pelmora::admin::internal
