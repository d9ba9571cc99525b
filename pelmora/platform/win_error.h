// The one mapping from errno values to the Windows error numbers callers see, and its HRESULT
// view for the task scheduler.
//
//   int32_t code = pelmora::platform::Win32FromErrno(ENOENT, Missing::kPath);  // 3
//   uint32_t hr = pelmora::platform::HresultFromErrno(EACCES);                // 0x80070005
#ifndef PELMORA_PLATFORM_WIN_ERROR_H_
#define PELMORA_PLATFORM_WIN_ERROR_H_

#include <cstdint>

#include "pelmora/platform/export.h"

namespace pelmora::platform {

// Which "not found" a missing name means: the final name (kFile: 2) or a folder on the way
// (kPath: 3).
enum class Missing { kFile, kPath };

// The Windows number for an errno value:
//   ENOENT                                   2 or 3 as `missing` says
//   ENOTDIR                                  3
//   EMFILE ENFILE                            4
//   EACCES EPERM EROFS EISDIR EXDEV ELOOP
//   ENXIO ENODEV                             5 (a name that leaves its folder is "access denied")
//   ENOMEM EAGAIN                            8
//   EBUSY ETXTBSY                            32
//   EEXIST                                   80
//   EINVAL                                   87
//   ENOSPC EDQUOT                            112
//   ENOTEMPTY                                145
//   ENAMETOOLONG                             206
//   0                                        0
//   anything else                            1
PELMORA_API int32_t Win32FromErrno(int error, Missing missing = Missing::kFile);

// HRESULT_FROM_WIN32 of a Windows number: 0 stays 0, others become 0x8007xxxx.
PELMORA_API uint32_t HresultFromWin32(uint32_t win32);

// HresultFromWin32(Win32FromErrno(error, missing)).
PELMORA_API uint32_t HresultFromErrno(int error, Missing missing = Missing::kFile);

}  // namespace pelmora::platform

#endif  // PELMORA_PLATFORM_WIN_ERROR_H_
