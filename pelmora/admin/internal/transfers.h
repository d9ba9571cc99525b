// The administration client's Upload (request 0) and Download (request 1): a 28-byte size
// message with the file's size and times, a "T"/"F" go reply from the receiving side, then the
// content as raw 1500-byte pieces outside the framing. RCFSO's Upload and Download forward here;
// their error numbers and texts are documented in pelmora/admin/rcfso.h.
//
//   Transfers transfers(channel);
//   bool copied = transfers.Download("/tmp/shop.ini", "D:\\Data\\shop.ini");
#ifndef PELMORA_ADMIN_INTERNAL_TRANSFERS_H_
#define PELMORA_ADMIN_INTERNAL_TRANSFERS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmora/common/date.h"

namespace pelmora::admin::internal {

class LocalFile;

class Transfers : private RequestFamily {
 public:
  using RequestFamily::RequestFamily;

  bool Upload(std::string_view local_file, std::string_view remote_file);
  bool Download(std::string_view local_file, std::string_view remote_file);
  // RCFSO::ResumeDownload: the rest of `remote_file` from the local file's size on (request 44).
  bool Resume(std::string_view local_file, std::string_view remote_file, int32_t expected_size,
              Date expected_last_write);

 private:
  bool OpenUploadSource(const std::string& local, LocalFile& file);
  bool UploadAnnounced(LocalFile& file);
  bool UploadContent(LocalFile& file, int32_t size);
  std::optional<TransferHeader> ReceiveTransferHeader();
  bool SendGoReply(bool ready);
  bool DownloadContent(const std::string& local, const TransferHeader& header);
  bool ReceiveContent(LocalFile& file, int32_t size);
  bool FailContent(LocalFile& file, int32_t error, int64_t remaining);
  bool FailWrite(LocalFile& file, const std::string& local);
  // The content is in: the write's error, or the server's times set on the file.
  bool FinishDownload(LocalFile& file, const std::string& local, const TransferHeader& header);
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_TRANSFERS_H_
