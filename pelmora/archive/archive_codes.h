// The return codes, message texts and callback signatures that callers of the archive engines
// see: the zip side returns 0-20, the unzip side 0-11, 50, 51 and 80-82.
//
//   int rc = RunZip(options, names, callbacks);
//   if (rc == kZipNothingToDo) ...            // "Nothing to do!"
#ifndef PELMORA_ARCHIVE_ARCHIVE_CODES_H_
#define PELMORA_ARCHIVE_ARCHIVE_CODES_H_

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora::archive {

// Zip return codes.
inline constexpr int kZipOk = 0;
inline constexpr int kZipEof = 2;
inline constexpr int kZipForm = 3;
inline constexpr int kZipMem = 4;
inline constexpr int kZipLogic = 5;
inline constexpr int kZipBig = 6;
inline constexpr int kZipNote = 7;
inline constexpr int kZipTest = 8;
inline constexpr int kZipAbort = 9;
inline constexpr int kZipTemp = 10;
inline constexpr int kZipRead = 11;
inline constexpr int kZipNothingToDo = 12;
inline constexpr int kZipName = 13;
inline constexpr int kZipWrite = 14;
inline constexpr int kZipCreate = 15;
inline constexpr int kZipParms = 16;
inline constexpr int kZipOpen = 18;
inline constexpr int kZipCompErr = 19;
inline constexpr int kZipZip64 = 20;

// The text of zip return code `code` ("Nothing to do!" for 12); empty for 0 and unused codes.
PELMORA_API std::string_view ZipErrorText(int code);

// Unzip return codes.
inline constexpr int kUnzipOk = 0;
inline constexpr int kUnzipWarn = 1;
inline constexpr int kUnzipErr = 2;
inline constexpr int kUnzipBadErr = 3;
inline constexpr int kUnzipMem = 4;
inline constexpr int kUnzipMem2 = 5;  // also: the password could not be fetched
inline constexpr int kUnzipMem3 = 6;
inline constexpr int kUnzipNoZip = 9;
inline constexpr int kUnzipParam = 10;
inline constexpr int kUnzipFind = 11;
inline constexpr int kUnzipDisk = 50;
inline constexpr int kUnzipEof = 51;
inline constexpr int kUnzipCtrlC = 80;
inline constexpr int kUnzipUnsupported = 81;
inline constexpr int kUnzipBadPassword = 82;

// Password callback answers (both sides).
inline constexpr int kPasswordEntered = 0;
inline constexpr int kPasswordCancel = -1;
inline constexpr int kPasswordCancelAll = -2;
inline constexpr int kPasswordError = 5;

// Replace callback answers (unzip side).
inline constexpr int kReplaceNo = 100;
inline constexpr int kReplaceText = 101;
inline constexpr int kReplaceYes = 102;
inline constexpr int kReplaceAll = 103;
inline constexpr int kReplaceNone = 104;
inline constexpr int kReplaceRename = 105;
inline constexpr int kReplaceHelp = 106;

// Receives one printed message fragment (not necessarily a whole line); the result is ignored.
using PrintCallback = std::function<int(std::string_view text)>;

// Asked for a password: writes it into `answer` and returns kPasswordEntered, or returns another
// answer code. `prompt` is the question ("Enter password: "), `name` the archive (zip side) or
// the entry (unzip side).
using PasswordCallback =
    std::function<int(std::string& answer, std::string_view prompt, std::string_view name)>;

// Told of each entry done: its name and uncompressed size. A non-zero result stops the run.
using ServiceCallback = std::function<int(std::string_view name, uint64_t size)>;

}  // namespace pelmora::archive

#endif  // PELMORA_ARCHIVE_ARCHIVE_CODES_H_
