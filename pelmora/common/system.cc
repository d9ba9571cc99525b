#include "pelmora/common/system.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <new>
#include <utility>

#include "pelmora/common/error.h"
#include "pelmora/common/error_texts.h"
#include "pelmora/common/internal/platform.h"
#include "pelmora/common/log.h"
#include "pelmora/platform/file_io.h"

namespace pelmora {
namespace {

// The longest temporary folder, separator included, that the caller's 255-character buffer
// holds next to its terminating NUL.
constexpr size_t kMaxTempFolderLength = 254;
// The platform number and text of a path that does not fit.
constexpr int32_t kFileNameTooLong = 206;

std::function<Date()>& ClockOverride() {
  static std::function<Date()> clock;
  return clock;
}

std::string WithoutTrailingSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

// The number and description of the exception being handled, as the routines' error handlers
// write them.
Error CurrentExceptionAsError() {
  try {
    throw;
  } catch (const Error& e) {
    return e;
  } catch (const std::bad_alloc&) {
    return RuntimeError(7);
  } catch (...) {
    return RuntimeError(5);
  }
}

// The error handler of this module's routines: one "E" line beside the library.
void LogRoutineError(std::string_view procedure_name) {
  try {
    Error e = CurrentExceptionAsError();
    WriteLogFile(e.Number(), e.Description(), "modCommon", procedure_name, kLogEntryError, 0, "");
  } catch (...) {
    // Nothing left to report with.
  }
}

}  // namespace

namespace internal {

void SetClockForTesting(std::function<Date()> clock) { ClockOverride() = std::move(clock); }

std::optional<std::string> ReadHostName() {
  char buffer[256] = {};
  if (gethostname(buffer, sizeof(buffer) - 1) != 0) return std::nullopt;
  return std::string(buffer);  // the text before the first NUL
}

bool FolderExists(const std::string& path) {
  struct stat info {};
  return stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool CreateFolder(const std::string& path) {
  return mkdir(path.c_str(), 0755) == 0 || FolderExists(path);
}

bool CreateFolderPath(std::string_view file_path) {
  size_t last = file_path.rfind('/');
  if (last == std::string_view::npos) return true;
  std::string folder(file_path.substr(0, last == 0 ? 1 : last));
  if (FolderExists(folder)) return true;  // the usual case: one stat instead of a mkdir per level
  for (size_t pos = file_path.find('/', 1); pos != std::string_view::npos && pos < last;
       pos = file_path.find('/', pos + 1)) {
    // An existing folder (or a ".." step) fails with EEXIST; anything else shows at the end.
    mkdir(std::string(file_path.substr(0, pos)).c_str(), 0755);
  }
  return CreateFolder(folder);
}

bool AppendToFile(const std::string& path, std::string_view bytes) {
  const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC;
  platform::UniqueFd fd(platform::Open(path.c_str(), flags, 0644));
  if (!fd) return false;
  ssize_t written = platform::Write(fd.get(), bytes.data(), bytes.size());
  bool closed = fd.reset() == 0;
  return closed && written == static_cast<ssize_t>(bytes.size());
}

}  // namespace internal

Date CurrentLocalTime() {
  const std::function<Date()>& clock = ClockOverride();
  return clock ? clock() : Date::Now();
}

std::string LocalComputerName() {
  try {
    return internal::ReadHostName().value_or(std::string());
  } catch (...) {
    return {};
  }
}

std::string GetTempFolder() {
  try {
    const char* tmpdir = std::getenv("TMPDIR");
    std::string folder = tmpdir != nullptr && *tmpdir != '\0' ? tmpdir : "/tmp";
    if (folder.back() != '/') folder += '/';
    if (folder.size() > kMaxTempFolderLength) {
      throw Error(kFileNameTooLong, std::string(SystemMessageText(kFileNameTooLong).value_or("")));
    }
    return folder;
  } catch (...) {
    LogRoutineError("GetTempFolder");
    return {};
  }
}

std::string LibraryFolder() {
  try {
    const char* home = std::getenv("PELMORA_HOME");
    if (home != nullptr && *home != '\0') return WithoutTrailingSlashes(home);
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&LibraryFolder), &info) == 0 || info.dli_fname == nullptr) {
      return {};
    }
    std::string file = info.dli_fname;
    size_t slash = file.rfind('/');
    if (slash == std::string::npos) return {};
    return slash == 0 ? "/" : file.substr(0, slash);
  } catch (...) {
    return {};
  }
}

}  // namespace pelmora
