#include "pelmorad/win_error.h"

#include <cerrno>

#include "pelmora/common/error_texts.h"

namespace pelmorad {

int32_t FromErrno(int error, Missing missing) {
  switch (error) {
    case ENOENT:
      return missing == Missing::kFile ? kFileNotFound : kPathNotFound;
    case ENOTDIR:
      return kPathNotFound;
    case EXDEV:
    case ELOOP:
    case EACCES:
    case EPERM:
    case EROFS:
    case EISDIR:
    case ENXIO:  // a FIFO, socket or device where a file was asked for
    case ENODEV:
      return kAccessDenied;
    case EEXIST:
      return kFileExists;
    case ENOTEMPTY:
      return kFolderNotEmpty;
    case ENOSPC:
    case EDQUOT:
      return kDiskFull;
    case ENAMETOOLONG:
      return kNameTooLong;
    case EBUSY:
    case ETXTBSY:
      return kSharingViolation;
    case EMFILE:
    case ENFILE:
      return kCannotOpen;
    case ENOMEM:
      return kNotEnoughMemory;
    case EINVAL:
      return kInvalidParameter;
    default:
      return kInvalidFunction;
  }
}

std::string ErrorText(int32_t code) { return pelmora::DescribeError(code); }

}  // namespace pelmorad
