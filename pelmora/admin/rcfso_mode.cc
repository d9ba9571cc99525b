// The file mode requests of the extended exchange (mode_wire.h) on the client side.
#include <algorithm>

#include "pelmora/admin/mode_wire.h"
#include "pelmora/admin/rcfso.h"

namespace pelmora::admin {

bool RCFSO::GetFileMode(std::string_view sRemoteFile, int32_t& lMode) {
  ClearError();
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) return false;
  if (!SendRequestBlock(kModeGetCode, ModeArguments(sRemoteFile, std::nullopt))) return false;
  if (!RecvResult()) return false;
  lMode = std::clamp(ErrCode(), 0, kModePermissionBits);
  ClearError();
  return true;
}

bool RCFSO::SetFileMode(std::string_view sRemoteFile, int32_t lMode) {
  ClearError();
  if (!CheckArgument(sRemoteFile, "Empty remote file name")) return false;
  if ((lMode & ~kModePermissionBits) != 0) {
    SetError(87, "The parameter is incorrect.");
    return false;
  }
  if (!SendRequestBlock(kModeSetCode, ModeArguments(sRemoteFile, lMode))) return false;
  return RecvResult();
}

}  // namespace pelmora::admin
