// RCFSO's Upload (request 0) and Download (request 1): a 28-byte size message with the file's
// size and times, a "T"/"F" go reply from the receiving side, then the content as raw 1500-byte
// pieces outside the framing.
//
// Both stream in constant memory. Upload reads the file in blocks of whole pieces and sends each
// block in one socket send; the bytes on the wire are those of one 1500-byte buffer sent per
// piece, the last piece included, whose tail past the file's end still holds the previous piece's
// bytes (zeros for a file shorter than one piece). Download takes each piece through the socket's
// read-ahead buffer and writes the file in large blocks. A file that cannot be written (a full
// disk) is received to its end, so the session stays in step, then removed.
#include <unistd.h>

#include <algorithm>
#include <string>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/platform/win_error.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {
namespace {

using internal::LocalFile;

// Upload sends this many pieces per socket send.
constexpr size_t kPiecesPerSend = 44;
// Download asks the socket for this many bytes at a time (whole pieces, about 1 MiB: far more
// than the socket's read-ahead size, so that they are received straight into the block, and few
// enough receives and file writes per gigabyte that their cost per call does not show).
constexpr int64_t kReceiveBlock = 699 * kPacketSize;
// FILETIME ticks per millisecond: the last-write time a download sets is cut to milliseconds.
constexpr uint64_t kTicksPerMillisecond = 10000;

int16_t Code(RequestCode code) { return static_cast<int16_t>(code); }

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

}  // namespace

void RCFSO::TransferLog(std::string_view routine, std::string_view text, bool failure) const {
  if (failure) {
    LogFailure(text, "RFSO", routine);
  } else {
    Trace(text, "RFSO", routine);
  }
}

bool RCFSO::Upload(std::string_view sLocalFile, std::string_view sRemoteFile) {
  ClearError();
  const std::string local(sLocalFile);
  TransferLog("Upload", "** Upload " + local + " =>" + std::string(sRemoteFile) + " **");
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) {
    TransferLog("Upload", "Empty remote filename", true);
    return false;
  }
  LocalFile file;
  if (!OpenUploadSource(local, file)) return false;
  if (!SendRequestUnicode(sRemoteFile, Code(RequestCode::kUpload))) {
    TransferLog("Upload", HandlePrefix() + "send request fail ");
    return false;
  }
  return UploadAnnounced(file) && RecvResult();
}

bool RCFSO::OpenUploadSource(const std::string& local, internal::LocalFile& file) {
  if (!internal::IsRegularFile(local)) {
    std::string text = "File " + local + " does not exist !";
    RaiseEvent(&RCFSOEvents::FSOError, text);
    SetError(errors::kCannotOpenFile, text);
    TransferLog("Upload", text, true);
    return false;
  }
  file = LocalFile::OpenForReading(local);
  TransferLog("Upload", HandlePrefix() + "handle = " + std::to_string(file.Handle()));
  if (file.IsOpen()) return true;
  SetError(errors::kCannotOpenFile, "Cannot open file " + local);
  TransferLog("Upload", HandlePrefix() + "create file fail ");
  return false;
}

bool RCFSO::UploadAnnounced(internal::LocalFile& file) {
  TransferHeader header;
  header.size = static_cast<int32_t>(static_cast<uint32_t>(file.Size().value_or(0)));
  const internal::FileTimes times = file.Times().value_or(internal::FileTimes{});
  header.creation_time = times.creation;
  header.last_access_time = times.last_access;
  header.last_write_time = times.last_write;
  TransferLog("Upload", HandlePrefix() + "Upload file size = " + std::to_string(header.size));
  const Bytes message = BuildTransferHeader(header);
  if (!SendMessage(static_cast<int32_t>(message.size()), message)) {
    TransferLog("Upload", HandlePrefix() + "send file size fail ");
    return false;
  }
  Bytes reply;
  int32_t sequence = 0;
  if (!RecvMessage(static_cast<int32_t>(kPacketSize), reply, sequence)) {
    TransferLog("Upload", HandlePrefix() + "RecvMessage fail ");
    return false;
  }
  if (!IsGoReply(reply)) {
    SetError(errors::kCannotOpenFile, "server create file fail");
    TransferLog("Upload", HandlePrefix() + "Server create file fail");
    return false;
  }
  return UploadContent(file, header.size);
}

bool RCFSO::UploadContent(internal::LocalFile& file, int32_t size) {
  Bytes block(kPiecesPerSend * kPacketSize, 0);
  Bytes previous(kPacketSize, 0);  // the piece sent last: the stale tail of a short last piece
  int64_t sent = 0;
  for (int64_t n = file.ReadFull(block); n > 0; n = file.ReadFull(block)) {
    const size_t pieces = CompletePieces(block, static_cast<size_t>(n), previous);
    if (!SendPacket(std::span(block).first(pieces * kPacketSize))) {
      TransferLog("Upload",
                  HandlePrefix() + "send file content fail,bytes sent = " + std::to_string(sent));
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

bool RCFSO::Download(std::string_view sLocalFile, std::string_view sRemoteFile) {
  ClearError();
  const std::string local(sLocalFile);
  TransferLog("Download", "** Download " + local + " =>" + std::string(sRemoteFile) + " **");
  for (const auto& [value, text] : {std::pair{sLocalFile, "Empty local file name"},
                                    std::pair{sRemoteFile, "Empty remote file name"}}) {
    if (!CheckArgument(value, text)) {
      TransferLog("Download", text, true);
      return false;
    }
  }
  if (!SendRequestUnicode(sRemoteFile, Code(RequestCode::kDownload))) {
    TransferLog("Download", HandlePrefix() + "Send request fail");
    return false;
  }
  const std::optional<TransferHeader> header = ReceiveTransferHeader();
  if (!header) return false;
  TransferLog("Download", HandlePrefix() + "Download file size = " + std::to_string(header->size));
  if (header->size < 0) {
    SetError(errors::kInvalidDataSize, "Cannot open remote file");
    return false;
  }
  return DownloadContent(local, *header);
}

std::optional<TransferHeader> RCFSO::ReceiveTransferHeader() {
  Bytes data;
  int32_t sequence = 0;
  std::optional<TransferHeader> header;
  if (RecvMessage(static_cast<int32_t>(kPacketSize), data, sequence)) {
    header = ParseTransferHeader(data);
    if (!header) SetError(errors::kInvalidDataSize, "Invalid Data Size");
  }
  if (header) return header;
  TransferLog("Download", HandlePrefix() + "Recv Data Size fail");
  TransferLog("Download", HandlePrefix() + "errdesc = " + err_description_);
  // The refusal is sent as a message of its own; the receive's error is what the caller sees.
  const int32_t code = err_code_;
  std::string description = err_description_;
  SendGoReply(false);
  SetError(code, std::move(description));
  return std::nullopt;
}

bool RCFSO::SendGoReply(bool ready) {
  const Bytes reply = BuildGoReply(ready);
  return SendMessage(static_cast<int32_t>(reply.size()), reply);
}

bool RCFSO::DownloadContent(const std::string& local, const TransferHeader& header) {
  LocalFile file = LocalFile::CreateAlways(local);
  TransferLog("Download", HandlePrefix() + "hFile =" + std::to_string(file.Handle()));
  if (!file.IsOpen()) {
    SendGoReply(false);
    SetError(errors::kCannotOpenFile, "Cannot create file " + local);
    TransferLog("Download", HandlePrefix() + "Cannot create file " + local, true);
    return false;
  }
  SendGoReply(true);
  if (!ReceiveContent(file, header.size)) return false;
  return FinishDownload(file, local, header);
}

bool RCFSO::FinishDownload(internal::LocalFile& file, const std::string& local,
                           const TransferHeader& header) {
  if (file.WriteError() != 0) return FailWrite(file, local);
  // The last-write time goes through calendar fields with milliseconds and back: whole ms.
  const uint64_t last_write =
      header.last_write_time - header.last_write_time % kTicksPerMillisecond;
  file.SetTimes(header.last_access_time, last_write);
  file.Close();
  return true;
}

// The content is asked of the socket in blocks of whole pieces and each block goes straight to
// the file. What reaches the file, and the count left when the socket fails, are those of
// piece-by-piece receiving: a failing receive keeps only the whole pieces that came before it.
bool RCFSO::ReceiveContent(internal::LocalFile& file, int32_t size) {
  ClearError();
  Bytes block;
  int64_t remaining = size;
  while (remaining > 0) {
    const auto wanted = static_cast<int32_t>(std::min<int64_t>(remaining, kReceiveBlock));
    const int32_t e = ReceiveRaw(wanted, block);
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
bool RCFSO::FailWrite(internal::LocalFile& file, const std::string& local) {
  const int32_t error = platform::Win32FromErrno(file.WriteError());
  file.Close();
  ::unlink(local.c_str());
  SetError(error, DescribeError(error));
  TransferLog("Download", HandlePrefix() + "Cannot write file " + local, true);
  return false;
}

bool RCFSO::FailContent(internal::LocalFile& file, int32_t error, int64_t remaining) {
  SetSocketError(error);
  file.Close();
  TransferLog("Download",
              HandlePrefix() + "Get file content fail ,remain = " + std::to_string(remaining),
              true);
  return false;
}

}  // namespace pelmora::admin
