#include "pelmora/platform/win_error.h"

#include <cerrno>

namespace pelmora::platform {

int32_t Win32FromErrno(int error, Missing missing) {
  switch (error) {
    case 0:
      return 0;
    case ENOENT:
      return missing == Missing::kFile ? 2 : 3;
    case ENOTDIR:
      return 3;
    case EMFILE:
    case ENFILE:
      return 4;
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case EXDEV:
    case ELOOP:
    case ENXIO:  // a FIFO, socket or device where a file was asked for
    case ENODEV:
      return 5;
    case ENOMEM:
    case EAGAIN:
      return 8;
    case EBUSY:
    case ETXTBSY:
      return 32;
    case EEXIST:
      return 80;
    case EINVAL:
      return 87;
    case ENOSPC:
    case EDQUOT:
      return 112;
    case ENOTEMPTY:
      return 145;
    case ENAMETOOLONG:
      return 206;
    default:
      return 1;
  }
}

uint32_t HresultFromWin32(uint32_t win32) {
  return win32 == 0 ? 0 : (0x80070000u | (win32 & 0xFFFF));
}

uint32_t HresultFromErrno(int error, Missing missing) {
  return HresultFromWin32(static_cast<uint32_t>(Win32FromErrno(error, missing)));
}

}  // namespace pelmora::platform
