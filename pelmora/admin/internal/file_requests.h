// The administration client's file and folder requests: one request block each, then the
// request's own reply (a result reply, a text message, or a size message followed by raw text),
// and the file mode requests of the extended exchange. RCFSO's members of the same names
// forward here; their error numbers and texts are documented in pelmora/admin/rcfso.h.
//
//   FileRequests files(channel);
//   bool there = files.FileExists("C:\\Data\\a.txt");
#ifndef PELMORA_ADMIN_INTERNAL_FILE_REQUESTS_H_
#define PELMORA_ADMIN_INTERNAL_FILE_REQUESTS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/admin/internal/channel.h"
#include "pelmora/admin/rcfso.h"
#include "pelmora/admin/wire.h"
#include "pelmora/common/date.h"

namespace pelmora::admin::internal {

class FileRequests : private RequestFamily {
 public:
  using RequestFamily::RequestFamily;

  std::string GetFileVersion(std::string_view file);
  std::string GetPathWithKey(std::string_view key);
  std::string GetPrintQ();
  std::string GetSystemDirectory();
  Date GetSystemTime();
  bool IsSameMachineWithSvr();
  bool FileExists(std::string_view file);
  bool FolderExists(std::string_view folder);
  bool CreateRemoteFolder(std::string_view folder);
  bool DeleteRemoteFile(std::string_view file);
  bool DeleteRemoteFolder(std::string_view folder);
  bool CreateRemoteFile(std::string_view file, AutomationBool overwrite, AutomationBool unicode);
  bool CopyRemoteFile(std::string_view existing, std::string_view target, AutomationBool overwrite);
  bool CopyRemoteFolder(std::string_view existing, std::string_view target,
                        AutomationBool overwrite);
  bool MoveRemoteFile(std::string_view existing, std::string_view target);
  bool GetFileMode(std::string_view file, int32_t& mode);
  bool SetFileMode(std::string_view file, int32_t mode);

 private:
  // The log lines of a request answered by a result reply.
  struct ResultLines {
    std::string_view module;
    std::string_view routine;
    std::string_view send_fail;
    std::string_view outcome;  // "" for no outcome line
  };
  // The result reply of a request that `sent`.
  bool ResultRequest(bool sent, const ResultLines& lines);
  // A request with one name in Unicode form, refused with 8116 `empty` when the name is blank.
  bool NameRequest(std::string_view name, std::string_view empty, RequestCode code,
                   const ResultLines& lines);
  // A copy of a `what` ("file" or "folder"): two names and the overwrite flag.
  bool CopyRequest(std::string_view existing, std::string_view target, AutomationBool overwrite,
                   std::string_view what, RequestCode code, const ResultLines& lines);
  // Both names of a copy or move must be given.
  bool CheckNames(std::string_view existing, std::string_view target, std::string_view what);
  std::optional<std::string> ReceiveText(std::string_view routine, int32_t entry_type);
  std::optional<std::string> ReceiveRawText(int32_t count, std::string_view routine,
                                            std::string_view content_fail);
};

}  // namespace pelmora::admin::internal

#endif  // PELMORA_ADMIN_INTERNAL_FILE_REQUESTS_H_
