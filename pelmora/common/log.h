// The library's two diagnostic log writers.
//
// Both write one line per call, synchronously: the day file is opened for appending, the whole
// line goes out in one write and the file is closed again. Nothing is buffered or held open.
//
// WriteLog is the levelled writer of the remote file-system client. Its root folder (LogRoot) and
// threshold (LogLevel) exist once per thread. Lines go to LogRoot/yyyymm/yyyymmdd.log
// (information) or .err (errors, warnings and unknown types), fields separated by commas:
//
//   pelmora::LogRoot() = "/var/log/pelmora";
//   pelmora::LogLevel() = 3;
//   pelmora::WriteLog(3, "** Connected host", "RSFSO", "Connect", 4);
//   // 2009-03-14 08:05:09,I,POS01,[RSFSO:Connect],** Connected host\r\n
//
// WriteLogFile is the unlevelled writer of the block-message client and of the common routines'
// error handlers. Its files live beside the library, in <library folder>/../Log/yyyymm/, and its
// fields are separated by back-quotes:
//
//   pelmora::WriteLogFile(10054, "Connection reset", "SocketClient", "RecvMessage", 1);
//   // 2009-03-14 08:05:09`E`POS01`[SocketClient:RecvMessage]`0`10054`Connection reset\r\n
//
// Entry types: 1 error ("E"), 2 warning ("W"), 4 information ("I"); any other value is written
// as "U". Only type 4 goes to the ".log" file, every other type to the ".err" file. In messages
// every back-quote becomes an apostrophe and every CR LF pair one space.
//
// Logging never throws and never touches the caller's error state: every failure ends the call
// with false.
#ifndef PELMORA_COMMON_LOG_H_
#define PELMORA_COMMON_LOG_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "pelmora/platform/export.h"

namespace pelmora {

// Log entry types of both writers.
inline constexpr int32_t kLogEntryError = 1;
inline constexpr int32_t kLogEntryWarning = 2;
inline constexpr int32_t kLogEntryInformation = 4;

// Writes one comma-separated line to the day file under LogRoot(). Returns false without doing
// anything when `level` is above LogLevel(), false when LogRoot() is empty or is not an existing
// folder (the root is never created), and false when the month folder cannot be created, the
// computer name cannot be read or the line cannot be written. The month folder LogRoot()/yyyymm is
// created when missing. Each thread remembers the month folder it last wrote to and the computer
// name of the current second: a line to a known folder costs one open/write/close, and only an
// open that fails for want of a folder (removed, or a new root or month) goes back to the folder
// test and at most one mkdir. Never throws.
PELMORA_API bool WriteLog(int16_t level, std::string_view message, std::string_view module_name,
                          std::string_view procedure_name, int32_t entry_type);

// Writes one back-quote-separated line to <LibraryFolder()>/../Log/yyyymm/<file_prefix>yyyymmdd
// with ".log" or ".err", creating every missing folder of that path first. A user other than
// root who cannot write there (the folder of an installed library) writes the line to the same
// path under UserLogRoot() instead. Returns false when the library folder is unknown,
// a folder cannot be created or the line cannot be written. Callers
// pass -1 as `error_number` when the line carries no error code. Blocks for the folder creation
// and one open/write/close. Never throws.
PELMORA_API bool WriteLogFile(int32_t error_number, std::string_view message,
                              std::string_view module_name, std::string_view procedure_name,
                              int32_t entry_type, int32_t detail_number = 0,
                              std::string_view file_prefix = {});

// This user's own log folder: $XDG_STATE_HOME/pelmora/log, else ~/.local/state/pelmora/log; ""
// when neither variable is set. Does not create it.
PELMORA_API std::string UserLogRoot();

// The root folder of WriteLog's logs on the calling thread, without a trailing '/'. Empty until
// set; each thread has its own.
PELMORA_API std::string& LogRoot();

// The highest level WriteLog writes on the calling thread (0 until set); each thread has its own.
PELMORA_API int16_t& LogLevel();

}  // namespace pelmora

#endif  // PELMORA_COMMON_LOG_H_
