// Result codes of the task objects and the raise that carries them to callers.
//
// Failures are raised as pelmora::Error whose number is the 32-bit result code read as a signed
// number (0x80070002 is -2147024894) and whose description is the platform's text for it:
//
//   RaiseSchedError(kSchedTaskNotRunning, "Pelmora.Task");
//   // Error(-2147216629, "There is no running instance of the task.", "Pelmora.Task")
#ifndef PELMORA_SCHED_SCHED_ERRORS_H_
#define PELMORA_SCHED_SCHED_ERRORS_H_

#include <cstdint>
#include <string>

#include "pelmora/platform/export.h"

namespace pelmora::sched {

// Status codes (success results) held in a task file.
inline constexpr uint32_t kSchedTaskReady = 0x00041300;
inline constexpr uint32_t kSchedTaskRunning = 0x00041301;
inline constexpr uint32_t kSchedTaskDisabled = 0x00041302;
inline constexpr uint32_t kSchedTaskHasNotRun = 0x00041303;
inline constexpr uint32_t kSchedTaskNoMoreRuns = 0x00041304;
inline constexpr uint32_t kSchedTaskNotScheduled = 0x00041305;
inline constexpr uint32_t kSchedTaskTerminated = 0x00041306;
inline constexpr uint32_t kSchedTaskNoValidTriggers = 0x00041307;
inline constexpr uint32_t kSchedEventTrigger = 0x00041308;

// Failure results.
inline constexpr uint32_t kSchedTriggerNotFound = 0x80041309;
inline constexpr uint32_t kSchedTaskNotReady = 0x8004130A;
inline constexpr uint32_t kSchedTaskNotRunning = 0x8004130B;
inline constexpr uint32_t kSchedCannotOpenTask = 0x8004130D;
inline constexpr uint32_t kSchedInvalidTask = 0x8004130E;
inline constexpr uint32_t kSchedAccountNotSet = 0x8004130F;
inline constexpr uint32_t kNotImplemented = 0x80004001;
inline constexpr uint32_t kFail = 0x80004005;
inline constexpr uint32_t kInvalidArg = 0x80070057;
inline constexpr uint32_t kFileNotFound = 0x80070002;  // from Win32 error 2
inline constexpr uint32_t kAccessDenied = 0x80070005;  // from Win32 error 5
inline constexpr uint32_t kFileExists = 0x80070050;    // from Win32 error 80

// The result code of a Win32 error number (0 stays 0).
PELMORA_API uint32_t ResultFromWin32(uint32_t win32);

// The result code for an errno value from a file operation in the task folder: ENOENT gives
// kFileNotFound, EEXIST kFileExists, EACCES and EPERM kAccessDenied, anything else kFail.
PELMORA_API uint32_t ResultFromErrno(int error);

// The platform's text for `code` ("" when it has none), without a trailing line end.
PELMORA_API std::string SchedResultText(uint32_t code);

// Raises Error(code as a signed number, SchedResultText(code), source).
[[noreturn]] PELMORA_API void RaiseSchedError(uint32_t code, const std::string& source);

}  // namespace pelmora::sched

#endif  // PELMORA_SCHED_SCHED_ERRORS_H_
