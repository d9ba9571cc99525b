// The few system calls behind the log writers and the common routines, kept in one place so the
// writers' logic stays free of them, plus the clock hook that tests use to pin the time.
//
//   pelmora::internal::SetClockForTesting([] { return *pelmora::Date::FromCivil({...}); });
//   ...
//   pelmora::internal::SetClockForTesting(nullptr);  // back to the system clock
#ifndef PELMORA_COMMON_INTERNAL_PLATFORM_H_
#define PELMORA_COMMON_INTERNAL_PLATFORM_H_

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "pelmora/common/date.h"
#include "pelmora/platform/export.h"

namespace pelmora::internal {

// Replaces the clock behind CurrentLocalTime for the whole process; nullptr restores the system
// clock. Not synchronised: set it only while no other thread reads the time. Exported although
// not installed: the fixtures pin the clock of the shared library the end-to-end tests drive.
PELMORA_API void SetClockForTesting(std::function<Date()> clock);

// The host name (the text before the first NUL of gethostname's buffer), or nullopt when
// gethostname fails.
std::optional<std::string> ReadHostName();

// True when `path` names an existing folder (stat and S_ISDIR; symbolic links are followed).
bool FolderExists(const std::string& path);

// Creates the one folder `path` (mode 0755 before the umask). True when it was created or already
// exists as a folder.
bool CreateFolder(const std::string& path);

// Creates every missing folder of `file_path` up to its last '/', like mkdir -p. ".." components
// are left for the kernel to resolve. True when the folder of the file exists afterwards.
bool CreateFolderPath(std::string_view file_path);

// Appends `bytes` to the file `path` with exactly one write() on a descriptor opened with
// O_WRONLY|O_APPEND|O_CREAT|O_CLOEXEC (mode 0644), then closes it. True when every byte was
// written and the close succeeded. Concurrent appenders never interleave within one call's bytes.
bool AppendToFile(const std::string& path, std::string_view bytes);

}  // namespace pelmora::internal

#endif  // PELMORA_COMMON_INTERNAL_PLATFORM_H_
