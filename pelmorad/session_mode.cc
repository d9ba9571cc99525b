// The file mode requests of the extended exchange (get mode 42, set mode 43): the permission
// bits of a regular file on a drive, read or set on the opened descriptor. The last name is never
// followed when it is a link (refused with 5), setuid, setgid and sticky bits are refused as
// malformed (87) before anything is opened, and set mode needs the right to change the drive.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <utility>

#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/wire_replies.h"
#include "pelmorad/session_requests.h"
#include "pelmorad/win_error.h"

namespace pelmorad {

using pelmora::admin::ModeRequest;
using pelmora::admin::RequestBlock;

namespace {

// The reply number and the mode: reads or sets the bits of `path` through its descriptor.
std::pair<int32_t, int32_t> ModeWork(const DriveTable& drives, const DrivePath& path,
                                     const ModeRequest& request) {
  // Looked at without following the last name and without the right to read the file.
  Opened probe = drives.OpenBeneath(path, O_PATH | O_NOFOLLOW);
  if (!probe.fd) return {drives.ResolveError(path, probe.error), 0};
  struct stat info {};
  if (::fstat(probe.fd.get(), &info) != 0) return {FromErrno(errno, Missing::kFile), 0};
  if (S_ISLNK(info.st_mode)) return {kAccessDenied, 0};
  if (!S_ISREG(info.st_mode)) return {kInvalidParameter, 0};
  if (request.set) {
    // fchmod needs a descriptor opened for reading; a name swapped for a link meanwhile fails.
    Opened file = drives.OpenRegular(path, O_RDONLY | O_NOFOLLOW);
    if (!file.fd)
      return {file.error == ELOOP ? kAccessDenied : FromErrno(file.error, Missing::kFile), 0};
    if (::fchmod(file.fd.get(), static_cast<mode_t>(request.mode)) != 0 ||
        ::fstat(file.fd.get(), &info) != 0) {
      return {FromErrno(errno, Missing::kFile), 0};
    }
  }
  return {kSuccess, static_cast<int32_t>(info.st_mode & pelmora::admin::kModePermissionBits)};
}

}  // namespace

asio::awaitable<bool> HandleMode(RequestScope& request, const RequestBlock& block) {
  std::optional<ModeRequest> parsed = pelmora::admin::ParseModeRequest(block);
  Target target;
  target.error = kInvalidParameter;
  if (parsed) target = request.ResolveArgument(block, 0, /*write=*/parsed->set);
  std::pair<int32_t, int32_t> result{target.error, 0};
  if (result.first == kSuccess) {
    auto drives = request.runtime.drives;
    result = co_await request.RunOnPool([&] { return ModeWork(*drives, target.path, *parsed); });
  }
  std::string what =
      parsed && parsed->set ? fmt::format("{} {:o}", target.text, parsed->mode) : target.text;
  request.Audit(block.code, what, result.first);
  if (result.first != kSuccess) co_return co_await request.channel.SendResult(result.first);
  co_return co_await request.channel.SendMessage(
      pelmora::admin::BuildResultReply(true, result.second, ""));
}

}  // namespace pelmorad
