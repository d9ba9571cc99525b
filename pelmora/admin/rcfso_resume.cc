// RCFSO's ResumeDownload: the download-from-offset request (resume_wire.h) on the client side.
// The size message of the reply describes the whole file as the server opened it, so the check
// that it is still the file whose first part is kept is made on the very file the rest comes
// from.
#include <climits>
#include <string>

#include "pelmora/admin/internal/local_file.h"
#include "pelmora/admin/rc_file_info.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/resume_wire.h"
#include "pelmora/common/error_numbers.h"

namespace pelmora::admin {

using internal::LocalFile;

bool RCFSO::ResumeDownload(std::string_view sLocalFile, std::string_view sRemoteFile,
                           int32_t lExpectedSize, Date dExpectedLastWrite) {
  ClearError();
  const std::string local(sLocalFile);
  TransferLog("ResumeDownload", "** Resume " + local + " =>" + std::string(sRemoteFile) + " **");
  if (!CheckArgument(sLocalFile, "Empty local file name") ||
      !CheckArgument(sRemoteFile, "Empty remote file name")) {
    return false;
  }
  LocalFile probe = LocalFile::OpenForReading(local);
  const int64_t kept = probe.IsOpen() ? probe.Size().value_or(-1) : -1;
  probe.Close();
  if (kept < 0 || kept > INT32_MAX) {
    SetError(errors::kCannotOpenFile, "Cannot open file " + local);
    return false;
  }
  const auto offset = static_cast<int32_t>(kept);
  if (!SendRequestBlock(kResumeCode, ResumeArguments(sRemoteFile, offset))) return false;
  const std::optional<TransferHeader> header = ReceiveTransferHeader();
  if (!header) return false;
  TransferLog("ResumeDownload", HandlePrefix() + "file size = " + std::to_string(header->size) +
                                    ", from " + std::to_string(offset));
  if (header->size < 0) {
    SetError(errors::kInvalidDataSize, "Cannot open remote file");
    return false;
  }
  if (header->size != lExpectedSize || offset >= header->size ||
      !(FileTimeToDate(header->last_write_time) == dExpectedLastWrite)) {
    SendGoReply(false);
    SetError(errors::kInvalidDataSize, kRemoteFileChanged);
    return false;
  }
  LocalFile file = LocalFile::OpenAt(local, offset);
  if (!file.IsOpen()) {
    SendGoReply(false);
    SetError(errors::kCannotOpenFile, "Cannot open file " + local);
    return false;
  }
  SendGoReply(true);
  if (!ReceiveContent(file, ResumeContentSize(header->size, offset))) return false;
  return FinishDownload(file, local, *header);
}

}  // namespace pelmora::admin
