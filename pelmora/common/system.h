// Small system routines shared by several classes: the local time at whole seconds, the
// computer's name, the temporary folder and the folder of the library itself.
//
//   std::string cache = pelmora::GetTempFolder() + "cache/";   // "/tmp/cache/"
//   pelmora::CurrentLocalTime().Format("yyyy-mm-dd hh:nn:ss")   // "2009-03-14 08:05:09"
//
// None of them throws. A fault inside GetTempFolder is written as one error line with
// WriteLogFile (module "modCommon", the routine's name as procedure) and gives an empty result.
#ifndef PELMORA_COMMON_SYSTEM_H_
#define PELMORA_COMMON_SYSTEM_H_

#include <string>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"

namespace pelmora {

// The current local time with the sub-second part dropped. Does not block.
PELMORA_API Date CurrentLocalTime();

// This computer's host name as gethostname reports it, or "" when it cannot be read.
PELMORA_API std::string LocalComputerName();

// The folder for temporary files, always ending in '/': $TMPDIR when set and not empty, otherwise
// "/tmp/". A folder longer than 254 characters, or any other fault, gives "" and one "E" line
// from WriteLogFile. Does not touch the file system apart from that line.
PELMORA_API std::string GetTempFolder();

// The folder that holds the loaded libpelmora.so, without a trailing '/'. The environment
// variable PELMORA_HOME, when set and not empty, overrides it. "" when neither is available.
PELMORA_API std::string LibraryFolder();

}  // namespace pelmora

#endif  // PELMORA_COMMON_SYSTEM_H_
