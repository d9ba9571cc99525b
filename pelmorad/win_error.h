// The Windows-style error numbers the service answers with, and the mapping from errno.
//
//   int32_t code = pelmorad::FromErrno(ENOENT, pelmorad::Missing::kFile);  // 2
//   std::string text = pelmorad::ErrorText(code);  // "The system cannot find the file specified."
#ifndef PELMORAD_WIN_ERROR_H_
#define PELMORAD_WIN_ERROR_H_

#include <cstdint>
#include <string>

#include "pelmora/platform/win_error.h"

namespace pelmorad {

// The numbers used in replies (their texts are the platform's messages).
inline constexpr int32_t kSuccess = 0;
inline constexpr int32_t kInvalidFunction = 1;
inline constexpr int32_t kFileNotFound = 2;
inline constexpr int32_t kPathNotFound = 3;
inline constexpr int32_t kCannotOpen = 4;
inline constexpr int32_t kAccessDenied = 5;
inline constexpr int32_t kNotEnoughMemory = 8;
inline constexpr int32_t kSharingViolation = 32;
inline constexpr int32_t kFileExists = 80;
inline constexpr int32_t kInvalidParameter = 87;
inline constexpr int32_t kDiskFull = 112;
inline constexpr int32_t kInvalidName = 123;
inline constexpr int32_t kFolderNotEmpty = 145;
inline constexpr int32_t kAlreadyExists = 183;
inline constexpr int32_t kNameTooLong = 206;
inline constexpr int32_t kNotAFolder = 267;
inline constexpr int32_t kLogonFailure = 1326;
inline constexpr int32_t kTimeout = 1460;

using pelmora::platform::Missing;

// The Windows number for an errno value (the library's one table).
inline int32_t FromErrno(int error, Missing missing) {
  return pelmora::platform::Win32FromErrno(error, missing);
}

// The text for `code` (the platform message); "Error: N (no description)" when there is none.
std::string ErrorText(int32_t code);

}  // namespace pelmorad

#endif  // PELMORAD_WIN_ERROR_H_
